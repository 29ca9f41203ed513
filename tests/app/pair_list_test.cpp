#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "common/logger.h"
#include "common/logger_group.h"
#include "pair_list.h"

namespace fs = boost::filesystem;
using AsyncCaller::ReadPair;
using Marlo::IndexRecord;
using Marlo::PairCandidate;

namespace {

class TempDir {
public:
    TempDir() : path(fs::temp_directory_path() / fs::unique_path("kvx-pairs-%%%%-%%%%")) { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
    std::string File(const std::string& name, const std::string& content = "") const {
        const auto file = (path / name).string();
        fs::create_directories(fs::path(file).parent_path());
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }
    fs::path path;
};

IndexRecord Read(const std::string& id, double start, double duration, std::uint64_t length,
                 const std::string& group = "run_1") {
    IndexRecord record;
    record.path = "/reads/" + id + ".rawh5";
    record.read_id = id;
    record.run_id = "run";
    record.channel = "1";
    record.group_key = group;
    record.start_time = start;
    record.end_time = start + duration;
    record.sequence_length = length;
    return record;
}

std::vector<std::string> Ids(const std::vector<ReadPair>& pairs) {
    std::vector<std::string> ids;
    for (const auto& pair : pairs) {
        ids.push_back(pair.read_id1 + "+" + pair.read_id2);
    }
    return ids;
}

std::vector<std::string> PairIds(std::vector<IndexRecord> reads, std::vector<PairCandidate>* candidates = nullptr) {
    std::map<std::string, std::vector<IndexRecord>> groups;
    for (auto& read : reads) {
        groups[read.group_key].push_back(read);
    }
    Marlo::PairCandidateObserver observer;
    if (candidates) {
        observer = [candidates](const PairCandidate& c) { candidates->push_back(c); };
    }
    return Ids(Marlo::PairGroups(groups, observer));
}

std::string ErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no error";
}

const char* kHeader = "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n";

}  // namespace

TEST(PairRule, GapAndLengthRatioBoundaries) {
    // Durations of 1 s; lengths 1000 and 800 differ by exactly 0.2 of the longer.
    EXPECT_EQ(PairIds({Read("a", 0, 1, 1000), Read("b", 1.5, 1, 900)}), std::vector<std::string>{});
    EXPECT_EQ(PairIds({Read("a", 0, 1, 1000), Read("b", 1.25, 1, 900)}), std::vector<std::string>{"a+b"});
    EXPECT_EQ(PairIds({Read("a", 0, 1, 1000), Read("b", 1.25, 1, 800)}), std::vector<std::string>{});
    EXPECT_EQ(PairIds({Read("a", 0, 1, 1000), Read("b", 1.25, 1, 801)}), std::vector<std::string>{"a+b"});
    EXPECT_EQ(PairIds({Read("a", 0, 1, 800), Read("b", 1.25, 1, 1000)}), std::vector<std::string>{});
    // Overlapping reads have a negative gap and qualify.
    EXPECT_EQ(PairIds({Read("a", 0, 3, 500), Read("b", 1, 1, 500)}), std::vector<std::string>{"a+b"});
    // Two empty reads give not-a-number and never pair; one empty read gives a ratio of 1.
    EXPECT_EQ(PairIds({Read("a", 0, 1, 0), Read("b", 1.1, 1, 0)}), std::vector<std::string>{});
    EXPECT_EQ(PairIds({Read("a", 0, 1, 0), Read("b", 1.1, 1, 10)}), std::vector<std::string>{});
    // A group of one read gives no candidate.
    std::vector<PairCandidate> candidates;
    EXPECT_EQ(PairIds({Read("a", 0, 1, 100)}, &candidates), std::vector<std::string>{});
    EXPECT_TRUE(candidates.empty());
}

