#pragma once
// Attribute values as read from and written to read files. Every attribute is held as a
// boost::any of one of the kinds the HDF5 layer understands (signed/unsigned char, short, int,
// long, float, double, std::string); undecodable attributes come back as warning strings, so a
// consumer that needs a number fails on its own conversion instead of the whole read failing.

#include <map>
#include <stdexcept>
#include <string>

#include <boost/any.hpp>

namespace DataAPI {

// Attribute name to value, sorted by name.
using AttributeMap = std::map<std::string, boost::any>;
// Group name ("raw_data", "channel_id", "tracking_id", ...) to the attributes of that group.
using ReadMetadata = std::map<std::string, AttributeMap>;

namespace detail {
[[noreturn]] void ThrowUnsupportedNumericType();

template <typename T, typename S>
bool tryCast(const boost::any& value, T& out) {
    if (const S* p = boost::any_cast<S>(&value)) {
        out = static_cast<T>(*p);
        return true;
    }
    return false;
}

template <typename T>
bool castNumeric(const boost::any& value, T& out) {
    return tryCast<T, signed char>(value, out) || tryCast<T, unsigned char>(value, out) ||
           tryCast<T, short>(value, out) || tryCast<T, unsigned short>(value, out) ||
           tryCast<T, int>(value, out) || tryCast<T, unsigned int>(value, out) ||
           tryCast<T, long>(value, out) || tryCast<T, unsigned long>(value, out) ||
           tryCast<T, float>(value, out) || tryCast<T, double>(value, out);
}
}  // namespace detail

// Generic conversion of a numeric attribute to T with the usual arithmetic conversion (a float
// read into an integer is truncated). Any other kind of value, strings included, throws
// "Unsupported numeric type for generic conversion.".
template <typename T>
T GenericCast(const boost::any& value) {
    T out{};
    if (!detail::castNumeric(value, out)) detail::ThrowUnsupportedNumericType();
    return out;
}

// As GenericCast, but a std::string is also accepted and parsed as a base-10 integer the way
// std::stoi does it: a text without digits throws std::invalid_argument("stoi"). Meant for
// metadata that some writers store as text, such as a channel number.
template <typename T>
T GenericCastOrParse(const boost::any& value) {
    if (const std::string* s = boost::any_cast<std::string>(&value)) return static_cast<T>(std::stoi(*s));
    return GenericCast<T>(value);
}

}  // namespace DataAPI
