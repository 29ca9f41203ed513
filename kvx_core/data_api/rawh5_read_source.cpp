#include "data_api/rawh5_read_source.h"

#include <stdexcept>

#include "data_api/h5_wrapper.h"
#include "data_api/rawh5_legacy_read_data.h"
#include "data_api/rawh5_read_data.h"

namespace DataAPI {
namespace Rawh5 {

using H5Wrapper::H5Mode;

namespace {
const std::string kReadPrefix = "read_";
}  // namespace

ReadSource::ReadSource(const std::string& path_, H5Mode mode_, bool single_read) : mode(mode_) {
    path = path_;
    switch (mode) {
        case H5Mode::ReadOnly:
        case H5Mode::ReadWrite: {
            std::unique_ptr<H5Wrapper::H5File> opened(new H5Wrapper::H5File(path, mode));
            if (!opened->Exists("Raw")) {
                file = std::move(opened);
                multi_read = true;
                open = true;
            } else {
                legacy_read = std::make_shared<Legacy::ReadData>(std::move(opened), path);
                open = legacy_read->Mode() != H5Mode::Closed;
                if (open) read_ids.push_back(legacy_read->ReadId());
                multi_read = false;
            }
            break;
        }
        case H5Mode::CreateExclusive:
        case H5Mode::CreateTruncate:
            if (single_read) {
                // The legacy file is made, with its one read, by AddRead.
                multi_read = false;
                open = true;
            } else {
                file.reset(new H5Wrapper::H5File(path, mode));
                multi_read = true;
                mode = file->Mode();
                open = mode != H5Mode::Closed;
            }
            break;
        default:
            throw std::runtime_error("Unknown value of mode parameter for H5File constructor.");
    }
}

ReadSource::~ReadSource() { Close(); }

const std::vector<std::string>& ReadSource::GetReadIds() {
    if (open && multi_read && read_ids.empty()) {
        for (const std::string& name : file->ListGroups())
            if (name.compare(0, kReadPrefix.size(), kReadPrefix) == 0) read_ids.push_back(name.substr(kReadPrefix.size()));
    }
    return read_ids;
}

std::shared_ptr<DataAPI::ReadData> ReadSource::GetRead(const std::string& id) {
    if (!open) throw std::runtime_error("Cannot get read from closed file.");
    if (multi_read) {
        const std::string name = kReadPrefix + id;
        if (!file->Exists(name)) throw std::runtime_error("Read id '" + id + "' not found in multi-read rawh5 file.");
        H5Wrapper::H5Group* group = file->OpenGroup(name);
        if (!group) throw std::runtime_error("Could not open read group '" + name + "'.");
        auto read = std::make_shared<Rawh5::ReadData>(group, id);
        read->Load();
        return read;
    }
    if (!read_ids.empty() && read_ids.front() == id) return legacy_read;
    throw std::runtime_error("Read id '" + id + "' not found in legacy rawh5 file.");
}

std::shared_ptr<DataAPI::ReadData> ReadSource::AddRead(const std::string& id) {
    if (!open) throw std::runtime_error("Cannot add read to closed file.");
    if (multi_read) {
        const std::string name = kReadPrefix + id;
        if (file->Exists(name))
            throw std::runtime_error("Cannot create read '" + id + "'. Read id already exists in file.");
        H5Wrapper::H5Group* group = file->CreateGroup(name);
        if (!group) throw std::runtime_error("Could not create read group '" + name + "'.");
        auto read = std::make_shared<Rawh5::ReadData>(group, id);
        // An empty list is filled by listing the file later, which finds this read too.
        if (!read_ids.empty()) read_ids.push_back(id);
        return read;
    }
    if (!read_ids.empty()) throw std::runtime_error("Cannot create second read in single-read file.");
    legacy_read = std::make_shared<Legacy::ReadData>(path, mode, id);
    open = legacy_read->Mode() != H5Mode::Closed;
    if (open) {
        mode = H5Mode::ReadWrite;
        read_ids.push_back(id);
    }
    return legacy_read;
}

void ReadSource::Close() {
    legacy_read.reset();
    file.reset();
    open = false;
    mode = H5Mode::Closed;
    read_ids.clear();
}

}  // namespace Rawh5
}  // namespace DataAPI
