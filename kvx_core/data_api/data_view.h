#pragma once
// The program's own description of typed memory, used to read and create HDF5 data sets without
// any HDF5 type reaching the layers above the wrapper.

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace DataAPI {

// Element kinds. The numeric values are part of the file-independent contract (tables of fields
// are validated against them), so they must not be reordered.
enum class DataType : std::int32_t {
    Int8 = 0,
    Int16 = 1,
    Int32 = 2,
    Int64 = 3,
    UInt8 = 4,
    UInt16 = 5,
    UInt32 = 6,
    UInt64 = 7,
    Float = 8,
    Double = 9,
    FixedString = 10,  // an array of fixed-width strings, or a fixed-width table field
    String = 11,       // a single scalar string
    Table = 12,        // compound records
    Unknown = 13,
};

// Bytes of one element of a numeric type; 0 for strings, tables and Unknown.
std::uint64_t NaturalSize(DataType type);
const char* DataTypeName(DataType type);

struct TableField {
    std::string name;
    DataType type = DataType::Unknown;
    std::uint64_t size = 0;    // bytes
    std::uint64_t offset = 0;  // byte offset inside the in-memory record

    bool operator==(const TableField& o) const {
        return name == o.name && type == o.type && size == o.size && offset == o.offset;
    }
    bool operator!=(const TableField& o) const { return !(*this == o); }
};

struct DataFormat {
    DataType type = DataType::Unknown;
    std::uint64_t item_size = 0;  // bytes per element; record size for Table, length for strings
    std::uint64_t count = 0;      // all elements (rows * cols for two dimensions)
    std::uint64_t rows = 0;       // 0 unless two-dimensional
    std::uint64_t cols = 0;       // 0 unless two-dimensional
    std::vector<TableField> fields;

    // Exact equality of every member, fields in order: what a read requires of its view.
    bool operator==(const DataFormat& o) const {
        return type == o.type && item_size == o.item_size && count == o.count && rows == o.rows &&
               cols == o.cols && fields == o.fields;
    }
    bool operator!=(const DataFormat& o) const { return !(*this == o); }
};

// Largest data set, in bytes of memory, that the reading helpers bring in at once. A read file
// holds nothing near this size (a raw signal of 2^29 samples is more than a day of sequencing);
// a larger extent comes from a damaged header, and allocating it would exhaust the memory of the
// whole run before the read could fail on its own.
constexpr std::uint64_t kMaxReadBytes = std::uint64_t(1) << 30;

// Throws "Data set '<name>' is too large to read: <count> elements of <item_size> bytes." when
// they would take more than kMaxReadBytes.
void CheckReadSize(const std::string& name, std::uint64_t count, std::uint64_t item_size);

// Compile-time mapping from a C++ element type to its DataType.
template <typename T>
struct DataTypeOf;
template <> struct DataTypeOf<std::int8_t> { static constexpr DataType value = DataType::Int8; };
template <> struct DataTypeOf<std::int16_t> { static constexpr DataType value = DataType::Int16; };
template <> struct DataTypeOf<std::int32_t> { static constexpr DataType value = DataType::Int32; };
template <> struct DataTypeOf<std::int64_t> { static constexpr DataType value = DataType::Int64; };
template <> struct DataTypeOf<std::uint8_t> { static constexpr DataType value = DataType::UInt8; };
template <> struct DataTypeOf<std::uint16_t> { static constexpr DataType value = DataType::UInt16; };
template <> struct DataTypeOf<std::uint32_t> { static constexpr DataType value = DataType::UInt32; };
template <> struct DataTypeOf<std::uint64_t> { static constexpr DataType value = DataType::UInt64; };
template <> struct DataTypeOf<float> { static constexpr DataType value = DataType::Float; };
template <> struct DataTypeOf<double> { static constexpr DataType value = DataType::Double; };

// A non-owning description of memory in a given format. For String views `string` points at the
// std::string that receives (or supplies) the text; `data` then points at its characters.
class DataView {
public:
    DataView() = default;
    DataView(const DataView&) = default;
    DataView& operator=(const DataView&) = default;
    virtual ~DataView() = default;

    // Clears pointers, sizes and fields; the type becomes Unknown.
    virtual void Reset();

    // A one-dimensional view of `count` numbers. Creating a data set only reads through `data`,
    // which is why the const overloads may hand out a writable pointer.
    template <typename T>
    static DataView Of(const T* values, std::uint64_t count) {
        DataView v;
        v.data = const_cast<T*>(values);
        v.format.type = DataTypeOf<T>::value;
        v.format.item_size = sizeof(T);
        v.format.count = count;
        return v;
    }
    template <typename T, typename A>
    static DataView Of(const std::vector<T, A>& values) {
        return Of(values.data(), values.size());
    }
    // A two-dimensional view of `rows` by `cols` numbers, row-major.
    template <typename T>
    static DataView Matrix(const T* values, std::uint64_t rows, std::uint64_t cols) {
        DataView v = Of(values, rows * cols);
        v.format.rows = rows;
        v.format.cols = cols;
        return v;
    }
    // A scalar string. For creation the data set holds the text and its terminator; for reading,
    // the view adapts to whatever length the data set has and assigns the text to `text`.
    static DataView OfString(std::string& text);
    static DataView OfString(const std::string& text) { return OfString(const_cast<std::string&>(text)); }
    // A one-dimensional array of fixed-width strings, `width` bytes each, packed back to back.
    static DataView OfFixedStrings(const char* packed, std::uint64_t width, std::uint64_t count);

    void* data = nullptr;
    std::string* string = nullptr;
    DataFormat format;
};

}  // namespace DataAPI
