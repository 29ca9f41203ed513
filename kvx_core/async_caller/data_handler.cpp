#include "async_caller/data_handler.h"

namespace AsyncCaller {

DataHandler::~DataHandler() = default;

}  // namespace AsyncCaller
