#include "data_api/data_view.h"

#include <stdexcept>

namespace DataAPI {

void CheckReadSize(const std::string& name, std::uint64_t count, std::uint64_t item_size) {
    // Compared by division, so that a damaged extent cannot overflow the product.
    if (item_size != 0 && count > kMaxReadBytes / item_size)
        throw std::runtime_error("Data set '" + name + "' is too large to read: " + std::to_string(count) +
                                 " elements of " + std::to_string(item_size) + " bytes.");
}

std::uint64_t NaturalSize(DataType type) {
    switch (type) {
        case DataType::Int8:
        case DataType::UInt8:
            return 1;
        case DataType::Int16:
        case DataType::UInt16:
            return 2;
        case DataType::Int32:
        case DataType::UInt32:
        case DataType::Float:
            return 4;
        case DataType::Int64:
        case DataType::UInt64:
        case DataType::Double:
            return 8;
        default:
            return 0;
    }
}

const char* DataTypeName(DataType type) {
    switch (type) {
        case DataType::Int8: return "Int8";
        case DataType::Int16: return "Int16";
        case DataType::Int32: return "Int32";
        case DataType::Int64: return "Int64";
        case DataType::UInt8: return "UInt8";
        case DataType::UInt16: return "UInt16";
        case DataType::UInt32: return "UInt32";
        case DataType::UInt64: return "UInt64";
        case DataType::Float: return "Float";
        case DataType::Double: return "Double";
        case DataType::FixedString: return "FixedString";
        case DataType::String: return "String";
        case DataType::Table: return "Table";
        default: return "Unknown";
    }
}

void DataView::Reset() {
    data = nullptr;
    string = nullptr;
    format = DataFormat();
}

DataView DataView::OfString(std::string& text) {
    DataView v;
    v.string = &text;
    // data() is terminated, so the terminator is written with the text.
    v.data = &text[0];
    v.format.type = DataType::String;
    v.format.item_size = text.size() + 1;
    v.format.count = 1;
    return v;
}

DataView DataView::OfFixedStrings(const char* packed, std::uint64_t width, std::uint64_t count) {
    DataView v;
    v.data = const_cast<char*>(packed);
    v.format.type = DataType::FixedString;
    v.format.item_size = width;
    v.format.count = count;
    return v;
}

}  // namespace DataAPI
