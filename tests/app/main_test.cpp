// Runs the program itself and checks what a user sees: exit value, standard output and error, logs, and
// the files left in the save path.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "../common/test_support.h"

namespace fs = boost::filesystem;
using TestSupport::ReadText;

namespace {

const std::string kProgram = std::string(KVX_BINARY_DIR) + "/bin/basecaller_1d2";
const std::string kDataPath = std::string(KVX_BINARY_DIR) + "/data";

struct RunResult {
    int code = 0;
    std::string out, err, log;  // log: the core log file of the save path, when the caller reads it
};

// Runs the program with `args`, its standard output and error going to files in `scratch`.
RunResult RunProgram(const std::vector<std::string>& args, const fs::path& scratch) {
    const auto quote = [](const std::string& arg) {
        std::string quoted = "'";
        for (const char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return quoted + "'";
    };
    std::string command = quote(kProgram);
    for (const auto& arg : args) command += " " + quote(arg);
    const auto out = (scratch / "stdout.txt").string(), err = (scratch / "stderr.txt").string();
    command += " >" + quote(out) + " 2>" + quote(err) + " </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1000, ReadText(out), ReadText(err), {}};
}

// The log file of `base` in the save path, empty if there is none.
std::string LogFile(const fs::path& save, const std::string& base) {
    if (!fs::exists(save)) return {};
    const std::regex name(base + "_log-\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d\\.log");
    for (fs::directory_iterator it(save), end; it != end; ++it) {
        if (std::regex_match(it->path().filename().string(), name)) return ReadText(it->path().string());
    }
    return {};
}

const std::string kBannerLine = ": KVX Marlo 1d-squared basecaller, (C) KVX Marlo developers. Version 2.3.5+53a111f\n";

const std::string kModel = kDataPath + "/model_raw_r1_gru96x4.json";
const std::string kAbort = "An error occurred in the basecaller. Aborting.";
const std::string kIndexHeader = "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n";

class Basecaller1D2Test : public testing::Test {
protected:
    Basecaller1D2Test() {
        fs::create_directories(dir / "reads");
        // A mismatch table that favours equal labels; what matters here is that it loads.
        std::ofstream table((dir / "mismatch.txt").string());
        table << "prob\n";
        for (int r = 0; r < 64 * 64; ++r) table << (r % 65 == 0 ? 0.9 : 0.1 / 63) << '\n';
    }
    fs::path save() const { return dir / "save"; }

    // A run in a fresh save path; an option may be given only once, so `args` cannot repeat these.
    RunResult Run(const std::string& index, const std::vector<std::string>& args,
                               const std::string& model = kModel, const std::string& num_callers = "2") const {
        fs::remove_all(save());
        std::vector<std::string> all = {"-f", scratch.File("index.txt", index), "-i", (dir / "reads").string(), "-s",
                                        save().string(), "-m", model, "--score_matrix",
                                        (dir / "mismatch.txt").string(), "--num_callers", num_callers};
        all.insert(all.end(), args.begin(), args.end());
        auto result = RunProgram(all, dir);
        result.log = LogFile(save(), "marlo_basecaller_1d2");
        return result;
    }

    TestSupport::TempDir scratch;
    const fs::path dir = scratch.path;
};

std::size_t Find(const std::string& log, const std::string& text) {
    const std::size_t at = log.find(text);
    EXPECT_NE(at, std::string::npos) << "missing: " << text << "\nin:\n" << log;
    return at;
}

}  // namespace

TEST(MainTest, RunsThatEndBeforeAnyCallShowExactTexts) {
    const TestSupport::TempDir dir;
    const auto data = dir.path / "data";
    fs::create_directories(data);
    std::ofstream((data / "broken.cfg").string()) << "chunk_size\n";
    const auto save = dir.path / "save";
    // out "*": the help, checked for the banner, its heading and its texts.
    const struct { std::vector<std::string> args; int code; std::string out, err; } cases[] = {
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
        const auto result = RunProgram(c.args, dir.path);
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
TEST(MainTest, HeaderFollowsTheOptionsAndTheirSources) {
    const TestSupport::TempDir dir;
    const std::string save = (dir.path / "nested" / "save").string(), version = "KVX Marlo 1d-squared basecalling software version 2.3.5+53a111f\n";
    const std::string header =
        version + "config file:        \nmodel file:         " + kDataPath + "\ninput path:         reads\n"
        "save path:          " + save + "\nchunk size:         1000\nchunks per runner:  20\nrecords per file:   4000\n"
        "num basecallers:    4\ncpu mode:           ON\nthreads per caller: 1\n";
    const std::string lowmem =
        version + "config file:        " + kDataPath + "/dna_r1_1d2_lowmem.cfg\ninput path:         \nsave path:          " +
        save + "\nchunk size:         321\nminimum qscore:     7\nrecords per file:   4000\nnum basecallers:    2\n"
        "service address:    tcp://localhost:5555\n";
    // out: exactly, or "~" + a text it holds; log: texts the core log holds; verbose: a text the verbose
    // log holds, empty when there is none; err: a text standard error holds.
    const struct {
        std::vector<std::string> args;
        std::string out;
        std::vector<std::string> log;
        std::string verbose, err;
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
        const auto result = RunProgram(args, dir.path);
        EXPECT_EQ(result.code, 255);
        if (c.out.rfind("~", 0) == 0) {
            EXPECT_NE(result.out.find(c.out.substr(1)), std::string::npos) << result.out;
        } else {
            EXPECT_EQ(result.out, c.out);
        }
        const auto core = LogFile(save, "marlo_basecaller_1d2");
        EXPECT_TRUE(std::regex_match(core, std::regex("\\d{4}-\\d\\d-\\d\\d \\S+ \\[marlo/core\\] KVX Marlo[\\s\\S]*")));
        for (const auto& text : c.log) EXPECT_NE(core.find(text), std::string::npos) << text << core;
        EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
        const auto verbose = LogFile(save, "marlo_basecaller__1d2_verbose");
        EXPECT_EQ(verbose.empty(), c.verbose.empty());
        EXPECT_NE(verbose.find(c.verbose), std::string::npos) << verbose;
        EXPECT_TRUE(c.verbose.empty() || verbose.find("[marlo/core] {message} ") != std::string::npos);
    }
}

TEST_F(Basecaller1D2Test, RunWithZeroPairsCompletes) {
    // One read whose file is not there, and one lone read: no pair.
    std::ofstream((dir / "reads" / "present.rawh5").string()) << "not opened: no pair needs it";
    const std::string index =
        kIndexHeader + "absent.rawh5\tr1\trun\t1\t0.0\t1.0\t100\n" + "present.rawh5\tr2\trun\t1\t1.1\t1.0\t100\n";
    const auto result = Run(index, {});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_NE(result.out.find("\n0%   10   20   30   40   50   60   70   80   90   100%\n"
                              "|----|----|----|----|----|----|----|----|----|----|\n"),
              std::string::npos)
        << result.out;
    // In order: the pair count, the set-up time, the speed, the success line.
    const std::regex order("Found 0 read pairs to process.\n[\\s\\S]*Init time: \\d+ ms\n[\\s\\S]*"
                           "Caller time: \\d+ ms, Events: 0, kev/s: \\S+\n[\\s\\S]*"
                           "Basecalling completed successfully.\n");
    EXPECT_TRUE(std::regex_search(result.log, order)) << result.log;
    EXPECT_EQ(result.log.find(kAbort), std::string::npos);
    EXPECT_EQ(TestSupport::ReadText((save() / "sequencing_summary.txt").string()),
              "filename1\tfilename2\tread_id1\tread_id2\trun_id\tchannel\tstart_time1\tstart_time2\t"
              "trimmed_duration1\ttrimmed_duration2\ttrimmed_events1\ttrimmed_events2\tmedian1\tmedian2\tmad1\tmad2\t"
              "sequence_length\tpasses_filtering\tmean_qscore\tstrand_score\n");
    EXPECT_TRUE(fs::exists(save() / "sequencing_telemetry.js"));

    // Quiet: no bar, the same ending.
    const auto quiet = Run(index, {"--quiet"});
    EXPECT_EQ(quiet.code, 0);
    EXPECT_EQ(quiet.out.find("100%"), std::string::npos) << quiet.out;
    Find(quiet.log, "Basecalling completed successfully.\n");
}

// Each failure is logged, in order, before the abort line; set-up failures stop before set-up ends.
TEST_F(Basecaller1D2Test, FailuresAreLoggedBeforeTheAbort) {
    std::ofstream((dir / "notes.json").string()) << "{\"these\": [\"are\", \"notes\"]}\n";
    const struct {
        const char* name;
        std::string index, model, callers;
        std::vector<std::string> args, messages;  // in the order logged
        bool setUp;                               // set-up ends (and its time is logged) before the failure
    } cases[] = {
        {"service mode", kIndexHeader, kModel, "2", {"--port", "5555", "--quiet"},
         {"service address:    tcp://localhost:5555\n", "Basecallers not initialised correctly.\n"}, true},
        {"no callers", kIndexHeader, kModel, "0", {"--quiet"}, {"Basecallers not initialised correctly.\n"}, true},
        {"a model that is no model", kIndexHeader, (dir / "notes.json").string(), "2", {"--quiet"},
         {(dir / "notes.json").string()}, false},
        {"no model file", kIndexHeader, (dir / "nowhere.json").string(), "2", {"--quiet"},
         {(dir / "nowhere.json").string()}, false},
        {"index without a column", "filename\tread_id\trun_id\tchannel\tstart_time\tsequence_length_template\n",
         kModel, "2", {"--quiet"},
         {"Required column \"duration\" not found in 1d2 index file: " + (dir / "index.txt").string() + "\n"}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto result = Run(c.index, c.args, c.model, c.callers);
        EXPECT_EQ(result.code, 255);
        std::size_t previous = 0;
        for (const auto& message : c.messages) {
            const std::size_t at = Find(result.log, message);
            EXPECT_LE(previous, at);
            previous = at;
        }
        EXPECT_LT(previous, Find(result.log, kAbort));
        EXPECT_EQ(result.log.find("Basecalling completed successfully."), std::string::npos);
        if (c.setUp) {
            EXPECT_FALSE(fs::exists(save() / "sequencing_summary.txt")) << "nothing of the output stage is made";
        } else {
            EXPECT_EQ(result.log.find("Init time"), std::string::npos);
        }
    }
}
