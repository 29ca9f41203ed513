// The mismatch table of the prior alignment, loaded the way set-up loads it and then used once, by
// the prior alignment of two label sequences, the way every pair uses it.

#include "async_caller/prior_aligner.h"
#include "decoders/mismatch_table.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string path = fuzz::WriteScratchFile("mismatch_table.txt", data, size);
    fuzz::Try([&] {
        const PairAlignment::MismatchMatrix matrix = PairAlignment::LoadMismatchMatrix(path);
        fuzz::Check(matrix.values.size() == 64 * 64, "a loaded table has 4096 scores");

        // Two label sequences that differ by a few edits, so that matches, mismatches and both kinds
        // of gap all take scores from the table. Penalties and band are the defaults of the options.
        std::vector<std::int32_t> first, second;
        for (int i = 0; i < 120; ++i) {
            const int label = (i * 37 + 11) % 64;
            first.push_back(label);
            if (i % 17 == 5) {
                continue;
            }
            second.push_back(i % 23 == 7 ? (label + 21) % 64 : label);
            if (i % 29 == 3) {
                second.push_back((label * 5) % 64);
            }
        }
        AsyncCaller::PriorAligner aligner(matrix.View(), 500, 300, 1000);
        if (aligner.Compute(first, second, 10)) {
            fuzz::Check(aligner.start1 + aligner.length1 <= first.size() * 10 &&
                            aligner.start2 + aligner.length2 <= second.size() * 10,
                        "the aligned stretches lie inside the labelled signal");
        }
    });
    return 0;
}
