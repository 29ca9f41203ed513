// Runs the program itself and checks what a user sees: exit value, standard output and error, logs.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "run_program.h"

using TestSupport::kDataPath;
using TestSupport::LogFile;
namespace fs = boost::filesystem;

namespace {

const std::string kBannerLine = ": KVX Marlo 1d-squared basecaller, (C) KVX Marlo developers. Version 2.3.5+53a111f\n";

class MainTest : public testing::Test {
protected:
    TestSupport::RunResult Run(const std::vector<std::string>& args) const {
        return TestSupport::RunProgram(args, dir.path);
    }
    TestSupport::TempDir dir;
};

}  // namespace

TEST_F(MainTest, RunsThatEndBeforeAnyCallShowExactTexts) {
    const auto data = dir.path / "data";
    fs::create_directories(data);
    std::ofstream((data / "broken.cfg").string()) << "chunk_size\n";
    const auto save = dir.path / "save";
    const struct {
        std::vector<std::string> args;
        int code;
        std::string out;  // "*": only checked to begin with the banner and the help heading
        std::string err;
    } cases[] = {
        {{}, 0, "*", ""},
        {{"--version"}, 0, kBannerLine, ""},
        {{"--print_workflows"}, 0,
         "Available flowcell + kit combinations are:\n"
         "flowcell   kit        barcoding config_name\n"
         "KFC-R1A    KLK-D210             dna_r1_1d2\n"
         "KFC-R1A    KLK-D220             dna_r1_1d2\n"
         "KFC-R1A    KBK-D290   included  dna_r1_1d2\n"
         "KFC-R1B    KLK-D210             dna_r1_1d2\n"
         "KFC-R1B    KLK-D220             dna_r1_1d2\n"
         "KFC-R1B    KBK-D290   included  dna_r1_1d2\n"
         "KFC-R1C    KLK-D210             dna_r1_1d2_lowmem\n\n",
         ""},
        // A bad data path is reported before the help, and a broken workflow file stops even the help.
        {{"--help", "-d", (dir.path / "no&data").string()}, 255, "",
         "Selected data path \"" + (dir.path / "no&&data").string() + "\" does not exist!  Exiting.\n"},
        {{"--help", "-d", data.string()}, 255, "",
         "the options configuration file contains an invalid line 'chunk_size'\n"},
        // A device fails on standard error before anything is logged.
        {{"--device", "auto", "-f", "index.txt", "-s", save.string()}, 255, "",
         "This build does not support GPU basecalling mode.\n"},
        {{"-f", "index.txt"}, 255, "\n", "Missing required option 'save_path'.\n\n"},
        {{"--flowcell", "KFC-R1A", "-f", "index.txt", "-s", (dir.path / "s").string()}, 255, "",
         "User specified flowcell but not kit (or vice versa). Must specify both kit and flowcell to perform "
         "automatic config selection.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.empty() ? "(none)" : c.args.front());
        const auto result = Run(c.args);
        EXPECT_EQ(result.code, c.code);
        if (c.out == "*") {
            EXPECT_EQ(result.out.rfind(kBannerLine + "Command line parameters:\n", 0), 0u) << result.out;
            EXPECT_NE(result.out.find("  -f [ --index_file ] arg"), std::string::npos);
        } else {
            EXPECT_EQ(result.out, c.out);
        }
        EXPECT_EQ(result.err, c.err);
    }
    EXPECT_FALSE(fs::exists(save));
}

TEST_F(MainTest, AnUnexpectedOptionIsANoticeAndTheRunGoesOn) {
    const auto save = dir.path / "save_unknown";
    const auto result = Run({"-f", "index.txt", "-s", save.string(), "--quiet", "--no_such_option"});
    // It goes on to the driver, which fails for want of a model.
    EXPECT_EQ(result.code, 255);
    EXPECT_EQ(result.out, "Unexpected option 'no_such_option' found on command line.\n\n");
    EXPECT_EQ(result.err.rfind("\n", 0), 0u) << result.err;
    EXPECT_NE(result.err.find("An error occurred in the basecaller. Aborting.\n"), std::string::npos);
    EXPECT_NE(LogFile(save, "marlo_basecaller_1d2").find("save path:          " + save.string()), std::string::npos);
}

TEST_F(MainTest, VersionWithRequiredOptionsShowsBannerAndRuns) {
    const auto save = dir.path / "nested" / "save";
    const auto result = Run({"--version", "-f", "index.txt", "-s", save.string(), "-i", "reads"});
    // It basecalls, and the run fails for want of a model: an empty model file names the data path.
    EXPECT_EQ(result.code, 255);
    const std::string header =
        "KVX Marlo 1d-squared basecalling software version 2.3.5+53a111f\n"
        "config file:        \n"
        "model file:         " + kDataPath + "\n"
        "input path:         reads\n"
        "save path:          " + save.string() + "\n"
        "chunk size:         1000\n"
        "chunks per runner:  20\n"
        "records per file:   4000\n"
        "num basecallers:    4\n"
        "cpu mode:           ON\n"
        "threads per caller: 1\n";
    EXPECT_EQ(result.out, kBannerLine + header);
    EXPECT_NE(result.err.find("Model File \"" + kDataPath + "\" "), std::string::npos) << result.err;
    const auto core = LogFile(save, "marlo_basecaller_1d2");
    EXPECT_TRUE(std::regex_match(core, std::regex("\\d{4}-\\d\\d-\\d\\d \\S+ \\[marlo/core\\] KVX Marlo[\\s\\S]*")));
    EXPECT_NE(core.find(header), std::string::npos);
    // No verbose file unless asked for.
    EXPECT_EQ(LogFile(save, "marlo_basecaller__1d2_verbose"), "");
}

TEST_F(MainTest, WorkflowSelectionServiceModeAndFlagsShapeTheHeader) {
    const auto save = dir.path / "save";
    const auto result = Run({"--flowcell", "KFC-R1C", "--kit", "KLK-D210", "-f", "index.txt", "-s", save.string(),
                             "--chunk_size", "321", "--port", "5555", "--qscore_filtering", "--quiet",
                             "--verbose_logs"});
    // Service mode has no callers: the run fails after the header.
    EXPECT_EQ(result.code, 255);
    EXPECT_EQ(result.out, "");
    const std::string header =
        "KVX Marlo 1d-squared basecalling software version 2.3.5+53a111f\n"
        "config file:        " + kDataPath + "/dna_r1_1d2_lowmem.cfg\n"
        "input path:         \n"
        "save path:          " + save.string() + "\n"
        "chunk size:         321\n"
        "minimum qscore:     7\n"
        "records per file:   4000\n"
        "num basecallers:    2\n"
        "service address:    tcp://localhost:5555\n";
    const auto core = LogFile(save, "marlo_basecaller_1d2");
    EXPECT_NE(core.find(header), std::string::npos) << core;
    const auto verbose = LogFile(save, "marlo_basecaller__1d2_verbose");
    EXPECT_NE(verbose.find("[marlo/core] {message} "), std::string::npos) << verbose;
    EXPECT_NE(verbose.find(header), std::string::npos);
}

TEST_F(MainTest, ModelAndMismatchTableResolveAgainstTheirSources) {
    const auto save = dir.path / "save";
    const auto result = Run({"--flowcell", "KFC-R1A", "--kit", "KBK-D290", "-f", "index.txt", "-s", save.string(),
                             "--port", "host:7000", "--trace_categories_logs", "pairs"});
    EXPECT_EQ(result.code, 255);  // service mode
    EXPECT_NE(result.out.find("service address:    tcp://host:7000\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("model file:"), std::string::npos);
    // Only records on the named channel reach the verbose file, and the header is not one of them.
    EXPECT_EQ(LogFile(save, "marlo_basecaller__1d2_verbose"), "");

    const auto save2 = dir.path / "save2";
    const auto cpu = Run({"--flowcell", "KFC-R1A", "--kit", "KLK-D220", "-f", "index.txt", "-s", save2.string(),
                          "--cpu_threads_per_caller", "3"});
    EXPECT_EQ(cpu.code, 255);  // the run itself fails: there is no index.txt here
    EXPECT_NE(cpu.out.find("model file:         " + kDataPath + "/model_raw_r1_gru96x4.json\n"), std::string::npos)
        << cpu.out;
    EXPECT_NE(cpu.out.find("config file:        " + kDataPath + "/dna_r1_1d2.cfg\n"), std::string::npos);
    EXPECT_NE(cpu.out.find("threads per caller: 3\n"), std::string::npos);

    // A bare --model_file on the command line is looked up in the data path.
    const auto bare = Run({"-f", "index.txt", "-s", save2.string(), "-m", "other.json"});
    EXPECT_NE(bare.out.find("model file:         " + kDataPath + "/other.json\n"), std::string::npos) << bare.out;
}
