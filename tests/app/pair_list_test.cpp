#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "../common/test_support.h"
#include "pair_list.h"

namespace fs = boost::filesystem;
using AsyncCaller::ReadPair;
using Marlo::IndexRecord;
using Marlo::PairCandidate;
using TestSupport::ErrorOf;

namespace {

IndexRecord Read(const std::string& id, double start, double duration, std::uint64_t length,
                 const std::string& group = "run_1") {
    return {"/reads/" + id + ".rawh5", id, "run", "1", group, start, start + duration, length};
}

std::string Ids(const std::vector<ReadPair>& pairs) {
    std::string ids;
    for (const auto& pair : pairs) ids += (ids.empty() ? "" : " ") + pair.read_id1 + "+" + pair.read_id2;
    return ids;
}

std::string PairIds(std::vector<IndexRecord> reads, std::vector<PairCandidate>* candidates = nullptr) {
    std::map<std::string, std::vector<IndexRecord>> groups;
    for (auto& read : reads) groups[read.group_key].push_back(read);
    return Ids(Marlo::PairGroups(groups, [candidates](const PairCandidate& c) {
        if (candidates) candidates->push_back(c);
    }));
}

void Touch(const fs::path& dir, const std::vector<std::string>& names) {
    for (const auto& name : names) {
        fs::create_directories((dir / name).parent_path());
        std::ofstream((dir / name).string());
    }
}

const std::string kHeader = "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n";

}  // namespace

TEST(PairRule, BoundariesOrderAndCandidates) {
    const struct { std::vector<IndexRecord> reads; std::string pairs; } cases[] = {
        // Durations of 1 s; a gap of 0.5 s is too long; lengths 1000 and 800 differ by exactly 0.2.
        {{Read("a", 0, 1, 1000), Read("b", 1.5, 1, 900)}, ""},
        {{Read("a", 0, 1, 1000), Read("b", 1.25, 1, 900)}, "a+b"},
        {{Read("a", 0, 1, 1000), Read("b", 1.25, 1, 800)}, ""},
        {{Read("a", 0, 1, 1000), Read("b", 1.25, 1, 801)}, "a+b"},
        {{Read("a", 0, 1, 800), Read("b", 1.25, 1, 1000)}, ""},
        // Overlapping reads have a negative gap and qualify.
        {{Read("a", 0, 3, 500), Read("b", 1, 1, 500)}, "a+b"},
        // Two empty reads give not-a-number and never pair; one empty read gives a ratio of 1.
        {{Read("a", 0, 1, 0), Read("b", 1.1, 1, 0)}, ""},
        {{Read("a", 0, 1, 0), Read("b", 1.1, 1, 10)}, ""},
        // Groups in byte order ("run_10" before "run_2"), then by time.
        {{Read("c2", 0, 1, 100, "run_2"), Read("d2", 1.1, 1, 100, "run_2"), Read("a10", 5, 1, 100, "run_10"),
          Read("b10", 6.1, 1, 100, "run_10")},
         "a10+b10 c2+d2"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PairIds(c.reads), c.pairs) << c.reads.back().start_time << " " << c.reads.back().sequence_length;
    }
    // A group of one read gives no candidate; given out of order, the group is sorted by start time
    // first; every neighbouring pair is a candidate, also when one read of it is used up.
    std::vector<PairCandidate> candidates;
    EXPECT_EQ(PairIds({Read("a", 0, 1, 100)}, &candidates), "");
    EXPECT_TRUE(candidates.empty());
    EXPECT_EQ(PairIds({Read("C", 2.2, 1, 1000), Read("A", 0, 1, 1000), Read("B", 1.1, 1, 1000)}, &candidates), "A+B");
    ASSERT_EQ(candidates.size(), 2u);
    EXPECT_DOUBLE_EQ(candidates[0].end_time, 1.0);
    EXPECT_NEAR(candidates[0].gap, 0.1, 1e-12);
    EXPECT_EQ(candidates[0].run_id, "run");
    EXPECT_DOUBLE_EQ(candidates[1].end_time, 2.1);
    candidates.clear();
    EXPECT_EQ(PairIds({Read("A", 0, 1, 1000), Read("B", 1.1, 1, 400), Read("C", 2.2, 1, 480), Read("D", 3.3, 1, 450)},
                      &candidates),
              "B+C");
    ASSERT_EQ(candidates.size(), 3u);
    EXPECT_FLOAT_EQ(candidates[0].length_ratio, 2.5f);  // earlier length / later length
    EXPECT_FLOAT_EQ(candidates[2].length_ratio, 480.0f / 450.0f);
}

