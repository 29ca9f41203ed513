#pragma once
// Writing the telemetry documents as text. JSON has no literal for not-a-number or the infinities,
// and a statistic such as the mean of no values, or a sum that took in a NaN qscore, can be one of
// them: those numbers are written as null so that the file and the pings stay valid JSON.

#include <string>

#include <rapidjson/document.h>

namespace Telemetry {

// The float rounded to the seven significant digits it holds, as a double, so that 0.1f is written
// as 0.1 and not as 0.10000000149011612. Non-finite values pass through unchanged.
double JsonFloat(float value);

// Serialises a value, indented by four spaces per level when pretty, on one line otherwise.
std::string ToJsonText(const rapidjson::Value& value, bool pretty);

}  // namespace Telemetry
