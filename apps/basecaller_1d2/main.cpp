// Entry point of the pair basecaller. The order of the steps matters: the data path is checked before
// anything else is answered, workflows are scanned even for --help (a broken .cfg stops every start),
// and logging exists only once the save path does, so every failure before that goes to stderr.

#include <cstdint>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "async_caller/workflow_catalogue.h"
#include "basecall_1d2_params.h"
#include "basecaller_1d2.h"
#include "common/logger.h"
#include "common/logger_group.h"
#include "run_header.h"
#include "common/stop_signals.h"

namespace fs = boost::filesystem;
using Common::Parameters;

namespace {

// A name with no folder of its own, the empty one included, is taken from the data path: an empty
// option then names the data path itself, which the run header shows and loading refuses clearly.
std::string prefixIfBare(const std::string& name, const std::string& directory) {
    if (fs::path(name).has_parent_path()) {
        return name;
    }
    return (fs::path(directory) / name).string();
}

int runMain(int argc, char** argv) {
    Marlo::Basecall1D2Params params;
    const std::uint32_t flags = params.ParseArguments(nullptr, "", argc, argv, "");

    if (!fs::exists(params.data_path)) {
        // A path streams quoted, with '&' as its escape character.
        std::cerr << "Selected data path " << fs::path(params.data_path) << " does not exist!  Exiting."
                  << std::endl;
        return -1;
    }

    const AsyncCaller::WorkflowCatalogue workflows = AsyncCaller::ScanWorkflows(params.data_path);

    const bool help = (flags & Parameters::HelpRequested) != 0;
    const bool version = (flags & Parameters::VersionRequested) != 0;
    const bool failed = (flags & Parameters::ParseFailed) != 0;
    bool answered = help;
    if (help) {
        std::cout << Marlo::Banner() << std::endl;
        std::cout << params.MessageText() << std::endl;
    }
    if (version) {
        std::cout << Marlo::Banner() << std::endl;
        if (failed) {
            answered = true;
        }
    }
    if (params.print_workflows) {
        AsyncCaller::PrintWorkflows(workflows);
        if (failed) {
            return 0;
        }
    }
    if (answered) {
        return 0;
    }
    // Notices (unexpected options, a failed ValidateParams) never stop a run; only errors do.
    if (flags != 0 && flags != Parameters::VersionRequested) {
        std::cout << params.MessageText() << std::endl;
        std::cerr << params.ErrorText() << std::endl;
        if (!params.ErrorText().empty()) {
            return -1;
        }
    }

    params.cpu_mode = true;
    params.gpu_mode = false;
    params.use_service = false;
    if (!params.port.empty()) {
        params.cpu_mode = false;
        params.use_service = true;
    }
    if (!params.device.empty()) {
        throw std::runtime_error("This build does not support GPU basecalling mode.");
    }
    if (params.gpu_mode && params.use_service) {
        throw std::runtime_error(
            "User specified both GPU mode and basecalling service hostname. Must specify at most one of those "
            "options.");
    }

    AsyncCaller::SelectWorkflow(workflows, params, argc, argv);

    if (!params.save_path.empty() && !fs::exists(params.save_path)) {
        fs::create_directories(params.save_path);
    }

    params.model_file = prefixIfBare(params.model_file, params.data_path);
    params.score_matrix = prefixIfBare(params.score_matrix, params.data_path);

    Common::logging::LoggerOptions log_options = Common::logging::LoggerOptionsUtils::GetDefaultMarloLogOptions(
        params.quiet, params.verbose_logs, params.trace_categories_logs);
    log_options.log_path = params.save_path;
    log_options.core_file_name = "marlo_basecaller_1d2";
    log_options.verbose_file_name = "marlo_basecaller__1d2_verbose";
    const Common::logging::LoggerGroup logger_group(log_options);

    KVX_LOG(message) << Marlo::RunHeader(params);

    // The inner guard: a failure of the run is logged, now that logging exists. The driver is gone
    // (unwound) before anything is logged about it.
    try {
        int stopped_by = 0;
        {
            Common::StopSignals::Install();
            Marlo::Basecaller1D2 caller(params);
            caller.Setup();
            caller.Run();
            stopped_by = caller.StoppedBy();
        }
        if (stopped_by != 0) {
            // Neither 0 nor -1: a scheduler or script must tell a stopped run (to be resumed) from a
            // finished and from a failed one. 128 + the signal is what a shell reports for it.
            KVX_LOG(message) << "Basecalling stopped before the end.";
            return 128 + stopped_by;
        }
        KVX_LOG(message) << "Basecalling completed successfully.";
        return 0;
    } catch (const std::exception& e) {
        KVX_LOG(error) << e.what();
        KVX_LOG(error) << "An error occurred in the basecaller. Aborting.";
        return -1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return runMain(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        return -1;
    }
}