TEST(PairList, ReadsIndexKeepsListedFiles) {
    const TestSupport::TempDir dir;
    Touch(dir.path, {"reads/r1.rawh5", "reads/r2.rawh5", "reads/r3.rawh5", "reads/r4.rawh5", "reads/r5.txt",
                     "reads/sub/r6.rawh5", "reads/x.rawh5", "reads/y.rawh5", "reads/c d.rawh5", "reads/one/a.rawh5",
                     "reads/two/a.rawh5"});
    // A byte order mark, comments, CR line ends and an extra column; rows of files that are missing or
    // not read files are passed over; channel "10" sorts before channel "2".
    const auto index = dir.File(
        "index.txt",
        "\xEF\xBB\xBF# 1D summary\r\n# second comment\r\n"
        "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\textra\r\n"
        "r1.rawh5\tid1\trunA\t2\t10.0\t1.0\t1000\tx\r\nr2.rawh5\tid2\trunA\t2\t11.2\t1.0\t950\tx\r\n"
        "r3.rawh5\tid3\trunA\t10\t0.0\t2.0\t500\tx\r\nr4.rawh5\tid4\trunA\t10\t2.1\t1.0\t520\tx\r\n"
        "missing.rawh5\tidm\trunA\t2\t12.3\t1.0\t950\tx\r\nr5.txt\tid5\trunA\t2\t12.4\t1.0\t950\tx\r\n"
        "r6.rawh5\tid6\trunA\t2\t12.4\t1.0\t950\tx\r\n");
    const auto input = (dir.path / "reads").string();
    const auto pairs = Marlo::GetFileList(index, input, false, nullptr);
    ASSERT_EQ(Ids(pairs), "id3+id4 id1+id2");
    EXPECT_EQ(pairs[0], (ReadPair{(fs::path(input) / "r3.rawh5").string(), (fs::path(input) / "r4.rawh5").string(),
                                  "id3", "id4"}));
    // Recursively, r6 in the subdirectory is listed too: r2 with r6 is one more candidate only.
    std::vector<PairCandidate> candidates;
    const auto recursive = Marlo::FindReadPairs(index, input, true, [&](const PairCandidate& c) { candidates.push_back(c); });
    EXPECT_EQ(Ids(recursive), "id3+id4 id1+id2");
    EXPECT_EQ(candidates.size(), 3u);

    // The older file-name column; a cell is cut at its first blank, so "c d.rawh5" is not found.
    const auto older = dir.File("older.txt", "read_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\t"
                                             "filename_rawh5\nx\tr\t1\t0\t1\t100\tx.rawh5\ny\tr\t1\t1.2\t1\t100\ty.rawh5\n"
                                             "z\tr\t1\t2.4\t1\t100\tc d.rawh5\n");
    EXPECT_EQ(Ids(Marlo::FindReadPairs(older, input, false, nullptr)), "x+y");
    // One file name in two folders maps to one of them.
    const auto twice = dir.File("twice.txt", kHeader + "a.rawh5\tx\tr\t1\t0\t1\t100\na.rawh5\ty\tr\t1\t1.2\t1\t100\n");
    const auto same = Marlo::FindReadPairs(twice, input, true, nullptr);
    ASSERT_EQ(same.size(), 1u);
    EXPECT_EQ(same[0].filename1, same[0].filename2);
    EXPECT_EQ(fs::path(same[0].filename1).filename().string(), "a.rawh5");
}

TEST(PairList, BadIndexMessages) {
    const TestSupport::TempDir dir;
    Touch(dir.path, {"in/a.rawh5"});
    const auto input = (dir.path / "in").string();
    const auto missing = (dir.path / "none.txt").string();
    const struct { std::string index, message; } cases[] = {  // index: the file's text; empty: no file at all
        // The first missing required column is named (a missing "duration" is in the program's own tests).
        {"filename\n", "Required column \"read_id\" not found in 1d2 index file: "},
        {"read_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n",
         "Required column \"filename\" or \"filename_rawh5\" not found in 1d2 index file: "},
        {"# c\n" + kHeader + "a.rawh5\tx\n", "Error: Incomplete row in line 2: expecting 7 columns but got 2"},
        {"", "Error: Failed to open file \"" + missing + "\""},
    };
    for (const auto& c : cases) {
        const auto index = c.index.empty() ? missing : dir.File("index.txt", c.index);
        const auto error = ErrorOf([&] { Marlo::FindReadPairs(index, input, false, nullptr); });
        EXPECT_EQ(error, c.message + (c.message.back() == ' ' ? index : "")) << c.index;
    }
    // A missing input directory stops the listing before the index is read.
    const auto good = dir.File("good.txt", kHeader);
    EXPECT_NE(ErrorOf([&] { Marlo::FindReadPairs(good, (dir.path / "absent").string(), false, nullptr); }),
              "<no error>");
}
