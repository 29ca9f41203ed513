#include "async_caller/chunk_caller.h"

namespace AsyncCaller {

ChunkCaller::~ChunkCaller() = default;

}  // namespace AsyncCaller
