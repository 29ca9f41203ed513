#include "data_api/h5_group.h"

#include <algorithm>
#include <stdexcept>

#include <hdf5_hl.h>

#include "data_api/compressed_data_view.h"
#include "data_api/h5_dataset.h"
#include "data_api/h5_types.h"

namespace DataAPI {
namespace H5Wrapper {

namespace {

struct ListContext {
    H5O_type_t wanted;
    std::vector<std::string>* names;
};

herr_t collectMember(hid_t group, const char* name, const H5L_info_t*, void* data) {
    auto* context = static_cast<ListContext*>(data);
    H5O_info_t info;
    // Only the object's kind: the full record would also decode the storage messages of every data
    // set listed, which costs time and, in a damaged file, exposes more of the library's decoders.
    const herr_t status = H5Oget_info_by_name2(group, name, &info, H5O_INFO_BASIC, H5P_DEFAULT);
    if (status >= 0 && info.type == context->wanted) context->names->push_back(name);
    // A link that cannot be inspected stops the walk; what was collected so far is kept.
    return status;
}

// Writes a pre-compressed view chunk by chunk straight into the file, past the filter pipeline.
void writeCompressedChunks(hid_t dataset, const CompressedDataView& view) {
    const CompressedChunks& chunks = *view.Chunks();
    const std::uint64_t item_size = view.format.item_size;
    const std::uint64_t total = view.format.count * item_size;
    const bool two_dims = view.format.rows != 0 && view.format.cols != 0;
    std::uint64_t done = 0;
    std::uint64_t pos = 0;
    for (std::size_t i = 0; done < total && i < chunks.chunk_sizes.size(); ++i) {
        const std::uint64_t element = done / item_size;
        hsize_t offset[2] = {element, 0};
        if (two_dims) offset[0] = element / view.format.cols;
        H5DOwrite_chunk(dataset, H5P_DEFAULT, 0, offset, chunks.chunk_sizes[i], chunks.data + pos);
        pos += chunks.chunk_sizes[i];
        done += std::min(chunks.chunk_bytes, total - done);
    }
}

}  // namespace

H5Group::~H5Group() { Close(); }

bool H5Group::Exists(const std::string& name) {
    std::lock_guard<std::mutex> lock(h5Mutex);
    // The existence test fails for absent names, which must not print the error stack whatever
    // handler the process has installed.
    H5E_auto2_t handler = nullptr;
    void* handler_data = nullptr;
    H5Eget_auto2(H5E_DEFAULT, &handler, &handler_data);
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    const herr_t status = H5Gget_objinfo(id, name.c_str(), 0, nullptr);
    H5Eset_auto2(H5E_DEFAULT, handler, handler_data);
    return status >= 0;
}

std::vector<std::string> H5Group::listMembers(int wanted_type, const char* closed_message) {
    if (id < 0) throw std::runtime_error(closed_message);
    std::lock_guard<std::mutex> lock(h5Mutex);
    std::vector<std::string> names;
    ListContext context{static_cast<H5O_type_t>(wanted_type), &names};
    H5Literate(id, H5_INDEX_NAME, H5_ITER_NATIVE, nullptr, collectMember, &context);
    return names;
}

std::vector<std::string> H5Group::ListGroups() {
    return listMembers(H5O_TYPE_GROUP, "Cannot list groups for invalid group or file object.");
}

std::vector<std::string> H5Group::ListDatasets() {
    return listMembers(H5O_TYPE_DATASET, "Cannot list datasets for invalid group or file object.");
}

H5Group* H5Group::OpenGroup(const std::string& name) {
    if (id < 0) throw std::runtime_error("Cannot open group for invalid group or file object.");
    std::lock_guard<std::mutex> lock(h5Mutex);
    hid_t group = H5Gopen2(id, name.c_str(), H5P_DEFAULT);
    if (group < 0) return nullptr;
    children.emplace_back(new H5Group(group, mode));
    return static_cast<H5Group*>(children.back().get());
}

H5Group* H5Group::CreateGroup(const std::string& name, const AttributeMap& attributes) {
    if (id < 0) throw std::runtime_error("Cannot create group for invalid group or file object.");
    if (mode == H5Mode::ReadOnly) throw std::runtime_error("Cannot create group in read-only mode.");
    std::lock_guard<std::mutex> lock(h5Mutex);
    hid_t group = H5Gcreate2(id, name.c_str(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    if (group < 0) return nullptr;
    children.emplace_back(new H5Group(group, mode));
    auto* child = static_cast<H5Group*>(children.back().get());
    if (!attributes.empty()) child->writeAttributesLocked(attributes);
    return child;
}

H5Dataset* H5Group::OpenDataset(const std::string& name) {
    if (id < 0) throw std::runtime_error("Cannot open dataset in invalid group or file object.");
    std::lock_guard<std::mutex> lock(h5Mutex);
    hid_t dataset = H5Dopen2(id, name.c_str(), H5P_DEFAULT);
    if (dataset < 0) return nullptr;
    auto* child = new H5Dataset(dataset, mode);
    children.emplace_back(child);
    child->format = detail::WorkOutFormat(dataset);
    return child;
}

H5Dataset* H5Group::CreateDataset(const std::string& name, const DataView& view) {
    if (id < 0) throw std::runtime_error("Cannot create dataset in invalid or closed object.");
    if (mode == H5Mode::ReadOnly) throw std::runtime_error("Cannot create dataset in read-only mode.");
    std::lock_guard<std::mutex> lock(h5Mutex);
    hid_t type = -1;
    hid_t space = -1;
    detail::BuildTypeAndSpace(view.format, type, space);
    if (type < 0 || space < 0) {
        if (type >= 0) H5Tclose(type);
        if (space >= 0) H5Sclose(space);
        return nullptr;
    }

    const auto* compressed = dynamic_cast<const CompressedDataView*>(&view);
    if (compressed && !compressed->Chunks()) compressed = nullptr;

    const DataFormat& format = view.format;
    hid_t properties = H5Pcreate(H5P_DATASET_CREATE);
    if (format.type != DataType::String) {
        // Everything but a scalar string is chunked, so that data sets written here can be
        // compressed and read in pieces. Uncompressed chunks hold 1024 elements; compressed ones
        // exactly the elements of one compressed chunk, which is what lets them be written as is.
        const std::uint64_t chunk_items =
            compressed ? (format.item_size ? compressed->Chunks()->chunk_bytes / format.item_size : 0) : 1024;
        hsize_t chunk[2] = {0, 0};
        int rank = 1;
        if (format.rows != 0 && format.cols != 0) {
            rank = 2;
            chunk[0] = std::min<std::uint64_t>(std::max<std::uint64_t>(chunk_items / format.cols, 1), format.rows);
            chunk[1] = format.cols;
        } else {
            // An empty data set still needs a chunk of one element.
            chunk[0] = std::max<std::uint64_t>(std::min(chunk_items, format.count), 1);
        }
        H5Pset_chunk(properties, rank, chunk);
        if (compressed) H5Pset_deflate(properties, static_cast<unsigned>(compressed->Chunks()->level));
    }
    hid_t dataset = H5Dcreate2(id, name.c_str(), type, space, H5P_DEFAULT, properties, H5P_DEFAULT);
    H5Pclose(properties);
    if (dataset < 0) {
        H5Tclose(type);
        H5Sclose(space);
        return nullptr;
    }

    auto* child = new H5Dataset(dataset, mode);
    children.emplace_back(child);
    child->format = detail::WorkOutFormat(dataset);
    if (compressed)
        writeCompressedChunks(dataset, *compressed);
    else
        H5Dwrite(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, view.data);
    H5Tclose(type);
    H5Sclose(space);
    return child;
}

void H5Group::closeChildren() {
    for (auto& child : children) child->Close();
    children.clear();
}

void H5Group::Close() {
    closeChildren();
    if (id >= 0) {
        std::lock_guard<std::mutex> lock(h5Mutex);
        H5Gclose(id);
        id = -1;
    }
    mode = H5Mode::Closed;
}

}  // namespace H5Wrapper
}  // namespace DataAPI
