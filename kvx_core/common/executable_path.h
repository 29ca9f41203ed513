#pragma once

#include <boost/filesystem/path.hpp>

namespace Common {

// Directory of the running program, from the link "/proc/self/exe" made canonical against the
// current path. The default data path and the install layout both hang off it.
boost::filesystem::path ExecutableDirectory();

}  // namespace Common
