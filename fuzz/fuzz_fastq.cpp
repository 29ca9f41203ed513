// FASTQ text: the record reader and its title-line fields over a whole stream, and the text of a
// read's "Fastq" data set as the pair loader reads it (title, sequence line, the rest), with a
// "Move" array that agrees with the sequence line, so that the sequence reaches the label look-up.

#include <sstream>

#include "async_caller/file_data_handler_md.h"
#include "common/fastq_record.h"
#include "fuzz_support.h"

namespace {

void walkRecords(const std::string& text) {
    std::istringstream stream(text);
    Common::FastQIterable records(stream);
    for (records.begin(); !records.AtEnd(); records.Increment()) {
        fuzz::Check(records.Sequence().size() == records.Qstring().size(), "a valid record has a quality per base");
        records.GetReadId();
        records.GetRunId();
        records.ToString();
        records.AddHeaderField("fuzz", "1");
    }
}

// A move array for a 1D model of k-mers of length k that makes `bases` bases: the first block
// brings k bases (its move is 1 by convention) and each later move one more. Stays are sprinkled in.
std::vector<std::uint8_t> movesFor(std::size_t bases, std::size_t k) {
    std::vector<std::uint8_t> moves;
    if (bases < k) {
        return moves;
    }
    std::size_t remaining = bases - k;
    moves.push_back(1);
    for (std::size_t i = 1; remaining > 0; ++i) {
        const std::uint8_t move = i % 5 == 4 ? 0 : (i % 7 == 3 && remaining >= 2 ? 2 : 1);
        moves.push_back(move);
        remaining -= move;
    }
    return moves;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    fuzz::Try([&] { walkRecords(text); });

    const std::size_t first = text.find('\n');
    const std::size_t second = first == std::string::npos ? first : text.find('\n', first + 1);
    const std::size_t bases = second == std::string::npos ? 0 : second - first - 1;
    for (const std::size_t k : {1, 3, 5}) {
        const std::vector<std::uint8_t> moves = movesFor(bases, k);
        for (const bool secondStrand : {false, true}) {
            fuzz::Try([&] {
                std::vector<std::int32_t> labels;
                if (AsyncCaller::LabelsFromMoves(moves, text, secondStrand, labels)) {
                    fuzz::CheckLabels(labels, moves.size());
                }
            });
        }
    }
    return 0;
}
