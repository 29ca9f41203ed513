// How each kind of run of the program ends: exit value, what is logged, the files left in the save path.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "run_program.h"

namespace fs = boost::filesystem;

namespace {

const std::string kModel = TestSupport::kDataPath + "/model_raw_r1_gru96x4.json";
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
    TestSupport::RunResult Run(const std::string& index, const std::vector<std::string>& args,
                               const std::string& model = kModel, const std::string& num_callers = "2") const {
        fs::remove_all(save());
        std::vector<std::string> all = {"-f", scratch.File("index.txt", index), "-i", (dir / "reads").string(), "-s",
                                        save().string(), "-m", model, "--score_matrix",
                                        (dir / "mismatch.txt").string(), "--num_callers", num_callers};
        all.insert(all.end(), args.begin(), args.end());
        auto result = TestSupport::RunProgram(all, dir);
        result.log = TestSupport::LogFile(save(), "marlo_basecaller_1d2");
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
                           "Caller time: \\d+ ms, Events: 0, kev/s: \\S+\n[\\s\\S]*Basecalling completed successfully.\n");
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
