// A configuration file, through the program's own parameter set, the way main reads one: as the
// run's configuration, then as a workflow file of the data folder (catalogue, selection by flow cell
// and kit, the second read with the command line on top), then the logging options it names.

#include <filesystem>
#include <sstream>
#include <string>

#include "async_caller/workflow_catalogue.h"
#include "basecall_1d2_params.h"
#include "common/logger_group.h"
#include "fuzz_support.h"

namespace {

// Every option printed, as the run header and SaveConfig print them.
std::size_t printAll(const Common::Parameters& params) {
    std::size_t total = 0;
    for (const auto& name : params.OptionNames()) {
        total += params.PrintOption(name).size();
    }
    return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string workflows = fuzz::ScratchDir() + "/workflows";
    std::filesystem::create_directories(workflows);
    fuzz::WriteScratchFile("workflows/fuzz.cfg", data, size);

    // The run's own configuration, with the command line main would see for a pair run.
    fuzz::Try([&] {
        Marlo::Basecall1D2Params params;
        std::istringstream stream(text);
        const char* argv[] = {"basecaller_1d2", "--data_path", workflows.c_str(), "--index_file", "index.tsv",
                              "--save_path", "out"};
        params.ParseArguments(&stream, "", 7, argv, "");
        printAll(params);
        Common::logging::LoggerOptionsUtils::GetDefaultMarloLogOptions(params.quiet, params.verbose_logs,
                                                                       params.trace_categories_logs);
    });

    // The same text as the one workflow file of the data folder.
    fuzz::Try([&] {
        const AsyncCaller::WorkflowCatalogue catalogue = AsyncCaller::ScanWorkflows(workflows);
        std::ostringstream listing;
        AsyncCaller::PrintWorkflows(catalogue, listing);
        if (catalogue.empty()) {
            return;
        }
        const AsyncCaller::WorkflowEntry& entry = catalogue.front();
        const char* argv[] = {"basecaller_1d2", "--data_path", workflows.c_str(), "--flowcell", entry.flowcell.c_str(),
                              "--kit", entry.kit.c_str(), "--index_file", "index.tsv", "--save_path", "out"};
        Marlo::Basecall1D2Params params;
        params.ParseArguments(nullptr, "", 11, argv, "");
        const std::string flowcell = params.flowcell, kit = params.kit;
        AsyncCaller::SelectWorkflow(catalogue, params, 11, argv);
        fuzz::Check(params.flowcell == flowcell && params.kit == kit,
                    "the command line keeps priority over the workflow file");
        printAll(params);
    });
    return 0;
}
