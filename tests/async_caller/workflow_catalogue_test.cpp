#include <boost/filesystem.hpp>

#include "async_caller/workflow_catalogue.h"
#include "test_util.h"

namespace fs = boost::filesystem;
using namespace AsyncCaller;
using namespace TestSupport;

namespace {

// A parsed run parameter set, as main has it before selection.
struct RunParams {
    explicit RunParams(std::vector<std::string> args) : strings(std::move(args)) {
        strings.insert(strings.begin(), "prog");
        for (const auto& s : strings) argv.push_back(s.c_str());
        params.ParseArguments(nullptr, "", Argc(), argv.data(), "");
    }
    int Argc() const { return static_cast<int>(argv.size()); }
    std::vector<std::string> strings;
    std::vector<const char*> argv;
    BasecallParams params;
};

}  // namespace

// The printed table and the flowcell-without-kit refusal are checked through the program's own runs.
TEST(WorkflowCatalogue, ScanBuildsEntriesPerFlowcellAndKit) {
    TempDir dir;
    EXPECT_TRUE(ScanWorkflows(dir.path.string()).empty());
    dir.File("b_second.cfg",
             "compatible_flowcells = FC1,,FC2\ncompatible_kits = K1, K2\ncompatible_kits_with_barcoding = BC1\n");
    dir.File("a_first.cfg", "compatible_flowcells = FC9\ncompatible_kits = K9\nmodel_file = m.json\n");
    dir.File("notes.txt", "compatible_flowcells = X\ncompatible_kits = Y\n");
    fs::create_directories(dir.path / "sub");
    dir.File("sub/deeper.cfg", "compatible_flowcells = X\ncompatible_kits = Y\n");
    std::vector<std::string> rows;
    for (const auto& entry : ScanWorkflows(dir.path.string())) {
        rows.push_back(entry.flowcell + "|" + entry.kit + "|" + (entry.barcoding ? "b|" : "-|") + entry.config_path);
    }
    const std::string a = (dir.path / "a_first.cfg").string(), b = (dir.path / "b_second.cfg").string();
    EXPECT_EQ(rows, (std::vector<std::string>{"FC9|K9|-|" + a, "FC1|K1|-|" + b, "FC1| K2|-|" + b, "FC1|BC1|b|" + b,
                                              "FC2|K1|-|" + b, "FC2| K2|-|" + b, "FC2|BC1|b|" + b}));
}

TEST(WorkflowCatalogue, SelectionReadsConfigWithCommandLineOnTop) {
    TempDir dir;
    dir.File("first.cfg", "compatible_flowcells = FCA, FCB\ncompatible_kits = KA\nchunk_size = 300\noverlap = 7\n"
                          "model_file = model_a.json\n");
    dir.File("second.cfg", "compatible_flowcells = FCA\ncompatible_kits = KA\nchunk_size = 999\n");
    const auto catalogue = ScanWorkflows(dir.path.string());
    const auto select = [&](RunParams& run) { SelectWorkflow(catalogue, run.params, run.Argc(), run.argv.data()); };
    RunParams run({"--flowcell", "FCA", "--kit", "KA", "--chunk_size", "444"});
    select(run);
    EXPECT_EQ(run.params.config_file, (dir.path / "first.cfg").string());  // first claim wins
    EXPECT_EQ(run.params.chunk_size, 444u);
    EXPECT_EQ(run.params.overlap, 7u);
    // A model named without a directory sits beside its configuration; a bare model name on the
    // command line stays bare here, for main to look up in the data path.
    EXPECT_EQ(run.params.model_file, (dir.path / "model_a.json").string());
    RunParams bare({"--flowcell", "FCA", "--kit", "KA", "-m", "bare.json"});
    select(bare);
    EXPECT_EQ(bare.params.model_file, "bare.json");
    RunParams none({});
    select(none);
    EXPECT_EQ(none.params.config_file, "");

    RunParams both({"--config", "x.cfg", "--flowcell", "FCA", "--kit", "KA"});
    EXPECT_EQ(ErrorOf([&] { select(both); }),
              "User specified both basecalling config directly and flowcell/kit ID. Must either specify "
              "config directly, or specify both kit and flowcell.");
    // The blank after the comma belongs to the code, so "FCB" alone does not match.
    RunParams blank({"--flowcell", "FCB", "--kit", "KA"});
    EXPECT_EQ(ErrorOf([&] { select(blank); }), "Could not find matching workflow for flowcell FCB and kit KA");
    EXPECT_EQ(FindWorkflow(catalogue, " FCB", "KA").config_path, (dir.path / "first.cfg").string());
}
