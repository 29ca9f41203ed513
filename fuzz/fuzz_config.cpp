// A configuration file, through the program's own parameter set, the way main reads one: as the
// run's configuration, then as a workflow file of the data folder (catalogue, selection by flow cell
// and kit, the second read with the command line on top), then the logging options it names.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

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
    fuzz::WriteScratchFile("workflows/fuzz.cfg", text);

    // The run's own configuration, with the command line main would see for a pair run.
    try {
        Marlo::Basecall1D2Params params;
        std::istringstream stream(text);
        const char* argv[] = {"basecaller_1d2", "--data_path", workflows.c_str(), "--index_file", "index.tsv",
                              "--save_path", "out"};
        params.ParseArguments(&stream, "", 7, argv, "");
        printAll(params);
        Common::logging::LoggerOptionsUtils::GetDefaultMarloLogOptions(params.quiet, params.verbose_logs,
                                                                       params.trace_categories_logs);
    } catch (const std::exception& e) {
        fuzz::Refused(e);
    }

    // The same text as the one workflow file of the data folder.
    try {
        const AsyncCaller::WorkflowCatalogue catalogue = AsyncCaller::ScanWorkflows(workflows);
        std::ostringstream listing;
        AsyncCaller::PrintWorkflows(catalogue, listing);
        if (!catalogue.empty()) {
            const AsyncCaller::WorkflowEntry& entry = catalogue.front();
            const std::vector<std::string> args = {"basecaller_1d2", "--data_path", workflows, "--flowcell",
                                                   entry.flowcell, "--kit", entry.kit, "--index_file", "index.tsv",
                                                   "--save_path", "out"};
            std::vector<const char*> argv;
            for (const auto& arg : args) {
                argv.push_back(arg.c_str());
            }
            Marlo::Basecall1D2Params params;
            const int argc = static_cast<int>(argv.size());
            params.ParseArguments(nullptr, "", argc, argv.data(), "");
            const std::string flowcell = params.flowcell, kit = params.kit;
            AsyncCaller::SelectWorkflow(catalogue, params, argc, argv.data());
            fuzz::Check(params.flowcell == flowcell && params.kit == kit,
                        "the command line keeps priority over the workflow file");
            printAll(params);
        }
    } catch (const std::exception& e) {
        fuzz::Refused(e);
    }
    return 0;
}
