#include "data_api/h5_dataset.h"

#include <stdexcept>
#include <vector>

#include "data_api/h5_types.h"

namespace DataAPI {
namespace H5Wrapper {

H5Dataset::~H5Dataset() { Close(); }

void H5Dataset::Close() {
    if (id >= 0) {
        std::lock_guard<std::mutex> lock(h5Mutex);
        H5Dclose(id);
        id = -1;
    }
    mode = H5Mode::Closed;
}

namespace {

// Reads a string data set (variable or fixed length) into the view's string, cut at its first
// zero byte, and points the view at the result.
herr_t readString(hid_t dataset, DataView& view) {
    if (view.format.type != DataType::String || view.string == nullptr)
        throw std::runtime_error("Data does not view string data.");
    detail::Handle type(H5Dget_type(dataset), H5Tclose);
    if (!type.valid()) return -1;
    herr_t status;
    std::string text;
    if (H5Tis_variable_str(type.get()) > 0) {
        char* pointer = nullptr;
        status = H5Dread(dataset, type.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, &pointer);
        if (status >= 0 && pointer) text = pointer;
        // The text is ours to give back, also when the read failed after making it.
        if (pointer) {
            detail::Handle space(H5Dget_space(dataset), H5Sclose);
            H5Dvlen_reclaim(type.get(), space.get(), H5P_DEFAULT, &pointer);
        }
    } else {
        std::vector<char> buffer(H5Tget_size(type.get()) + 1, '\0');
        status = H5Dread(dataset, type.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, buffer.data());
        if (status >= 0) text.assign(buffer.data(), buffer.size() - 1);
    }
    const std::size_t zero = text.find('\0');
    if (zero != std::string::npos) text.resize(zero);
    *view.string = text;
    view.data = &(*view.string)[0];
    view.format.item_size = view.string->size();
    return status;
}

}  // namespace

bool H5Dataset::Read(DataView& view) {
    if (id < 0) throw std::runtime_error("Cannot read data from an invalid or closed object.");
    if (view.format != format && !(view.format.type == DataType::String && format.type == DataType::String))
        throw std::runtime_error("Data to be read does not match format of dataset.");
    std::lock_guard<std::mutex> lock(h5Mutex);
    if (format.type == DataType::String) return readString(id, view) >= 0;

    hid_t type_id = -1;
    hid_t space_id = -1;
    detail::BuildTypeAndSpace(view.format, type_id, space_id);
    detail::Handle type(type_id, H5Tclose);
    detail::Handle space(space_id, H5Sclose);
    return type.valid() && H5Dread(id, type.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, view.data) >= 0;
}

}  // namespace H5Wrapper
}  // namespace DataAPI