TEST(PairRule, ConsecutiveReadsPairOnceAndAllCandidatesAreReported) {
    std::vector<PairCandidate> candidates;
    // Given out of order: the group is sorted by start time first.
    EXPECT_EQ(PairIds({Read("C", 2.2, 1, 1000), Read("A", 0, 1, 1000), Read("B", 1.1, 1, 500 * 2)}, &candidates),
              std::vector<std::string>{"A+B"});
    ASSERT_EQ(candidates.size(), 2u);
    EXPECT_DOUBLE_EQ(candidates[0].end_time, 1.0);
    EXPECT_NEAR(candidates[0].gap, 0.1, 1e-12);
    EXPECT_EQ(candidates[0].run_id, "run");
    EXPECT_DOUBLE_EQ(candidates[1].end_time, 2.1);  // B with C, reported although B was used up

    candidates.clear();
    EXPECT_EQ(PairIds({Read("A", 0, 1, 1000), Read("B", 1.1, 1, 400), Read("C", 2.2, 1, 480), Read("D", 3.3, 1, 450)},
                      &candidates),
              std::vector<std::string>{"B+C"});
    ASSERT_EQ(candidates.size(), 3u);
    EXPECT_FLOAT_EQ(candidates[0].length_ratio, 2.5f);  // earlier length / later length
    EXPECT_FLOAT_EQ(candidates[1].length_ratio, 400.0f / 480.0f);
    EXPECT_FLOAT_EQ(candidates[2].length_ratio, 480.0f / 450.0f);
}

TEST(PairRule, GroupsInByteOrderThenTime) {
    EXPECT_EQ(PairIds({Read("c2", 0, 1, 100, "run_2"), Read("d2", 1.1, 1, 100, "run_2"),
                       Read("a10", 5, 1, 100, "run_10"), Read("b10", 6.1, 1, 100, "run_10")}),
              (std::vector<std::string>{"a10+b10", "c2+d2"}));
}

