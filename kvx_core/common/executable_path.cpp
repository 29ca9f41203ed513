#include "common/executable_path.h"

#include <boost/filesystem/operations.hpp>

namespace Common {

boost::filesystem::path ExecutableDirectory() {
    const boost::filesystem::path exe =
        boost::filesystem::canonical(boost::filesystem::read_symlink("/proc/self/exe"),
                                     boost::filesystem::current_path());
    return exe.parent_path();
}

}  // namespace Common
