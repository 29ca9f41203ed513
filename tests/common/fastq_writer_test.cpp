#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem.hpp>

#include "../async_caller/log_capture.h"
#include "common/fastq_record.h"
#include "common/fastq_writer.h"
#include "common/gzip_members.h"
#include "test_support.h"

namespace fs = boost::filesystem;
using Common::FastqWriter;
using Common::FastQRecord;
using TestSupport::ErrorOf;
using Ids = std::vector<std::string>;
using Names = std::set<std::string>;

namespace {

FastQRecord Record(const std::string& id, const std::string& run = "r1") {
    return FastQRecord("@" + id + " runid=" + run + " ch=7", "ACGT", "!!+5");
}

// Read ids of the records in a FASTQ file, in file order; checks that every record is well formed.
Ids ReadIds(const fs::path& file) {
    std::ifstream in(file.string());
    Ids ids;
    std::string title, seq, plus, qual;
    while (std::getline(in, title)) {
        EXPECT_TRUE(std::getline(in, seq) && std::getline(in, plus) && std::getline(in, qual)) << file;
        EXPECT_EQ(plus, "+");
        ids.push_back(FastQRecord(title, seq, qual).GetReadId());
    }
    return ids;
}

Names FileNames(const fs::path& dir) {
    Names names;
    if (!fs::exists(dir)) return names;
    for (fs::directory_iterator it(dir), end; it != end; ++it)
        if (fs::is_regular_file(it->path())) names.insert(it->path().filename().string());
    return names;
}

class FastqWriterTest : public testing::Test {
protected:
    TestSupport::TempDir temp;
    const fs::path& dir = temp.path;
    const std::string d = dir.string();
};

}  // namespace

TEST_F(FastqWriterTest, RollsOverAfterRecordsPerFileUnlessUnlimited) {
    {
        FastqWriter writer(d, 2, 1, false);
        EXPECT_EQ(writer.Folder(true, false), d);
        for (const char* id : {"a", "b", "c"}) writer.Write(0, Record(id), "r1", writer.Key(true, false), d);
        writer.Write(0, Record("d", "r2"), "r2", "00", d);  // another run numbers from 0
    }
    EXPECT_EQ(FileNames(dir), (Names{"fastq_runid_r1_0.fastq", "fastq_runid_r1_1.fastq", "fastq_runid_r2_0.fastq"}));
    EXPECT_EQ(ReadIds(dir / "fastq_runid_r1_0.fastq"), (Ids{"a", "b"}));
    // The file text is exactly the records' own text.
    EXPECT_EQ(TestSupport::ReadText((dir / "fastq_runid_r1_1.fastq").string()), Record("c").ToString());

    // No limit: one file however many records, and a writer that takes the files up again goes on
    // in that file, however full.
    const std::string one = (dir / "one").string();
    for (const int records : {50, 1}) {
        FastqWriter writer(one, 0, 1, false);
        if (records == 1) writer.ContinueExisting();
        for (int i = 0; i < records; ++i) writer.Write(0, Record("x" + std::to_string(i)), "r1", "00", writer.Folder(true, false));
    }
    EXPECT_EQ(FileNames(one), (Names{"fastq_runid_r1_0.fastq"}));
    EXPECT_EQ(ReadIds(one + "/fastq_runid_r1_0.fastq").size(), 51u);
}

TEST_F(FastqWriterTest, KeysAndFoldersFollowTheFilter) {
    FastqWriter filtering(d, 10, 2, true);
    FastqWriter plain((dir / "deep" / "er").string(), 10, 1, false);
    // Without the filter only calibration strands go apart.
    const struct {
        bool passed, calibration;
        const char *key, *folder, *plain_key, *plain_folder;
    } cases[] = {{true, false, "10", "pass", "00", ""}, {false, false, "00", "fail", "00", ""},
                 {false, true, "01", "calibration_strands", "01", "calibration_strands"},
                 {true, true, "11", "calibration_strands", "01", "calibration_strands"}};
    for (const auto& c : cases) {
        EXPECT_EQ(filtering.Key(c.passed, c.calibration), c.key);
        EXPECT_EQ(filtering.Folder(c.passed, c.calibration), (dir / c.folder).string());
        EXPECT_EQ(plain.Key(c.passed, c.calibration), c.plain_key);
        EXPECT_EQ(fs::path(plain.Folder(c.passed, c.calibration)), dir / "deep" / "er" / c.plain_folder);
    }
    EXPECT_TRUE(fs::is_directory(dir / "fail") && fs::is_directory(dir / "deep" / "er"));
    // Passed and failed reads of one run and worker are numbered apart, each from 0.
    filtering.Write(0, Record("p"), "r1", filtering.Key(true, false), filtering.Folder(true, false));
    filtering.Write(0, Record("f"), "r1", filtering.Key(false, false), filtering.Folder(false, false));
    // Finalize closes a worker's file complete on disk at once; that worker may write no more, others go on.
    filtering.Finalize(0);
    EXPECT_EQ(ReadIds(dir / "pass" / "fastq_runid_r1_0.fastq"), Ids{"p"});
    EXPECT_EQ(ReadIds(dir / "fail" / "fastq_runid_r1_0.fastq"), Ids{"f"});
    EXPECT_EQ(ErrorOf([&] { filtering.Write(0, Record("b"), "r1", "10", filtering.Folder(true, false)); }),
              "Attempted to write record after finalizing the writer.");
    filtering.Write(1, Record("c"), "r1", "10", filtering.Folder(true, false));
    EXPECT_THROW(filtering.Write(2, Record("d"), "r1", "00", d), std::out_of_range);
}

