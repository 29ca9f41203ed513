#pragma once
// Where reads come from and where called reads go. GetRead and PassCalledRead are called from every
// caller worker at once, each with its own worker index.

#include <cstdint>

#include "async_caller/read_holder.h"

namespace AsyncCaller {

class DataHandler {
public:
    explicit DataHandler(std::int32_t dimension_) : dimension(dimension_) {}
    DataHandler(const DataHandler&) = delete;
    DataHandler& operator=(const DataHandler&) = delete;

    virtual ~DataHandler();
    // False once every read has been handed out and no more will come.
    virtual bool IsActive() = 0;
    // Fills `holder` with the next read of that priority; false if none is available now.
    virtual bool GetRead(int priority, ReadHolder& holder, int worker) = 0;
    virtual void PassCalledRead(ReadHolder& holder, int worker) = 0;

    std::int32_t dimension;  // 0 single reads, 1 strand pairs
};

}  // namespace AsyncCaller
