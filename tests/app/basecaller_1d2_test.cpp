// Runs the program through its run driver and checks how each kind of run ends: exit value, what
// is logged, and the files left in the save path.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "run_program.h"

namespace fs = boost::filesystem;
using TestSupport::Slurp;

namespace {

const std::string kModel = TestSupport::kDataPath + "/model_raw_r1_gru96x4.json";
const std::string kAbort = "An error occurred in the basecaller. Aborting.";
const std::string kSummaryHeader =
    "filename1\tfilename2\tread_id1\tread_id2\trun_id\tchannel\tstart_time1\tstart_time2\ttrimmed_duration1\t"
    "trimmed_duration2\ttrimmed_events1\ttrimmed_events2\tmedian1\tmedian2\tmad1\tmad2\tsequence_length\t"
    "passes_filtering\tmean_qscore\tstrand_score\n";
const std::string kIndexHeader =
    "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n";

struct Result : TestSupport::RunResult {
    std::string log;  // the core log file of the save path
};

class Basecaller1D2Test : public testing::Test {
protected:
    Basecaller1D2Test() {
        fs::create_directories(dir / "reads");
        // A mismatch table that favours equal labels; what matters here is that it loads.
        std::ofstream table((dir / "mismatch.txt").string());
        table << "prob\n";
        for (int r = 0; r < 64; ++r) {
            for (int c = 0; c < 64; ++c) {
                table << (r == c ? 0.9 : 0.1 / 63) << '\n';
            }
        }
    }
    fs::path save() const { return dir / "save"; }

    void WriteIndex(const std::string& text) const { std::ofstream((dir / "index.txt").string()) << text; }

    // Runs with the index, read folder and mismatch table of the fixture, the model and number of
    // callers given, then `args` (an option may be given only once).
    Result Run(const std::vector<std::string>& args, const std::string& model = kModel,
               const std::string& num_callers = "2") const {
        std::vector<std::string> all = {"-f", (dir / "index.txt").string(), "-i", (dir / "reads").string(), "-s",
                                        save().string(), "-m", model, "--score_matrix",
                                        (dir / "mismatch.txt").string(), "--num_callers", num_callers};
        all.insert(all.end(), args.begin(), args.end());
        Result result;
        static_cast<TestSupport::RunResult&>(result) = TestSupport::RunProgram(all, dir);
        result.log = TestSupport::LogFile(save(), "marlo_basecaller_1d2");
        return result;
    }

    TestSupport::TempDir scratch;
    const fs::path dir = scratch.path;
};

// Position of `text` in `log`, checked to be there.
std::size_t Find(const std::string& log, const std::string& text) {
    const std::size_t at = log.find(text);
    EXPECT_NE(at, std::string::npos) << "missing: " << text << "\nin:\n" << log;
    return at;
}

}  // namespace

TEST_F(Basecaller1D2Test, RunWithZeroPairsCompletes) {
    // One read whose file is not there, and one lone read: no pair.
    std::ofstream((dir / "reads" / "present.rawh5").string()) << "not opened: no pair needs it";
    WriteIndex(kIndexHeader + "absent.rawh5\tr1\trun\t1\t0.0\t1.0\t100\n" + "present.rawh5\tr2\trun\t1\t1.1\t1.0\t100\n");
    const auto result = Run({});
    EXPECT_EQ(result.code, 0) << result.err;
    const std::string bar = "\n0%   10   20   30   40   50   60   70   80   90   100%\n"
                            "|----|----|----|----|----|----|----|----|----|----|\n";
    EXPECT_NE(result.out.find(bar), std::string::npos) << result.out;
    // In order: the pair count, the set-up time, the speed, the success line.
    const std::size_t found = Find(result.log, "Found 0 read pairs to process.\n");
    const std::size_t init = Find(result.log, "Init time: ");
    const std::size_t speed = Find(result.log, "Caller time: ");
    const std::size_t done = Find(result.log, "Basecalling completed successfully.\n");
    EXPECT_LT(found, init);
    EXPECT_LT(init, speed);
    EXPECT_LT(speed, done);
    EXPECT_TRUE(std::regex_search(result.log, std::regex("Init time: \\d+ ms\n")));
    EXPECT_TRUE(std::regex_search(result.log, std::regex("Caller time: \\d+ ms, Events: 0, kev/s: \\S+\n")));
    EXPECT_EQ(result.log.find(kAbort), std::string::npos);
    EXPECT_EQ(Slurp(save() / "sequencing_summary.txt"), kSummaryHeader);
    EXPECT_TRUE(fs::exists(save() / "sequencing_telemetry.js"));

    // Quiet: no bar, the same ending.
    fs::remove_all(save());
    const auto quiet = Run({"--quiet"});
    EXPECT_EQ(quiet.code, 0);
    EXPECT_EQ(quiet.out.find("100%"), std::string::npos) << quiet.out;
    Find(quiet.log, "Basecalling completed successfully.\n");
}

TEST_F(Basecaller1D2Test, ServiceModeFailsAfterTheHeader) {
    WriteIndex(kIndexHeader);
    const auto result = Run({"--port", "5555", "--quiet"});
    EXPECT_EQ(result.code, 255);
    const std::size_t header = Find(result.log, "service address:    tcp://localhost:5555\n");
    const std::size_t failed = Find(result.log, "Basecallers not initialised correctly.\n");
    const std::size_t abort = Find(result.log, kAbort);
    EXPECT_LT(header, failed);
    EXPECT_LT(failed, abort);
    EXPECT_EQ(result.log.find("Basecalling completed successfully."), std::string::npos);
    // Nothing of the output stage was made.
    EXPECT_FALSE(fs::exists(save() / "sequencing_summary.txt"));

    // A run with no callers at all ends the same way.
    fs::remove_all(save());
    const auto none = Run({"--quiet"}, kModel, "0");
    EXPECT_EQ(none.code, 255);
    EXPECT_LT(Find(none.log, "Basecallers not initialised correctly.\n"), Find(none.log, kAbort));
}

TEST_F(Basecaller1D2Test, ModelThatIsNoModelStopsTheRun) {
    WriteIndex(kIndexHeader);
    std::ofstream((dir / "notes.json").string()) << "{\"these\": [\"are\", \"notes\"]}\n";
    const auto result = Run({"--quiet"}, (dir / "notes.json").string());
    EXPECT_EQ(result.code, 255);
    const std::size_t error = Find(result.log, (dir / "notes.json").string());
    EXPECT_LT(error, Find(result.log, kAbort));
    EXPECT_EQ(result.log.find("Init time"), std::string::npos);

    fs::remove_all(save());
    const auto missing = Run({"--quiet"}, (dir / "nowhere.json").string());
    EXPECT_EQ(missing.code, 255);
    EXPECT_LT(Find(missing.log, (dir / "nowhere.json").string()), Find(missing.log, kAbort));
}

TEST_F(Basecaller1D2Test, IndexWithAMissingColumnStopsTheRun) {
    WriteIndex("filename\tread_id\trun_id\tchannel\tstart_time\tsequence_length_template\n"
               "a.rawh5\tr1\trun\t1\t0.0\t100\n");
    const auto result = Run({"--quiet"});
    EXPECT_EQ(result.code, 255);
    const std::string message =
        "Required column \"duration\" not found in 1d2 index file: " + (dir / "index.txt").string() + "\n";
    EXPECT_LT(Find(result.log, message), Find(result.log, kAbort));
    EXPECT_EQ(result.log.find("Init time"), std::string::npos);
}
