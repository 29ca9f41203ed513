#include "data_api/h5_object.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "data_api/h5_types.h"

namespace DataAPI {
namespace H5Wrapper {

std::mutex h5Mutex;

namespace {

using detail::Handle;

// Number of elements of an attribute's space, at least one. Attributes are treated as scalars,
// but one stored as an array must not make the read overrun its buffer.
std::size_t elementCount(hid_t attr) {
    Handle space(H5Aget_space(attr), H5Sclose);
    if (!space.valid()) return 1;
    const hssize_t n = H5Sget_simple_extent_npoints(space.get());
    return n > 1 ? static_cast<std::size_t>(n) : 1;
}

// The strings a variable-length read hands over are the caller's to free, whether the read
// succeeded or stopped part of the way.
struct VariableTexts {
    explicit VariableTexts(std::size_t n) : texts(n, nullptr) {}
    ~VariableTexts() {
        for (char* p : texts)
            if (p) H5free_memory(p);
    }
    std::vector<char*> texts;
};

// Whether n elements of `size` bytes fit the reading limit; a damaged space can claim any count.
bool fits(std::size_t n, std::size_t size) { return size == 0 || n <= kMaxReadBytes / size; }

boost::any readStringAttribute(hid_t attr, hid_t type) {
    const std::size_t n = elementCount(attr);
    if (H5Tis_variable_str(type) > 0) {
        if (!fits(n, sizeof(char*))) return std::string("Warning, could not read variable-length string attribute.");
        VariableTexts read(n);
        if (H5Aread(attr, type, read.texts.data()) < 0)
            return std::string("Warning, could not read variable-length string attribute.");
        return read.texts[0] ? std::string(read.texts[0]) : std::string();
    }
    const std::size_t size = H5Tget_size(type);
    if (!fits(n, size)) return std::string("Warning, could not read fixed-length string attribute.");
    std::vector<char> buffer(std::max<std::size_t>(size * n, 1), '\0');
    if (H5Aread(attr, type, buffer.data()) < 0)
        return std::string("Warning, could not read fixed-length string attribute.");
    std::string value(buffer.data(), size);
    const std::size_t zero = value.find('\0');
    if (zero != std::string::npos) value.resize(zero);
    return value;
}

// Reads an integer or float attribute through its native type. The value's kind follows the
// size stored in the file; sizes without a C++ kind become warning strings.
boost::any readNumericAttribute(hid_t attr, hid_t type, H5T_class_t cls) {
    const bool is_float = cls == H5T_FLOAT;
    try {
        const std::size_t size = H5Tget_size(type);
        const bool is_signed = !is_float && H5Tget_sign(type) == H5T_SGN_2;
        Handle native(H5Tget_native_type(type, H5T_DIR_ASCEND), H5Tclose);
        if (!native.valid()) return boost::any();
        // The native type may be wider than the stored one (a 3-byte integer reads as 4 bytes).
        const std::size_t width = std::max<std::size_t>({size, H5Tget_size(native.get()), 8});
        const std::size_t n = elementCount(attr);
        if (!fits(n, width)) throw std::runtime_error("attribute too large");  // becomes the warning below
        std::vector<unsigned char> buffer(width * n, 0);
        H5Aread(attr, native.get(), buffer.data());
        auto take = [&](auto sample) {
            std::memcpy(&sample, buffer.data(), sizeof(sample));
            return boost::any(sample);
        };
        if (is_float) {
            if (size == 4) return take(float());
            if (size == 8) return take(double());
            return std::string("Warning, floating-point size of ") + std::to_string(size) + " not supported.";
        }
        switch (size) {
            case 1: return is_signed ? take((signed char)0) : take((unsigned char)0);
            case 2: return is_signed ? take((short)0) : take((unsigned short)0);
            case 4: return is_signed ? take(int()) : take((unsigned int)0);
            case 8: return is_signed ? take(long()) : take((unsigned long)0);
            default:
                return std::string("Warning, integer size of ") + std::to_string(size) + " not supported.";
        }
    } catch (...) {
        return std::string(is_float ? "Warning, floating-point attribute could not be decoded."
                                    : "Warning, integer attribute could not be decoded.");
    }
}

// Placeholder written for values of a kind the layer cannot store. Only its first character
// reaches the file, because the string size is applied to real strings only.
const char kUnsupportedAttribute[] = "Warning. Attribute type not supported.";

template <typename T>
bool mapValue(const boost::any& value, hid_t native, hid_t& type, const void*& pointer) {
    if (const T* p = boost::any_cast<T>(&value)) {
        type = native;
        pointer = p;
        return true;
    }
    return false;
}

}  // namespace

AttributeMap H5Object::GetAttributes() {
    if (id < 0) throw std::runtime_error("Cannot get attributes for invalid or closed object.");
    std::lock_guard<std::mutex> lock(h5Mutex);
    AttributeMap attributes;
    H5O_info_t info;
    if (H5Oget_info2(id, &info, H5O_INFO_NUM_ATTRS) < 0) return attributes;

    for (hsize_t index = 0; index < info.num_attrs; ++index) {
        Handle attr(H5Aopen_by_idx(id, ".", H5_INDEX_CRT_ORDER, H5_ITER_INC, index, H5P_DEFAULT, H5P_DEFAULT),
                    H5Aclose);
        if (!attr.valid()) break;
        Handle type(H5Aget_type(attr.get()), H5Tclose);
        if (!type.valid()) break;
        const ssize_t length = H5Aget_name(attr.get(), 0, nullptr);
        std::vector<char> name_buffer(length > 0 ? length + 1 : 1, '\0');
        if (length > 0) H5Aget_name(attr.get(), name_buffer.size(), name_buffer.data());
        const std::string name(name_buffer.data());

        const H5T_class_t cls = H5Tget_class(type.get());
        if (cls == H5T_STRING) {
            attributes[name] = readStringAttribute(attr.get(), type.get());
        } else if (cls == H5T_INTEGER || cls == H5T_FLOAT) {
            // A type without a native counterpart leaves the entry empty.
            attributes[name] = readNumericAttribute(attr.get(), type.get(), cls);
        } else {
            attributes[name] = std::string("Warning, attribute is of unsupported type.");
        }
    }
    return attributes;
}

bool H5Object::Location(std::uint64_t& file, std::uint64_t& address) {
    if (id < 0) return false;
    std::lock_guard<std::mutex> lock(h5Mutex);
    H5O_info_t info;
    if (H5Oget_info2(id, &info, H5O_INFO_BASIC) < 0) return false;
    file = info.fileno;
    address = info.addr;
    return true;
}

void H5Object::SetAttributes(const AttributeMap& attributes) {
    if (id < 0) throw std::runtime_error("Cannot set attributes for invalid or closed object.");
    if (mode == H5Mode::ReadOnly) throw std::runtime_error("Cannot set attributes in read-only mode.");
    std::lock_guard<std::mutex> lock(h5Mutex);
    writeAttributesLocked(attributes);
}

void H5Object::AddAttribute(const std::string& name, const boost::any& value) {
    if (id < 0) throw std::runtime_error("Cannot add attribute to invalid or closed object.");
    if (mode == H5Mode::ReadOnly) throw std::runtime_error("Cannot add attribute in read-only mode.");
    std::lock_guard<std::mutex> lock(h5Mutex);
    writeAttributeLocked(name, value);
}

void H5Object::writeAttributesLocked(const AttributeMap& attributes) {
    for (const auto& entry : attributes) writeAttributeLocked(entry.first, entry.second);
}

void H5Object::writeAttributeLocked(const std::string& name, const boost::any& value) {
    hid_t type = -1;
    const void* pointer = nullptr;
    bool is_string = false;
    std::size_t string_size = 0;
    if (value.empty()) {
        // No type, no data: reported below.
    } else if (mapValue<signed char>(value, H5T_NATIVE_INT8, type, pointer) ||
               mapValue<unsigned char>(value, H5T_NATIVE_UINT8, type, pointer) ||
               mapValue<short>(value, H5T_NATIVE_INT16, type, pointer) ||
               mapValue<unsigned short>(value, H5T_NATIVE_UINT16, type, pointer) ||
               mapValue<int>(value, H5T_NATIVE_INT32, type, pointer) ||
               mapValue<unsigned int>(value, H5T_NATIVE_UINT32, type, pointer) ||
               mapValue<long>(value, H5T_NATIVE_INT64, type, pointer) ||
               mapValue<unsigned long>(value, H5T_NATIVE_UINT64, type, pointer) ||
               mapValue<float>(value, H5T_NATIVE_FLOAT, type, pointer) ||
               mapValue<double>(value, H5T_NATIVE_DOUBLE, type, pointer)) {
    } else if (const std::string* text = boost::any_cast<std::string>(&value)) {
        type = H5T_C_S1;
        pointer = text->c_str();
        is_string = true;
        string_size = text->size() + 1;
    } else {
        type = H5T_C_S1;
        pointer = kUnsupportedAttribute;
    }
    if (pointer == nullptr) throw std::runtime_error("Something went wrong parsing attribute " + name);

    hid_t file_type = H5Tcopy(type);
    if (is_string) H5Tset_size(file_type, string_size);
    hid_t space = H5Screate(H5S_SCALAR);
    hid_t attr = H5Acreate2(id, name.c_str(), file_type, space, H5P_DEFAULT, H5P_DEFAULT);
    if (attr < 0) {
        // Most often the attribute exists already; it is kept as it is, without a report.
        H5Sclose(space);
        H5Tclose(file_type);
        return;
    }
    H5Awrite(attr, file_type, pointer);
    H5Sclose(space);
    H5Tclose(file_type);
    H5Aclose(attr);
}

}  // namespace H5Wrapper
}  // namespace DataAPI
