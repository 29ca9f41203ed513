#include "async_caller/basecall_params.h"

#include "common/logger.h"

namespace AsyncCaller {

BasecallParams::BasecallParams() : Common::Parameters("Command line parameters", "Configuration file parameters.") {
    flags = NotParsed;
}

void BasecallParams::InitOptions() {
    AddOption("print_workflows", "Output available workflows.", print_workflows, Flag);
    AddOption("compatible_flowcells", "Compatible flowcell list", compatible_flowcells, Config);
    AddOption("compatible_kits", "Compatible kit list", compatible_kits, Config);
    AddOption("compatible_kits_with_barcoding", "Compatible barcoding kit list", compatible_kits_with_barcoding,
              Config);
    AddOption("flowcell", "Flowcell to find a configuration for", flowcell, CmdLine);
    AddOption("kit", "Kit to find a configuration for", kit, CmdLine);
    AddOption("model_file,m", "Path to JSON model file.", model_file);
    AddOption("chunk_size", "Stride intervals per chunk.", chunk_size);
    AddOption("chunks_per_runner", "Maximum chunks per runner.", chunks_per_runner);
    AddOption("chunks_per_caller",
              "Soft limit on number of chunks in each caller's queue. New reads will not be queued while this "
              "is exceeded.",
              chunks_per_caller);
    AddOption("overlap", "Overlap between chunks (in stride intervals).", overlap);
    AddOption("gpu_runners_per_device", "Number of runners per GPU device.", gpu_runners_per_device);
    AddOption("cpu_threads_per_caller", "Number of CPU worker threads per basecaller.", cpu_threads_per_caller);
    AddOption("num_callers", "Number of parallel basecallers to create.", num_callers);
    AddOption("stay_penalty",
              "Scaling factor to apply to stay probability calculation during transducer decode.", stay_penalty);
    AddOption("qscore_offset", "Qscore calibration offset.", qscore_offset);
    AddOption("qscore_scale", "Qscore calibration scale factor.", qscore_scale);
    AddOption("temp_weight", "Temperature adjustment for weight matrix in softmax layer of RNN.", temp_weight);
    AddOption("temp_bias", "Temperature adjustment for bias vector in softmax layer of RNN.", temp_bias);
    AddOption("hp_correct", "Whether to use homopolymer correction during decoding.", hp_correct);
    AddOption("builtin_scripts", "Whether to use GPU kernels that were included at compile-time.",
              builtin_scripts);
    AddOption("device,x", "Specify basecalling device: 'auto', or 'cuda:<device_id>'.", device, CmdLine);
    AddOption("kernel_path,k", "Path to GPU kernel files location (only needed if builtin_scripts is false).",
              kernel_path, CmdLine);
    AddOption("quiet,z", "Quiet mode. Nothing will be output to STDOUT if this option is set.", quiet, Flag);
    AddOption("trace_categories_logs", "Enable trace logs - list of strings with the desired names.",
              trace_categories_logs);
    AddOption("verbose_logs", "Enable verbose logs.", verbose_logs, Flag);
    AddOption("qscore_filtering", "Enable filtering of reads into PASS/FAIL folders based on min qscore.",
              qscore_filtering, Flag);
    AddOption("min_qscore", "Minimum acceptable qscore for a read to be filtered into the PASS folder",
              min_qscore);
    AddOption("disable_pings", "Disable the transmission of telemetry pings.", disable_pings, Flag);
    AddOption("ping_url", "URL to send pings to", ping_url);
    AddOption("ping_segment_duration", "Duration in minutes of each ping segment.", ping_segment_duration);
    AddOption("calib_detect", "Enable calibration strand detection and filtering.", calib_detect, Flag);
    AddOption("calib_reference", "Reference FASTA file containing calibration strand.", calib_reference);
    AddOption("calib_min_sequence_length",
              "Minimum sequence length for reads to be considered candidate calibration strands.",
              calib_min_sequence_length);
    AddOption("calib_max_sequence_length",
              "Maximum sequence length for reads to be considered candidate calibration strands.",
              calib_max_sequence_length);
    AddOption("calib_min_coverage", "Minimum reference coverage to pass calibration strand detection.",
              calib_min_coverage);
}

bool BasecallParams::ValidateParams() {
    if (num_callers != 0 && cpu_threads_per_caller != 0 && gpu_runners_per_device != 0) {
        return true;
    }
    KVX_LOG(error) << " Invalid number of basecallers/CPU threads/GPU runners: number of basecallers: "
                   << num_callers << ", number of CPU threads: " << cpu_threads_per_caller
                   << ", number of GPU runners: " << gpu_runners_per_device;
    return false;
}

}  // namespace AsyncCaller
