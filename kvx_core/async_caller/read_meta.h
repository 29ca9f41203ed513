#pragma once

#include <cstdint>
#include <string>

namespace AsyncCaller {

// Metadata of one read as it travels with its signal through the callers and back to the output.
struct ReadMeta {
    std::string read_id;
    std::string filename;         // path of the read file
    std::string run_id;
    std::string sample_id;
    std::string start_time_text;  // wall-clock start of the read, "%FT%TZ"
    std::uint32_t channel = 0;
    std::uint32_t read_number = 0;
    std::uint64_t read_index = 0;  // drawn when the read is handed out; its key while in flight
    std::uint64_t start_time = 0;  // samples
    std::uint64_t duration = 0;    // samples
    std::uint64_t trimmed_start = 0;
    std::uint64_t trimmed_duration = 0;
    float sampling_rate = 0.0f;
    float median = 0.0f;  // of the signal in picoamperes
    float mad = 0.0f;
    std::int32_t priority = 0;
    std::int32_t config_id = 0;
    float before_mean = 0.0f;
    float after_mean = 0.0f;
    float before_spread = 0.0f;
    bool feature_found = false;

    void Reset() { *this = ReadMeta(); }
};

}  // namespace AsyncCaller
