#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "async_caller/workflow_catalogue.h"
#include "test_util.h"

namespace fs = boost::filesystem;
using namespace AsyncCaller;

namespace {

class TempDir {
public:
    TempDir() : path(fs::temp_directory_path() / fs::unique_path("kvx-wf-%%%%-%%%%")) { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
    std::string File(const std::string& name, const std::string& content) const {
        const auto file = (path / name).string();
        fs::create_directories(fs::path(file).parent_path());
        std::ofstream(file) << content;
        return file;
    }
    fs::path path;
};

using TestSupport::ErrorOf;

// A parsed run parameter set, as main has it before selection.
struct RunParams {
    explicit RunParams(std::vector<std::string> args) : strings(std::move(args)) {
        strings.insert(strings.begin(), "prog");
        for (const auto& s : strings) {
            argv.push_back(s.c_str());
        }
        params.ParseArguments(nullptr, "", Argc(), argv.data(), "");
    }
    int Argc() const { return static_cast<int>(argv.size()); }
    std::vector<std::string> strings;
    std::vector<const char*> argv;
    BasecallParams params;
};

}  // namespace

TEST(WorkflowCatalogue, EmptyDirectoryPrintsOnlyTheHeader) {
    TempDir dir;
    const auto catalogue = ScanWorkflows(dir.path.string());
    EXPECT_TRUE(catalogue.empty());
    std::ostringstream out;
    PrintWorkflows(catalogue, out);
    EXPECT_EQ(out.str(), "Available flowcell + kit combinations are:\nflowcell   kit        barcoding config_name\n\n");
}

TEST(WorkflowCatalogue, ScanBuildsEntriesPerFlowcellAndKit) {
    TempDir dir;
    dir.File("b_second.cfg",
             "compatible_flowcells = FC1,,FC2\ncompatible_kits = K1, K2\ncompatible_kits_with_barcoding = BC1\n");
    dir.File("a_first.cfg", "compatible_flowcells = FC9\ncompatible_kits = K9\nmodel_file = m.json\n");
    dir.File("notes.txt", "compatible_flowcells = X\ncompatible_kits = Y\n");
    dir.File("sub/deeper.cfg", "compatible_flowcells = X\ncompatible_kits = Y\n");
    const auto catalogue = ScanWorkflows(dir.path.string());
    std::vector<std::string> rows;
    for (const auto& entry : catalogue) {
        rows.push_back(entry.flowcell + "|" + entry.kit + "|" + (entry.barcoding ? "b" : "-") + "|" +
                       fs::path(entry.config_path).filename().string());
    }
    EXPECT_EQ(rows, (std::vector<std::string>{
                        "FC9|K9|-|a_first.cfg", "FC1|K1|-|b_second.cfg", "FC1| K2|-|b_second.cfg",
                        "FC1|BC1|b|b_second.cfg", "FC2|K1|-|b_second.cfg", "FC2| K2|-|b_second.cfg",
                        "FC2|BC1|b|b_second.cfg"}));
    EXPECT_EQ(catalogue.front().config_path, (dir.path / "a_first.cfg").string());

    std::ostringstream out;
    PrintWorkflows({catalogue[0], catalogue[3]}, out);
    EXPECT_EQ(out.str(),
              "Available flowcell + kit combinations are:\n"
              "flowcell   kit        barcoding config_name\n"
              "FC9        K9                   a_first\n"
              "FC1        BC1        included  b_second\n\n");
}

TEST(WorkflowCatalogue, BadConfigFileStopsTheScan) {
    TempDir dir;
    dir.File("broken.cfg", "compatible_flowcells\n");
    EXPECT_THROW(ScanWorkflows(dir.path.string()), std::exception);
}

TEST(WorkflowCatalogue, SelectionMessages) {
    TempDir dir;
    dir.File("w.cfg", "compatible_flowcells = FCA, FCB\ncompatible_kits = KA\n");
    const auto catalogue = ScanWorkflows(dir.path.string());
    {
        RunParams run({});
        SelectWorkflow(catalogue, run.params, run.Argc(), run.argv.data());
        EXPECT_EQ(run.params.config_file, "");
    }
    {
        RunParams run({"--flowcell", "FCA"});
        EXPECT_EQ(ErrorOf([&] { SelectWorkflow(catalogue, run.params, run.Argc(), run.argv.data()); }),
                  "User specified flowcell but not kit (or vice versa). Must specify both kit and flowcell to "
                  "perform automatic config selection.");
    }
    {
        RunParams run({"--config", "x.cfg", "--flowcell", "FCA", "--kit", "KA"});
        EXPECT_EQ(ErrorOf([&] { SelectWorkflow(catalogue, run.params, run.Argc(), run.argv.data()); }),
                  "User specified both basecalling config directly and flowcell/kit ID. Must either specify "
                  "config directly, or specify both kit and flowcell.");
    }
    {
        // The blank after the comma belongs to the code, so "FCB" alone does not match.
        RunParams run({"--flowcell", "FCB", "--kit", "KA"});
        EXPECT_EQ(ErrorOf([&] { SelectWorkflow(catalogue, run.params, run.Argc(), run.argv.data()); }),
                  "Could not find matching workflow for flowcell FCB and kit KA");
    }
    EXPECT_EQ(FindWorkflow(catalogue, " FCB", "KA").config_path, (dir.path / "w.cfg").string());
}

TEST(WorkflowCatalogue, SelectionReadsConfigWithCommandLineOnTop) {
    TempDir dir;
    dir.File("first.cfg", "compatible_flowcells = FCA\ncompatible_kits = KA\nchunk_size = 300\noverlap = 7\n"
                          "model_file = model_a.json\n");
    dir.File("second.cfg", "compatible_flowcells = FCA\ncompatible_kits = KA\nchunk_size = 999\n");
    const auto catalogue = ScanWorkflows(dir.path.string());
    RunParams run({"--flowcell", "FCA", "--kit", "KA", "--chunk_size", "444"});
    SelectWorkflow(catalogue, run.params, run.Argc(), run.argv.data());
    EXPECT_EQ(run.params.config_file, (dir.path / "first.cfg").string());  // first claim wins
    EXPECT_EQ(run.params.chunk_size, 444u);
    EXPECT_EQ(run.params.overlap, 7u);
    // A model named without a directory sits beside its configuration.
    EXPECT_EQ(run.params.model_file, (dir.path / "model_a.json").string());

    // A bare model name on the command line stays bare here; main looks it up in the data path.
    RunParams explicit_model({"--flowcell", "FCA", "--kit", "KA", "-m", "bare.json"});
    SelectWorkflow(catalogue, explicit_model.params, explicit_model.Argc(), explicit_model.argv.data());
    EXPECT_EQ(explicit_model.params.model_file, "bare.json");
}
