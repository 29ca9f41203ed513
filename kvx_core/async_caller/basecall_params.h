#pragma once
// Options shared by every basecalling program of this family: model, chunking, callers, qscore,
// logging, pings and calibration. Options that this program reads but does not act on stay declared
// so that a configuration file written for the family loads without complaint.

#include <cstdint>
#include <string>

#include "common/parameters.h"

namespace AsyncCaller {

class BasecallParams : public Common::Parameters {
public:
    BasecallParams();

    void InitOptions() override;
    // All of num_callers, cpu_threads_per_caller and gpu_runners_per_device must be non-zero, in
    // every mode; a failure is logged at severity error.
    bool ValidateParams() override;

    bool print_workflows = false;
    std::string compatible_flowcells;
    std::string compatible_kits;
    std::string compatible_kits_with_barcoding;
    std::string flowcell;
    std::string kit;
    std::string model_file;
    std::uint64_t chunk_size = 1000;
    std::uint64_t chunks_per_runner = 20;
    std::uint64_t chunks_per_caller = 10000;
    std::uint64_t overlap = 50;
    std::uint64_t gpu_runners_per_device = 20;
    std::uint64_t cpu_threads_per_caller = 1;
    std::uint64_t num_callers = 4;
    float stay_penalty = 1.0f;
    float qscore_offset = 0.0f;
    float qscore_scale = 1.0f;
    float temp_weight = 1.0f;
    float temp_bias = 1.0f;
    bool hp_correct = true;
    bool builtin_scripts = true;
    std::string device;
    std::string kernel_path;
    bool quiet = false;
    std::string trace_categories_logs;
    bool verbose_logs = false;
    bool qscore_filtering = false;
    float min_qscore = 7.0f;
    bool disable_pings = false;
    // The telemetry endpoint is supplied by the deployment, through a config file or the command line.
    std::string ping_url;
    std::uint64_t ping_segment_duration = 60;
    bool calib_detect = false;
    std::string calib_reference;
    std::uint64_t calib_min_sequence_length = 0;
    std::uint64_t calib_max_sequence_length = 0;
    float calib_min_coverage = 0.6f;

    // Set by main from the mode choice; no option.
    bool cpu_mode = true;
    bool gpu_mode = false;
};

}  // namespace AsyncCaller
