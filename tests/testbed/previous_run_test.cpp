#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "../common/test_support.h"
#include "previous_run.h"
#include "read_annotator.h"

using namespace TestBed;
namespace fs = boost::filesystem;

namespace {

std::string Slurp(const std::string& path) { return TestSupport::ReadText(path); }
void Spit(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

}  // namespace

// Whatever a stop leaves (index and FASTQ cut at any byte, a row missing in the middle), the repair
// keeps exactly the reads with a whole row and a whole record, in their order, and nothing else.
TEST(PreviousRun, KeepsExactlyTheReadsWithRowAndRecord) {
    const TestSupport::TempDir temp;
    const fs::path& dir = temp.path;
    const std::string index = (dir / "index.tsv").string(), fastq = (dir / "calls.fastq").string(),
                      failed = (dir / "failed.tsv").string();
    const std::size_t reads = 4;
    std::vector<std::string> rows, records;
    for (std::size_t i = 0; i < reads; ++i) {
        const std::string id = "r" + std::to_string(i);
        std::string row = "f.rawh5\t" + id;
        for (std::size_t c = 2; c < IndexColumns().size(); ++c) {
            row += "\t" + std::to_string(i * c);
        }
        rows.push_back(row + "\n");
        const std::string bases(3 + i, "ACGT"[i]);
        records.push_back("@" + id + " runid=x\n" + bases + "\n+\n" + std::string(bases.size(), '5') + "\n");
    }
    const std::string failedText = FailedReadsHeader() + "f.rawh5\tr9\tNo strand found\nbad.rawh5\t*\tCould not open\n";

    for (bool withoutRow1 : {false, true}) {
        std::string fullIndex = IndexHeader();
        std::vector<std::size_t> rowEnds{fullIndex.size()};
        for (std::size_t i = 0; i < reads; ++i) {
            fullIndex += withoutRow1 && i == 1 ? "" : rows[i];
            rowEnds.push_back(fullIndex.size());
        }
        std::string fullFastq;
        for (const auto& record : records) {
            fullFastq += record;
        }
        // Cuts at every line's end and one byte before it: a whole line, or one cut short (the
        // header, a row, or any of a record's four lines).
        const auto cutsOf = [](const std::string& text) {
            std::set<std::size_t> cuts{0};
            for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
                cuts.insert(at);
                cuts.insert(at + 1);
            }
            return cuts;
        };
        for (std::size_t indexCut : cutsOf(fullIndex)) {
            for (std::size_t fastqCut : cutsOf(fullFastq)) {
                Spit(index, fullIndex.substr(0, indexCut));
                Spit(fastq, fullFastq.substr(0, fastqCut));
                Spit(failed, failedText);
                const PreviousRun previous = RepairPreviousRun(index, fastq, failed);

                // The obvious reference: read i survives when its row and its record are whole.
                std::string expectIndex = indexCut >= IndexHeader().size() ? IndexHeader() : "";
                std::string expectFastq;
                std::set<std::string> expectDone{"r9"};
                std::size_t recordEnd = 0;
                for (std::size_t i = 0; i < reads; ++i) {
                    recordEnd += records[i].size();
                    const bool rowWhole = !(withoutRow1 && i == 1) && rowEnds[i + 1] <= indexCut;
                    if (rowWhole && recordEnd <= fastqCut) {
                        expectIndex += rows[i];
                        expectFastq += records[i];
                        expectDone.insert("r" + std::to_string(i));
                    }
                }
                const std::string where = "index cut " + std::to_string(indexCut) + ", FASTQ cut " +
                                          std::to_string(fastqCut) + (withoutRow1 ? ", no row 1" : "");
                ASSERT_EQ(Slurp(index), expectIndex) << where;
                ASSERT_EQ(Slurp(fastq), expectFastq) << where;
                ASSERT_EQ(previous.done_reads, expectDone) << where;
                ASSERT_EQ(previous.annotated, expectDone.size() - 1) << where;
                ASSERT_EQ(previous.failed_files, std::set<std::string>{"bad.rawh5"}) << where;
                ASSERT_EQ(Slurp(failed), failedText) << where;
            }
        }
    }

    // A damaged failed-reads file loses its cut line only; an index of another program is refused.
    Spit(failed, failedText + "f.rawh5\tr7\tNo str");
    RepairPreviousRun(index, fastq, failed);
    EXPECT_EQ(Slurp(failed), failedText);
    Spit(index, "read_id\tfilename\n");
    EXPECT_THROW(RepairPreviousRun(index, fastq, failed), std::runtime_error);
}
