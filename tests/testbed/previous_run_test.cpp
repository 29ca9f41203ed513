#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "../common/test_support.h"
#include "previous_run.h"
#include "read_annotator.h"

using namespace TestBed;
using TestSupport::ReadText;

// Whatever a stop leaves (index and FASTQ cut at any byte, a row missing in the middle), the repair
// keeps exactly the reads with a whole row and a whole record, in their order, and nothing else.
TEST(PreviousRun, KeepsExactlyTheReadsWithRowAndRecord) {
    const TestSupport::TempDir dir;
    const std::size_t reads = 4;
    std::vector<std::string> rows, records;
    for (std::size_t i = 0; i < reads; ++i) {
        rows.push_back("f.rawh5\tr" + std::to_string(i));
        for (std::size_t c = 2; c < IndexColumns().size(); ++c) rows.back() += "\t" + std::to_string(i * c);
        rows.back() += "\n";
        const std::string bases(3 + i, "ACGT"[i]);
        records.push_back("@r" + std::to_string(i) + " runid=x\n" + bases + "\n+\n" + std::string(3 + i, '5') + "\n");
    }
    const std::string failedText = FailedReadsHeader() + "f.rawh5\tr9\tNo strand found\nbad.rawh5\t*\tCould not open\n";
    std::string fullFastq;
    for (const auto& record : records) fullFastq += record;
    // Cuts at every line's end and one byte before it: a whole line, or one cut short (the header, a
    // row, or any of a record's four lines).
    const auto cutsOf = [](const std::string& text) {
        std::set<std::size_t> cuts{0};
        for (auto at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
            cuts.insert({at, at + 1});
        }
        return cuts;
    };
    for (bool withoutRow1 : {false, true}) {
        std::string fullIndex = IndexHeader();
        std::vector<std::size_t> rowEnds{fullIndex.size()};
        for (std::size_t i = 0; i < reads; ++i) {
            fullIndex += withoutRow1 && i == 1 ? "" : rows[i];
            rowEnds.push_back(fullIndex.size());
        }
        for (std::size_t indexCut : cutsOf(fullIndex)) {
            for (std::size_t fastqCut : cutsOf(fullFastq)) {
                const std::string index = dir.File("index.tsv", fullIndex.substr(0, indexCut));
                const std::string fastq = dir.File("calls.fastq", fullFastq.substr(0, fastqCut));
                const std::string failed = dir.File("failed.tsv", failedText);
                const PreviousRun previous = RepairPreviousRun(index, fastq, failed);

                // The obvious reference: read i survives when its row and its record are whole.
                std::string expectIndex = indexCut >= IndexHeader().size() ? IndexHeader() : "";
                std::string expectFastq;
                std::set<std::string> expectDone{"r9"};
                std::size_t recordEnd = 0;
                for (std::size_t i = 0; i < reads; ++i) {
                    recordEnd += records[i].size();
                    if (!(withoutRow1 && i == 1) && rowEnds[i + 1] <= indexCut && recordEnd <= fastqCut) {
                        expectIndex += rows[i];
                        expectFastq += records[i];
                        expectDone.insert("r" + std::to_string(i));
                    }
                }
                const std::string where = "index cut " + std::to_string(indexCut) + ", FASTQ cut " +
                                          std::to_string(fastqCut) + (withoutRow1 ? ", no row 1" : "");
                ASSERT_EQ(ReadText(index), expectIndex) << where;
                ASSERT_EQ(ReadText(fastq), expectFastq) << where;
                ASSERT_EQ(previous.done_reads, expectDone) << where;
                ASSERT_EQ(previous.annotated, expectDone.size() - 1) << where;
                ASSERT_EQ(previous.failed_files, std::set<std::string>{"bad.rawh5"}) << where;
                ASSERT_EQ(ReadText(failed), failedText) << where;
            }
        }
    }

    // A damaged failed-reads file loses its cut line only; an index of another program is refused.
    const std::string failed = dir.File("failed.tsv", failedText + "f.rawh5\tr7\tNo str");
    RepairPreviousRun(dir.File("index.tsv", IndexHeader()), dir.File("calls.fastq", ""), failed);
    EXPECT_EQ(ReadText(failed), failedText);
    EXPECT_THROW(RepairPreviousRun(dir.File("index.tsv", "read_id\tfilename\n"), dir.File("calls.fastq", ""), failed),
                 std::runtime_error);
}
