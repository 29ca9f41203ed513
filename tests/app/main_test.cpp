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
            // Help texts as users have always seen them, typos included; config-file-only options are hidden.
            for (const char* text : {"Shirt time-scale threshold for event", "Substute 'U' for 'T'",
                                     "  -f [ --index_file ] arg", "-q [ --records_per_fastq ] arg", "--compress_fastq",
                                     "-d [ --data_path ] arg", "produce help message", "-r [ --recursive ]"}) {
                EXPECT_NE(result.out.find(text), std::string::npos) << text;
            }
            EXPECT_EQ(result.out.find("ipc_threads"), std::string::npos);
            EXPECT_EQ(result.out.find("compatible_kits"), std::string::npos);
        } else {
            EXPECT_EQ(result.out, c.out);
        }
        EXPECT_EQ(result.err, c.err);
    }
    EXPECT_FALSE(fs::exists(save));
}

// Runs that reach the driver print the run header; each fails there (no model, no index, or service
// mode with no callers). What the header says, and where it goes, follows the options.
TEST_F(MainTest, HeaderFollowsTheOptionsAndTheirSources) {
    const std::string save = (dir.path / "nested" / "save").string(), version = "KVX Marlo 1d-squared basecalling software version 2.3.5+53a111f\n";
    const std::string header =
        version + "config file:        \nmodel file:         " + kDataPath + "\ninput path:         reads\n"
        "save path:          " + save + "\nchunk size:         1000\nchunks per runner:  20\nrecords per file:   4000\n"
        "num basecallers:    4\ncpu mode:           ON\nthreads per caller: 1\n";
    const std::string lowmem =
        version + "config file:        " + kDataPath + "/dna_r1_1d2_lowmem.cfg\ninput path:         \nsave path:          " +
        save + "\nchunk size:         321\nminimum qscore:     7\nrecords per file:   4000\nnum basecallers:    2\n"
        "service address:    tcp://localhost:5555\n";
    const struct {
        std::vector<std::string> args;
        std::string out;      // exactly, or "~" + text standard output holds
        std::vector<std::string> log;  // texts the core log holds
        std::string verbose;           // text the verbose log holds; empty: there is no verbose log
        std::string err;               // text standard error holds
    } cases[] = {
        // The model file is the data folder itself and fails; the header goes to standard output and the log.
        {{"--version", "-i", "reads"}, kBannerLine + header, {header}, "", "Model File \"" + kDataPath + "\" "},
        {{"--flowcell", "KFC-R1C", "--kit", "KLK-D210", "--chunk_size", "321", "--port", "5555", "--qscore_filtering",
          "--quiet", "--verbose_logs"},
         "", {lowmem}, lowmem, ""},
        // Only records on the named channel reach the verbose file, and the header is not one of them.
        {{"--flowcell", "KFC-R1A", "--kit", "KBK-D290", "--port", "host:7000", "--trace_categories_logs", "pairs"},
         "~service address:    tcp://host:7000\n", {"service address:    tcp://host:7000\n"}, "", ""},
        {{"--flowcell", "KFC-R1A", "--kit", "KLK-D220", "--cpu_threads_per_caller", "3"},
         "~model file:         " + kDataPath + "/model_raw_r1_gru96x4.json\n",
         {"config file:        " + kDataPath + "/dna_r1_1d2.cfg\n", "threads per caller: 3\n"}, "", ""},
        // A bare --model_file on the command line is looked up in the data path.
        {{"-m", "other.json"}, "~model file:         " + kDataPath + "/other.json\n", {}, "", ""},
        // An unknown option is only a notice: the run goes on, and fails for want of a model.
        {{"--quiet", "--no_such_option"}, "Unexpected option 'no_such_option' found on command line.\n\n",
         {"save path:          " + save + "\n"}, "", "An error occurred in the basecaller. Aborting.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.front());
        fs::remove_all(save);
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"-f", "index.txt", "-s", save});
        const auto result = Run(args);
        EXPECT_EQ(result.code, 255);
        if (c.out.rfind("~", 0) == 0) {
            EXPECT_NE(result.out.find(c.out.substr(1)), std::string::npos) << result.out;
        } else {
            EXPECT_EQ(result.out, c.out);
        }
        const auto core = LogFile(save, "marlo_basecaller_1d2");
        EXPECT_TRUE(std::regex_match(core, std::regex("\\d{4}-\\d\\d-\\d\\d \\S+ \\[marlo/core\\] KVX Marlo[\\s\\S]*")));
        for (const auto& text : c.log) {
            EXPECT_NE(core.find(text), std::string::npos) << text << " not in:\n" << core;
        }
        EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
        const auto verbose = LogFile(save, "marlo_basecaller__1d2_verbose");
        EXPECT_EQ(verbose.empty(), c.verbose.empty());
        EXPECT_NE(verbose.find(c.verbose), std::string::npos) << verbose;
        EXPECT_TRUE(c.verbose.empty() || verbose.find("[marlo/core] {message} ") != std::string::npos);
    }
}
