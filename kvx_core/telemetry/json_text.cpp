#include "telemetry/json_text.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Telemetry {

namespace {

// Sits between a value and a writer and turns non-finite doubles into null; everything else goes
// through untouched. The writer alone would refuse them and leave a truncated text.
template <typename Writer>
class FiniteNumbers {
public:
    using Ch = typename Writer::Ch;

    explicit FiniteNumbers(Writer& writer_) : writer(writer_) {}

    bool Null() { return writer.Null(); }
    bool Bool(bool b) { return writer.Bool(b); }
    bool Int(int i) { return writer.Int(i); }
    bool Uint(unsigned u) { return writer.Uint(u); }
    bool Int64(std::int64_t i) { return writer.Int64(i); }
    bool Uint64(std::uint64_t u) { return writer.Uint64(u); }
    bool Double(double d) { return std::isfinite(d) ? writer.Double(d) : writer.Null(); }
    bool RawNumber(const Ch* str, rapidjson::SizeType length, bool copy) {
        return writer.RawNumber(str, length, copy);
    }
    bool String(const Ch* str, rapidjson::SizeType length, bool copy) { return writer.String(str, length, copy); }
    bool StartObject() { return writer.StartObject(); }
    bool Key(const Ch* str, rapidjson::SizeType length, bool copy) { return writer.Key(str, length, copy); }
    bool EndObject(rapidjson::SizeType count) { return writer.EndObject(count); }
    bool StartArray() { return writer.StartArray(); }
    bool EndArray(rapidjson::SizeType count) { return writer.EndArray(count); }

private:
    Writer& writer;
};

}  // namespace

double JsonFloat(float value) {
    if (!std::isfinite(value)) {
        return value;
    }
    // Seven significant digits are what a float holds; the shortest round-trip form would show the
    // rounding of float arithmetic instead (a bin start of 9 * 0.1f reads 0.90000004).
    char text[32];
    std::snprintf(text, sizeof(text), "%.7g", static_cast<double>(value));
    return std::strtod(text, nullptr);
}

std::string ToJsonText(const rapidjson::Value& value, bool pretty) {
    rapidjson::StringBuffer buffer;
    if (pretty) {
        rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
        writer.SetIndent(' ', 4);
        FiniteNumbers<decltype(writer)> handler(writer);
        value.Accept(handler);
    } else {
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        FiniteNumbers<decltype(writer)> handler(writer);
        value.Accept(handler);
    }
    return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace Telemetry
