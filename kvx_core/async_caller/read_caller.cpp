#include "async_caller/read_caller.h"

namespace AsyncCaller {

ReadCaller::~ReadCaller() = default;

}  // namespace AsyncCaller
