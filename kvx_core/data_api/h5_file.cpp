#include "data_api/h5_file.h"

#include <stdexcept>

#include <hdf5.h>

namespace DataAPI {
namespace H5Wrapper {

H5File::H5File(const std::string& path, H5Mode requested) {
    std::lock_guard<std::mutex> lock(h5Mutex);
    // Failures are reported through return values; the library's own printing of its error stack
    // would only clutter standard error. Switched off for the whole process from here on.
    H5open();
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    // Aborts on a header/library mismatch instead of failing later in obscure ways.
    H5check_version(H5_VERS_MAJOR, H5_VERS_MINOR, H5_VERS_RELEASE);

    switch (requested) {
        case H5Mode::CreateExclusive:
        case H5Mode::CreateTruncate: {
            const unsigned flags = requested == H5Mode::CreateExclusive ? H5F_ACC_EXCL : H5F_ACC_TRUNC;
            id = H5Fcreate(path.c_str(), flags, H5P_DEFAULT, H5P_DEFAULT);
            if (id < 0) throw std::runtime_error("Could not create file \"" + path + "\".");
            mode = H5Mode::ReadWrite;
            break;
        }
        case H5Mode::ReadOnly:
        case H5Mode::ReadWrite:
            id = H5Fopen(path.c_str(), requested == H5Mode::ReadOnly ? H5F_ACC_RDONLY : H5F_ACC_RDWR, H5P_DEFAULT);
            if (id < 0) throw std::runtime_error("Could not open file \"" + path + "\".");
            mode = requested;
            break;
        default:
            throw std::runtime_error("Unknown value of mode parameter for H5File constructor.");
    }
}

H5File::~H5File() { Close(); }

void H5File::Close() {
    closeChildren();
    if (id >= 0) {
        std::lock_guard<std::mutex> lock(h5Mutex);
        H5Fclose(id);
        id = -1;
    }
    mode = H5Mode::Closed;
}

}  // namespace H5Wrapper
}  // namespace DataAPI
