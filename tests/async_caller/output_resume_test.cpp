#include <boost/filesystem.hpp>

#include "async_caller/output_resume.h"
#include "async_caller/summary_values.h"
#include "common/gzip_members.h"
#include "test_util.h"

namespace fs = boost::filesystem;
using TestSupport::Slurp;

namespace {

std::string Record(const std::string& id) { return "@" + id + " runid=x\nACGT\n+\n!!!!\n"; }

class OutputResumeTest : public testing::Test {
protected:
    OutputResumeTest() {
        // Summary rows for the pairs "a" and "b"; nothing else has finished.
        const auto& columns = AsyncCaller::PairSummaryColumns();
        std::ofstream summary((dir / "sequencing_summary.txt").string());
        for (const std::string id : {"", "a", "b"}) {
            for (std::size_t i = 0; i < columns.size(); ++i) {
                const std::string& c = columns[i];
                summary << (id.empty() ? c : c == "read_id1" ? id : c == "read_id2" ? id + "2" : "4")
                        << (i + 1 < columns.size() ? '\t' : '\n');
            }
        }
    }
    AsyncCaller::ResumeReport Repair(bool compressed) {
        return AsyncCaller::RepairOutputs(dir.string(), (dir / "sequencing_summary.txt").string(),
                                          AsyncCaller::PairSummaryColumns(), compressed);
    }
    const TestSupport::TempDir scratch;
    const fs::path dir = scratch.path;
};

}  // namespace

// A compressed file is cut back to its members whose records all have rows, kept byte for byte; a
// member that loses a record is compressed again from the rest; a cut member ends the file.
TEST_F(OutputResumeTest, CompressedFilesKeepTheMembersOfFinishedPairs) {
    Common::GzipMemberWriter gzip;
    const std::string a = gzip.Member(Record("a"));
    const std::string b = gzip.Member(Record("b"));
    const std::string c = gzip.Member(Record("c"));  // written, but its row never came
    const struct {
        const char* name;
        std::string bytes;
        std::uint64_t removed;
        bool kept_bytes;  // the result is the kept members' own bytes
    } cases[] = {
        {"whole", a + b, 0, true},
        {"record without its row", a + b + c, 1, true},
        {"cut member", a + b + c.substr(0, c.size() / 2), 1, true},
        {"row-less record inside", a + c + b, 1, true},
        {"member of two records", gzip.Member(Record("a") + Record("c")) + b, 1, false},
        {"cut record in a member", a + gzip.Member(Record("b") + "@c runid=x\nAC") + b, 1, false},
    };
    const fs::path file = dir / "fastq_runid_x_0.fastq.gz";
    for (const auto& test : cases) {
        std::ofstream(file.string(), std::ios::binary) << test.bytes;
        SCOPED_TRACE(test.name);
        const AsyncCaller::ResumeReport report = Repair(true);
        const std::string bytes = Slurp(file);
        const Common::GzipMembers members = Common::ReadGzipMembers(bytes);
        EXPECT_TRUE(members.complete);
        EXPECT_EQ(members.text, Record("a") + Record("b"));
        EXPECT_EQ(report.records_removed, test.removed);
        EXPECT_EQ(report.files_repaired, test.removed);
        EXPECT_TRUE(!test.kept_bytes || bytes == a + b);
        EXPECT_EQ(report.done.size(), 2u);
    }
}

// A resumed run writes the kind of FASTQ file the save path already holds, or is refused untouched.
TEST_F(OutputResumeTest, TheOtherKindOfFastqIsRefused) {
    const fs::path pass = dir / "pass";
    fs::create_directories(pass);
    for (const bool compressed : {true, false}) {
        const fs::path other = pass / (compressed ? "fastq_runid_x_0.fastq" : "fastq_runid_x_0.fastq.gz");
        const std::string text = Record("a") + "@cut";
        std::ofstream(other.string(), std::ios::binary) << text;
        EXPECT_EQ(TestSupport::ErrorOf([&] { Repair(compressed); }),
                  "The save path '" + dir.string() + "' holds " + (compressed ? "uncompressed" : "compressed") +
                      " FASTQ files of the run to resume. Resume it " + (compressed ? "without" : "with") +
                      " --compress_fastq, or choose another save path.");
        EXPECT_EQ(Slurp(other), text);
        // With the same kind, the file is taken up and repaired.
        EXPECT_NO_THROW(Repair(!compressed));
        fs::remove(other);
    }
}