TEST(PairList, ReadsIndexKeepsListedFilesAndLogsTheCount) {
    TempDir dir;
    dir.File("reads/r1.rawh5");
    dir.File("reads/r2.rawh5");
    dir.File("reads/r3.rawh5");
    dir.File("reads/r4.rawh5");
    dir.File("reads/r5.txt");
    dir.File("reads/sub/r6.rawh5");
    const auto index = dir.File(
        "index.txt",
        std::string("\xEF\xBB\xBF# 1D summary\r\n# second comment\r\n") +
            "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\textra\r\n"
            "r1.rawh5\tid1\trunA\t2\t10.0\t1.0\t1000\tx\r\n"
            "r2.rawh5\tid2\trunA\t2\t11.2\t1.0\t950\tx\r\n"
            "r3.rawh5\tid3\trunA\t10\t0.0\t2.0\t500\tx\r\n"
            "r4.rawh5\tid4\trunA\t10\t2.1\t1.0\t520\tx\r\n"
            "missing.rawh5\tidm\trunA\t2\t12.3\t1.0\t950\tx\r\n"
            "r5.txt\tid5\trunA\t2\t12.4\t1.0\t950\tx\r\n"
            "r6.rawh5\tid6\trunA\t2\t12.4\t1.0\t950\tx\r\n");
    const auto input = (dir.path / "reads").string();

    Common::logging::LoggerOptions options;
    options.Sink(Common::logging::Loggers::StdOut) = Common::logging::SinkOptions();
    options.Sink(Common::logging::Loggers::StdOut).severities = {Common::logging::attributes::SeverityLevel::message};
    options.Sink(Common::logging::Loggers::StdOut).enabled = true;
    testing::internal::CaptureStdout();
    std::vector<ReadPair> pairs;
    {
        Common::logging::LoggerGroup group(options);
        pairs = Marlo::GetFileList(index, input, false, nullptr);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Found 2 read pairs to process.\n");
    ASSERT_EQ(pairs.size(), 2u);
    // Channel "10" sorts before channel "2".
    EXPECT_EQ(pairs[0], (ReadPair{(fs::path(input) / "r3.rawh5").string(), (fs::path(input) / "r4.rawh5").string(),
                                  "id3", "id4"}));
    EXPECT_EQ(Ids(pairs), (std::vector<std::string>{"id3+id4", "id1+id2"}));

    // Recursively, r6 in the subdirectory is listed too: r1 and r2 still pair, and r2 with r6 is one
    // more candidate.
    std::vector<PairCandidate> candidates;
    const auto recursive = Marlo::FindReadPairs(index, input, true, [&](const PairCandidate& c) { candidates.push_back(c); });
    EXPECT_EQ(Ids(recursive), (std::vector<std::string>{"id3+id4", "id1+id2"}));
    EXPECT_EQ(candidates.size(), 3u);  // 3-4, 1-2, 2-6
}

TEST(PairList, FileNameColumnFallbackAndCellsCutAtBlanks) {
    TempDir dir;
    dir.File("in/a.rawh5");
    dir.File("in/b.rawh5");
    dir.File("in/c d.rawh5");
    const auto index = dir.File("index.txt",
                                "read_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\tfilename_rawh5\n"
                                "x\tr\t1\t0\t1\t100\ta.rawh5\n"
                                "y\tr\t1\t1.2\t1\t100\tb.rawh5\n"
                                "z\tr\t1\t2.4\t1\t100\tc d.rawh5\n");
    const auto pairs = Marlo::FindReadPairs(index, (dir.path / "in").string(), false, nullptr);
    EXPECT_EQ(Ids(pairs), std::vector<std::string>{"x+y"});
}

TEST(PairList, SameFileNameInTwoDirectoriesMapsToOneOfThem) {
    TempDir dir;
    dir.File("in/one/a.rawh5");
    dir.File("in/two/a.rawh5");
    dir.File("in/b.rawh5");
    const auto index = dir.File("index.txt", std::string(kHeader) + "a.rawh5\tx\tr\t1\t0\t1\t100\n"
                                                                    "a.rawh5\ty\tr\t1\t1.2\t1\t100\n");
    const auto pairs = Marlo::FindReadPairs(index, (dir.path / "in").string(), true, nullptr);
    ASSERT_EQ(pairs.size(), 1u);
    EXPECT_EQ(pairs[0].filename1, pairs[0].filename2);
    EXPECT_EQ(fs::path(pairs[0].filename1).filename().string(), "a.rawh5");
}

TEST(PairList, RequiredColumnMessages) {
    TempDir dir;
    dir.File("in/a.rawh5");
    const auto input = (dir.path / "in").string();
    const std::vector<std::string> required = {"read_id", "run_id", "channel", "start_time", "duration",
                                               "sequence_length_template"};
    for (std::size_t drop = 0; drop < required.size(); ++drop) {
        // Everything after the dropped column is missing too: the first missing one is named.
        std::string header = "filename";
        for (std::size_t i = 0; i < drop; ++i) {
            header += "\t" + required[i];
        }
        const auto index = dir.File("index.txt", header + "\n");
        EXPECT_EQ(ErrorOf([&] { Marlo::FindReadPairs(index, input, false, nullptr); }),
                  "Required column \"" + required[drop] + "\" not found in 1d2 index file: " + index);
    }
    const auto no_name = dir.File("noname.txt", "read_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n");
    EXPECT_EQ(ErrorOf([&] { Marlo::FindReadPairs(no_name, input, false, nullptr); }),
              "Required column \"filename\" or \"filename_rawh5\" not found in 1d2 index file: " + no_name);
    const auto bad_row = dir.File("badrow.txt", std::string("# c\n") + kHeader + "a.rawh5\tx\n");
    EXPECT_EQ(ErrorOf([&] { Marlo::FindReadPairs(bad_row, input, false, nullptr); }),
              "Error: Incomplete row in line 2: expecting 7 columns but got 2");
    EXPECT_EQ(ErrorOf([&] { Marlo::FindReadPairs((dir.path / "none.txt").string(), input, false, nullptr); }),
              "Error: Failed to open file \"" + (dir.path / "none.txt").string() + "\"");
    // A missing input directory stops the listing before the index is read.
    EXPECT_THROW(Marlo::FindReadPairs(bad_row, (dir.path / "absent").string(), false, nullptr), std::exception);
}
