#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_set>
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

namespace {

FastQRecord Record(const std::string& id, const std::string& run = "r1") {
    Common::FastQHeaderFields fields;
    fields.read_id = id;
    fields.run_id = run;
    fields.sample_id = "s";
    fields.start_time = "2026-01-01T00:00:00Z";
    fields.channel = 7;
    fields.read_number = 3;
    return FastQRecord(FastQRecord::MakeHeader(fields), "ACGT", "!!+5");
}

// Read ids of the records in a FASTQ file, in file order; checks that every record is well formed.
std::vector<std::string> ReadIds(const fs::path& file) {
    std::ifstream in(file.string());
    std::vector<std::string> ids;
    std::string title, seq, plus, qual;
    while (std::getline(in, title)) {
        EXPECT_TRUE(std::getline(in, seq) && std::getline(in, plus) && std::getline(in, qual)) << file;
        EXPECT_EQ(plus, "+");
        const FastQRecord record(title, seq, qual);
        ids.push_back(record.GetReadId());
    }
    return ids;
}

std::set<std::string> FileNames(const fs::path& dir) {
    std::set<std::string> names;
    if (fs::exists(dir)) {
        for (fs::directory_iterator it(dir), end; it != end; ++it) {
            if (fs::is_regular_file(it->path())) {
                names.insert(it->path().filename().string());
            }
        }
    }
    return names;
}

class FastqWriterTest : public testing::Test {
protected:
    TestSupport::TempDir temp;
    const fs::path& dir = temp.path;
};

}  // namespace