TEST_F(FastqWriterTest, LeftoverFileIsOverwrittenWithAWarning) {
    const fs::path old = dir / "fastq_runid_r1_0.fastq";
    std::ofstream(old.string()) << "stale text of an earlier run\n";
    TestSupport::LogCapture log;
    {
        FastqWriter writer(d, 4000, 1, false);
        writer.Write(0, Record("new"), "r1", "00", d);
        writer.Write(0, Record("new2"), "r1", "00", d);
    }
    EXPECT_EQ(log.Info(), Ids{"The output file '" + old.string() + "' will be overwitten."});
    EXPECT_EQ(ReadIds(old), (Ids{"new", "new2"}));
}

// Each file holds the reads of one worker only, in that worker's order, none is lost, and the files
// are numbered without gaps. In the sanitizer build this is also the writer's race check.
TEST_F(FastqWriterTest, ConcurrentWorkersNeverShareAFile) {
    constexpr int kWorkers = 4, kReads = 250;
    {
        FastqWriter writer(d, 7, kWorkers, false);
        std::vector<std::thread> threads;
        for (int w = 0; w < kWorkers; ++w) {
            threads.emplace_back([&writer, w, this] {
                for (int i = 0; i < kReads; ++i) writer.Write(w, Record(std::to_string(w) + "_" + std::to_string(i)), "r1", "00", d);
            });
        }
        for (auto& t : threads) t.join();
    }
    std::set<std::string> seen;
    const Names names = FileNames(dir);
    for (const std::string& name : names) {
        const Ids ids = ReadIds(dir / name);
        ASSERT_TRUE(!ids.empty() && ids.size() <= 7u) << name;
        for (std::size_t i = 0; i < ids.size(); ++i) {
            // The same worker, the next read.
            EXPECT_EQ(ids[i], ids[0].substr(0, 2) + std::to_string(std::stoi(ids[0].substr(2)) + i)) << name;
            seen.insert(ids[i]);
        }
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kWorkers * kReads));
    EXPECT_EQ(names.size(), static_cast<std::size_t>(kWorkers * 36));  // ceil(250 / 7) per worker
    for (std::size_t n = 0; n < names.size(); ++n) EXPECT_EQ(names.count(FastqWriter::FileName("r1", n)), 1u) << n;
}

// Compressed output is the plain output file for file, named ".fastq.gz", with one gzip member per
// record; a writer that takes the files up again goes on in the last one, as with plain files.
TEST_F(FastqWriterTest, CompressedFilesHoldThePlainRecords) {
    for (const bool compress : {false, true}) {
        const std::string root = (dir / (compress ? "gz" : "plain")).string();
        const std::vector<Ids> runs = {{"a", "b", "c", "d", "e", "f", "g"}, {"h", "i", "j"}};
        for (const Ids& ids : runs) {
            FastqWriter writer(root, 3, 2, true, compress);
            if (&ids != &runs[0]) writer.ContinueExisting();
            for (std::size_t i = 0; i < ids.size(); ++i) {
                const bool passes = i % 3 != 0;
                writer.Write(i % 2, Record(ids[i]), "r1", writer.Key(passes, false), writer.Folder(passes, false));
            }
        }
    }
    std::size_t records = 0;
    for (const char* sub : {"pass", "fail"}) {
        Names expected_names;
        for (const std::string& name : FileNames(dir / "plain" / sub)) {
            expected_names.insert(name + ".gz");
            const std::string plain = TestSupport::ReadText((dir / "plain" / sub / name).string());
            const auto members = Common::ReadGzipMembers(TestSupport::ReadText((dir / "gz" / sub / (name + ".gz")).string()));
            EXPECT_TRUE(members.complete) << name;
            EXPECT_EQ(members.text, plain) << name;
            EXPECT_EQ(members.member_ends.size(), ReadIds(dir / "plain" / sub / name).size()) << name;
            records += members.member_ends.size();
        }
        EXPECT_EQ(FileNames(dir / "gz" / sub), expected_names) << sub;
    }
    EXPECT_EQ(records, 10u);
}
