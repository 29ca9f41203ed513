#include "run_header.h"

#include <sstream>

#include "version.h"

namespace Marlo {

std::string Banner() { return std::string(": ") + kProductTitle + " Version " + kVersion; }

std::string ServiceAddress(const std::string& port) {
    if (port.find(':') == std::string::npos) {
        return "tcp://localhost:" + port;
    }
    return "tcp://" + port;
}

std::string ModeText(const Basecall1D2Params& params) {
    std::ostringstream text;
    if (params.cpu_mode) {
        text << "cpu mode:           ON\nthreads per caller: " << params.cpu_threads_per_caller;
    } else if (params.gpu_mode) {
        text << "gpu device:         " << params.device << '\n'
             << "kernel path:        " << params.kernel_path << '\n'
             << "runners per device: " << params.gpu_runners_per_device;
    } else if (params.use_service) {
        text << "service address:    " << ServiceAddress(params.port);
    }
    return text.str();
}

std::string RunHeader(const Basecall1D2Params& params) {
    std::ostringstream header;
    header << "KVX Marlo 1d-squared basecalling software version " << kVersion << '\n';
    header << "config file:        " << params.config_file << '\n';
    if (!params.use_service) {
        header << "model file:         " << params.model_file << '\n';
    }
    header << "input path:         " << params.input_path << '\n';
    header << "save path:          " << params.save_path << '\n';
    header << "chunk size:         " << params.chunk_size << '\n';
    if (!params.use_service) {
        header << "chunks per runner:  " << params.chunks_per_runner << '\n';
    }
    if (params.qscore_filtering) {
        header << "minimum qscore:     " << params.min_qscore << '\n';
    }
    header << "records per file:   " << params.records_per_fastq << '\n';
    if (params.compress_fastq) {
        header << "compressed fastq:   ON\n";
    }
    header << "num basecallers:    " << params.num_callers << '\n';
    header << ModeText(params) << '\n';
    return header.str();
}

}  // namespace Marlo