TEST_F(FastqWriterTest, RollsOverAfterRecordsPerFileUnlessUnlimited) {
    {
        FastqWriter writer(dir.string(), 2, 1, false);
        const std::string folder = writer.Folder(true, false);
        EXPECT_EQ(folder, dir.string());
        for (const char* id : {"a", "b", "c"}) {
            writer.Write(0, Record(id), "r1", writer.Key(true, false), folder);
        }
    }
    EXPECT_EQ(FileNames(dir), (std::set<std::string>{"fastq_runid_r1_0.fastq", "fastq_runid_r1_1.fastq"}));
    EXPECT_EQ(ReadIds(dir / "fastq_runid_r1_0.fastq"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(ReadIds(dir / "fastq_runid_r1_1.fastq"), (std::vector<std::string>{"c"}));
    // The file text is exactly the records' own text.
    const std::string text = TestSupport::ReadText((dir / "fastq_runid_r1_1.fastq").string());
    EXPECT_EQ(text, Record("c").ToString());
    EXPECT_EQ(text.rfind("@c runid=r1 sampleid=s read=3 ch=7 start_time=2026-01-01T00:00:00Z\n", 0), 0u);

    // No limit: one file however many records.
    const fs::path one = dir / "one";
    {
        FastqWriter writer(one.string(), 0, 1, false);
        const std::string folder = writer.Folder(true, false);
        for (int i = 0; i < 50; ++i) {
            writer.Write(0, Record("x" + std::to_string(i)), "r1", "00", folder);
        }
    }
    // A writer that takes the files up again goes on in that file, however full.
    {
        FastqWriter writer(one.string(), 0, 1, false);
        writer.ContinueExisting();
        writer.Write(0, Record("later"), "r1", "00", writer.Folder(true, false));
    }
    EXPECT_EQ(FileNames(one), (std::set<std::string>{"fastq_runid_r1_0.fastq"}));
    EXPECT_EQ(ReadIds(one / "fastq_runid_r1_0.fastq").size(), 51u);
}

TEST_F(FastqWriterTest, WorkersShareNumberingAndRunsHaveTheirOwn) {
    {
        FastqWriter writer(dir.string(), 2, 2, false);
        const std::string f = dir.string();
        writer.Write(0, Record("w0a"), "r1", "00", f);  // worker 0 takes r1 #0
        writer.Write(1, Record("w1a"), "r1", "00", f);  // worker 1 takes r1 #1
        writer.Write(0, Record("w0b"), "r1", "00", f);
        writer.Write(0, Record("w0c"), "r1", "00", f);  // worker 0 is full: r1 #2
        writer.Write(0, Record("w0d", "r2"), "r2", "00", f);  // another run numbers from 0
        writer.Write(1, Record("w1b"), "r1", "00", f);
    }
    EXPECT_EQ(FileNames(dir), (std::set<std::string>{"fastq_runid_r1_0.fastq", "fastq_runid_r1_1.fastq",
                                                     "fastq_runid_r1_2.fastq", "fastq_runid_r2_0.fastq"}));
    EXPECT_EQ(ReadIds(dir / "fastq_runid_r1_0.fastq"), (std::vector<std::string>{"w0a", "w0b"}));
    EXPECT_EQ(ReadIds(dir / "fastq_runid_r1_1.fastq"), (std::vector<std::string>{"w1a", "w1b"}));
    EXPECT_EQ(ReadIds(dir / "fastq_runid_r1_2.fastq"), (std::vector<std::string>{"w0c"}));
    EXPECT_EQ(ReadIds(dir / "fastq_runid_r2_0.fastq"), (std::vector<std::string>{"w0d"}));
}

TEST_F(FastqWriterTest, KeysAndFoldersFollowTheFilter) {
    FastqWriter filtering(dir.string(), 10, 1, true);
    EXPECT_EQ(filtering.Key(true, false), "10");
    EXPECT_EQ(filtering.Key(false, false), "00");
    EXPECT_EQ(filtering.Key(false, true), "01");
    EXPECT_EQ(filtering.Key(true, true), "11");
    EXPECT_EQ(filtering.Folder(true, false), (dir / "pass").string());
    EXPECT_EQ(filtering.Folder(false, false), (dir / "fail").string());
    EXPECT_EQ(filtering.Folder(true, true), (dir / "calibration_strands").string());
    EXPECT_TRUE(fs::is_directory(dir / "pass"));
    EXPECT_TRUE(fs::is_directory(dir / "fail"));

    FastqWriter plain((dir / "deep" / "er").string(), 10, 1, false);
    EXPECT_EQ(plain.Key(true, false), "00");
    EXPECT_EQ(plain.Folder(true, false), (dir / "deep" / "er").string());
    EXPECT_EQ(plain.Folder(false, false), (dir / "deep" / "er").string());
    EXPECT_TRUE(fs::is_directory(dir / "deep" / "er"));

    // Passed and failed reads of one run and worker are numbered apart, each from 0.
    filtering.Write(0, Record("p"), "r1", filtering.Key(true, false), filtering.Folder(true, false));
    filtering.Write(0, Record("f"), "r1", filtering.Key(false, false), filtering.Folder(false, false));
    filtering.Finalize(0);
    EXPECT_EQ(ReadIds(dir / "pass" / "fastq_runid_r1_0.fastq"), (std::vector<std::string>{"p"}));
    EXPECT_EQ(ReadIds(dir / "fail" / "fastq_runid_r1_0.fastq"), (std::vector<std::string>{"f"}));
}

TEST_F(FastqWriterTest, LeftoverFileIsOverwrittenWithAWarning) {
    const fs::path old = dir / "fastq_runid_r1_0.fastq";
    std::ofstream(old.string()) << "stale text of an earlier run\n";
    TestSupport::LogCapture log;
    {
        FastqWriter writer(dir.string(), 4000, 1, false);
        writer.Write(0, Record("new"), "r1", "00", dir.string());
        writer.Write(0, Record("new2"), "r1", "00", dir.string());
    }
    EXPECT_EQ(log.Info(), (std::vector<std::string>{"The output file '" + old.string() + "' will be overwitten."}));
    EXPECT_EQ(ReadIds(old), (std::vector<std::string>{"new", "new2"}));
}

TEST_F(FastqWriterTest, FinalizeEndsAWorkersWrites) {
    FastqWriter writer(dir.string(), 4000, 2, false);
    writer.Write(0, Record("a"), "r1", "00", dir.string());
    writer.Finalize(0);
    // The closed file is complete on disk at once.
    EXPECT_EQ(ReadIds(dir / "fastq_runid_r1_0.fastq"), (std::vector<std::string>{"a"}));
    try {
        writer.Write(0, Record("b"), "r1", "00", dir.string());
        FAIL() << "write after Finalize";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Attempted to write record after finalizing the writer.");
    }
    writer.Write(1, Record("c"), "r1", "00", dir.string());  // other workers go on
    EXPECT_THROW(writer.Write(2, Record("d"), "r1", "00", dir.string()), std::out_of_range);
}

TEST_F(FastqWriterTest, ConcurrentWorkersNeverShareAFile) {
    constexpr int kWorkers = 4;
    constexpr int kReads = 250;
    {
        FastqWriter writer(dir.string(), 7, kWorkers, false);
        std::vector<std::thread> threads;
        for (int w = 0; w < kWorkers; ++w) {
            threads.emplace_back([&writer, w, this] {
                for (int i = 0; i < kReads; ++i) {
                    const std::string id = "w" + std::to_string(w) + "_" + std::to_string(i);
                    writer.Write(w, Record(id), "r1", "00", dir.string());
                }
            });
        }
        for (auto& t : threads) {
            t.join();
        }
    }
    // Each file holds the reads of one worker only, in that worker's order, and none is lost.
    std::set<std::string> seen;
    std::size_t files = 0;
    for (const std::string& name : FileNames(dir)) {
        ++files;
        const auto ids = ReadIds(dir / name);
        ASSERT_FALSE(ids.empty());
        ASSERT_LE(ids.size(), 7u);
        const std::string worker = ids.front().substr(0, ids.front().find('_'));
        for (const auto& id : ids) {
            EXPECT_EQ(id.substr(0, id.find('_')), worker) << name;
            EXPECT_TRUE(seen.insert(id).second) << id;
        }
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kWorkers * kReads));
    // ceil(250 / 7) files per worker, numbered 0..n-1 without gaps.
    EXPECT_EQ(files, static_cast<std::size_t>(kWorkers * 36));
    for (std::size_t n = 0; n < files; ++n) {
        EXPECT_TRUE(fs::exists(dir / FastqWriter::FileName("r1", n))) << n;
    }
}

// Compressed output is the plain output file for file, named ".fastq.gz", with one gzip member per
// record; a writer that takes the files up again goes on in the last one, as with plain files.
TEST_F(FastqWriterTest, CompressedFilesHoldThePlainRecords) {
    const auto writeAll = [](const fs::path& root, bool compress, const std::vector<std::string>& ids,
                             bool take_up) {
        FastqWriter writer(root.string(), 3, 2, true, compress);
        if (take_up) {
            writer.ContinueExisting();
        }
        for (std::size_t i = 0; i < ids.size(); ++i) {
            const bool passes = i % 3 != 0;
            writer.Write(i % 2, Record(ids[i]), "r1", writer.Key(passes, false), writer.Folder(passes, false));
        }
    };
    const auto readAll = [](const fs::path& file) { return TestSupport::ReadText(file.string()); };
    for (const bool compress : {false, true}) {
        const fs::path root = dir / (compress ? "gz" : "plain");
        writeAll(root, compress, {"a", "b", "c", "d", "e", "f", "g"}, false);
        writeAll(root, compress, {"h", "i", "j"}, true);
    }
    std::size_t records = 0;
    for (const char* sub : {"pass", "fail"}) {
        std::set<std::string> expected_names;
        for (const std::string& name : FileNames(dir / "plain" / sub)) {
            expected_names.insert(name + ".gz");
            const std::string plain = readAll(dir / "plain" / sub / name);
            const Common::GzipMembers members = Common::ReadGzipMembers(readAll(dir / "gz" / sub / (name + ".gz")));
            EXPECT_TRUE(members.complete) << name;
            EXPECT_EQ(members.text, plain) << name;
            EXPECT_EQ(members.member_ends.size(), ReadIds(dir / "plain" / sub / name).size()) << name;
            records += members.member_ends.size();
        }
        EXPECT_EQ(FileNames(dir / "gz" / sub), expected_names) << sub;
    }
    EXPECT_EQ(records, 10u);
}

TEST_F(FastqWriterTest, ReadIdWhitelist) {
    const fs::path list = dir / "ids.txt";
    std::ofstream(list.string()) << "id-1\r\n\nid 2\nid-3\nid-1\n";
    std::unordered_set<std::string> ids;
    TestSupport::LogCapture log;
    Common::LoadReadIdWhitelist(list.string(), ids);
    EXPECT_EQ(ids, (std::unordered_set<std::string>{"id-1", "id-3"}));
    EXPECT_EQ(log.Messages(Common::logging::attributes::SeverityLevel::warning),
              (std::vector<std::string>{"read_id is invalid as it contains a space id 2"}));
    const std::string missing = (dir / "none.txt").string();
    try {
        Common::LoadReadIdWhitelist(missing, ids);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "Could not load readIdWhitelist file: '" + missing + "'");
    }
}
