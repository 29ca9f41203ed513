#pragma once
// One read file and the reads it holds.

#include <memory>
#include <string>
#include <vector>

#include "data_api/read_data.h"

namespace DataAPI {

class ReadSource {
public:
    virtual ~ReadSource() = default;

    virtual const std::vector<std::string>& GetReadIds() = 0;
    virtual std::shared_ptr<ReadData> GetRead(const std::string& id) = 0;
    virtual std::shared_ptr<ReadData> AddRead(const std::string& id) = 0;
    virtual void Close() = 0;

    const std::string& Path() const { return path; }

protected:
    std::string path;
    std::vector<std::string> read_ids;
};

}  // namespace DataAPI
