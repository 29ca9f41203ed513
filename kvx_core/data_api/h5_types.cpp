#include "data_api/h5_types.h"

#include <cstring>
#include <vector>

#include "data_api/data_table.h"

namespace DataAPI {
namespace H5Wrapper {
namespace detail {

static_assert(sizeof(hid_t) == sizeof(std::int64_t), "object handles are kept as 64-bit integers");

hid_t ElementType(DataType type, std::uint64_t size) {
    switch (type) {
        case DataType::Int8: return H5Tcopy(H5T_NATIVE_INT8);
        case DataType::Int16: return H5Tcopy(H5T_NATIVE_INT16);
        case DataType::Int32: return H5Tcopy(H5T_NATIVE_INT32);
        case DataType::Int64: return H5Tcopy(H5T_NATIVE_INT64);
        case DataType::UInt8: return H5Tcopy(H5T_NATIVE_UINT8);
        case DataType::UInt16: return H5Tcopy(H5T_NATIVE_UINT16);
        case DataType::UInt32: return H5Tcopy(H5T_NATIVE_UINT32);
        case DataType::UInt64: return H5Tcopy(H5T_NATIVE_UINT64);
        case DataType::Float: return H5Tcopy(H5T_NATIVE_FLOAT);
        case DataType::Double: return H5Tcopy(H5T_NATIVE_DOUBLE);
        case DataType::FixedString: {
            hid_t t = H5Tcopy(H5T_FORTRAN_S1);
            if (t >= 0 && H5Tset_size(t, size) < 0) {
                H5Tclose(t);
                return -1;
            }
            return t;
        }
        default:
            return H5Tcopy(H5T_NATIVE_UINT8);
    }
}

void BuildTypeAndSpace(const DataFormat& format, hid_t& type, hid_t& space) {
    hsize_t dims[2] = {format.count, 0};
    int rank = 1;
    if (format.rows != 0 && format.cols != 0) {
        dims[0] = format.rows;
        dims[1] = format.cols;
        rank = 2;
    }
    // An empty extent can only be chunked when it may grow, so empty data sets get unlimited
    // maximum dimensions; everything else has a fixed extent.
    hsize_t max_dims[2] = {H5S_UNLIMITED, H5S_UNLIMITED};
    const bool empty = dims[0] == 0 || (rank == 2 && dims[1] == 0);

    if (format.type == DataType::String) {
        type = H5Tcreate(H5T_STRING, format.item_size);
        space = H5Screate(H5S_SCALAR);
        return;
    }
    space = H5Screate_simple(rank, dims, empty ? max_dims : nullptr);
    if (format.type == DataType::Table) {
        type = H5Tcreate(H5T_COMPOUND, format.item_size);
        if (type < 0) return;
        for (const TableField& f : format.fields) {
            hid_t ft = ElementType(f.type, f.size);
            const herr_t status = ft < 0 ? -1 : H5Tinsert(type, f.name.c_str(), f.offset, ft);
            if (ft >= 0) H5Tclose(ft);
            if (status < 0) {
                H5Tclose(type);
                type = -1;
                return;
            }
        }
        return;
    }
    type = ElementType(format.type, format.item_size);
}

namespace {

// DataType of an integer or float of the given class, size and sign; Unknown for odd sizes.
DataType numericType(H5T_class_t cls, std::size_t size, bool is_signed) {
    if (cls == H5T_FLOAT) {
        if (size == 4) return DataType::Float;
        if (size == 8) return DataType::Double;
        return DataType::Unknown;
    }
    switch (size) {
        case 1: return is_signed ? DataType::Int8 : DataType::UInt8;
        case 2: return is_signed ? DataType::Int16 : DataType::UInt16;
        case 4: return is_signed ? DataType::Int32 : DataType::UInt32;
        case 8: return is_signed ? DataType::Int64 : DataType::UInt64;
        default: return DataType::Unknown;
    }
}

// Bytes a variable-length string data set of at most one element takes, terminator included.
// H5Dvlen_get_buf_size walks the selection point by point and crashes inside the library (1.10)
// on a scalar space, which is how most writers store a single string; those are measured by
// reading the text instead.
herr_t vlenBufferSize(hid_t dataset, hid_t type, hid_t space, int rank, hsize_t& size) {
    if (rank > 0) return H5Dvlen_get_buf_size(dataset, type, space, &size);
    char* text = nullptr;
    const herr_t status = H5Dread(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, &text);
    size = text ? std::strlen(text) + 1 : 0;
    // Given back on failure too: the read may fail after the text was made.
    if (text) H5Dvlen_reclaim(type, space, H5P_DEFAULT, &text);
    return status < 0 ? -1 : 0;
}

// A format the layer cannot read keeps its type Unknown but, past the rank check, the element count
// and size the file declares, so that callers can still say what the data set holds. Only a compound
// with a member of another class is reset as a whole: its fields would describe a different record.
DataFormat formatOf(hid_t dataset, hid_t type, hid_t space) {
    DataFormat format;
    hsize_t dims[H5S_MAX_RANK] = {};
    const int rank = H5Sget_simple_extent_dims(space, dims, nullptr);
    if (rank < 0 || rank > 2) return DataFormat();

    format.count = rank == 2 ? dims[0] * dims[1] : rank == 1 ? dims[0] : 1;
    format.item_size = H5Tget_size(type);
    const H5T_class_t cls = H5Tget_class(type);

    if (cls == H5T_STRING) {
        if (H5Tis_variable_str(type) > 0) {
            hsize_t size = 0;
            if (format.count >= 2 || vlenBufferSize(dataset, type, space, rank, size) < 0) return format;
            format.type = DataType::String;
            format.item_size = size;
            format.count = 1;
        } else if (format.count == 1) {
            format.type = DataType::String;
        } else if (rank == 1) {
            format.type = DataType::FixedString;
        }
        return format;
    }
    if (cls == H5T_INTEGER || cls == H5T_FLOAT) {
        format.type = numericType(cls, format.item_size, H5Tget_sign(type) == H5T_SGN_2);
        if (format.type == DataType::Unknown) return format;
        if (rank == 2) {
            format.rows = dims[0];
            format.cols = dims[1];
        }
        return format;
    }
    if (cls == H5T_COMPOUND) {
        if (rank != 1) return format;
        format.type = DataType::Table;
        const int members = H5Tget_nmembers(type);
        std::uint64_t record_size = 0;
        for (int m = 0; m < members; ++m) {
            const H5T_class_t mcls = H5Tget_member_class(type, m);
            Handle mtype(H5Tget_member_type(type, m), H5Tclose);
            if (!mtype.valid()) return DataFormat();
            const std::size_t msize = H5Tget_size(mtype.get());
            const bool msigned = H5Tget_sign(mtype.get()) == H5T_SGN_2;
            // The library hands over a copy of the name, which is ours to free on every path.
            char* mname = H5Tget_member_name(type, m);
            if (!mname) return DataFormat();
            const std::string name(mname);
            H5free_memory(mname);

            DataType field_type;
            if (mcls == H5T_STRING)
                field_type = DataType::FixedString;
            else if (mcls == H5T_INTEGER || mcls == H5T_FLOAT)
                field_type = numericType(mcls, msize, msigned);
            else
                return DataFormat();
            // The file's member offsets are not kept: memory records follow the table layout,
            // and the library converts member by member, by name, when reading.
            LayoutField(format.fields, record_size, name, field_type, msize, false);
        }
        format.item_size = PaddedRecordSize(record_size);
        return format;
    }
    return format;
}

}  // namespace

DataFormat WorkOutFormat(hid_t dataset) {
    Handle type(H5Dget_type(dataset), H5Tclose);
    Handle space(H5Dget_space(dataset), H5Sclose);
    if (!type.valid() || !space.valid()) return DataFormat();
    return formatOf(dataset, type.get(), space.get());
}

}  // namespace detail
}  // namespace H5Wrapper
}  // namespace DataAPI
