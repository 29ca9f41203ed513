#pragma once
// Options of the pair basecaller on top of the family's: the index of the 1D run, event detection,
// band sizes and penalties of the two alignments, and the input and output paths.

#include <cstdint>
#include <string>

#include "async_caller/basecall_params.h"

namespace Marlo {

class Basecall1D2Params : public AsyncCaller::BasecallParams {
public:
    Basecall1D2Params() = default;

    void InitOptions() override;

    std::string score_matrix;
    std::uint64_t records_per_fastq = 4000;
    std::uint64_t winsize1 = 0;
    std::uint64_t winsize2 = 0;
    float threshold1 = 0.0f;
    float threshold2 = 0.0f;
    std::uint64_t band_size = 5;
    std::uint64_t pa_band_size = 1000;
    int gap_penalty = 500;
    int start_end_penalty = 300;
    bool reverse_sequence = false;
    bool u_substitution = false;
    std::string input_path;
    std::string index_file;
    std::string save_path;
    std::string port;
    bool recursive = false;
    bool override_scaling = false;
    float scaling_med = 0.0f;
    float scaling_mad = 0.0f;
    bool resume = false;
    bool compress_fastq = false;

    // Set by main when --port selects the basecall service; no option.
    bool use_service = false;
};

}  // namespace Marlo
