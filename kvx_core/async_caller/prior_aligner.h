#pragma once
// The prior alignment of a strand pair: the two 1D label sequences are aligned, the aligned stretch
// of each strand is kept, and the path becomes the prior map, the strand-2 sample position of every
// priorStep-th strand-1 sample. Strand 2's labels arrive reversed and complemented, so its positions
// count from the end of its signal.
//
// One aligner per caller worker; not thread-safe.

#include <cstdint>
#include <vector>

#include "common/views.h"
#include "decoders/fast_align.h"

namespace AsyncCaller {

class PriorAligner {
public:
    explicit PriorAligner(const PairAlignment::FastAlign& aligner_) : aligner(aligner_) {}
    // The aligner of a run: gap vector {E, E, G, E, E, G} with G = `gap_penalty` and E =
    // `start_end_penalty`, over the 64 x 64 label mismatch matrix.
    PriorAligner(const Common::MatView<const int>& score_matrix, int gap_penalty, int start_end_penalty, int band);

    // Aligns the labels (one per block of `stride` samples) and fills the stretches and the map.
    // False when the path has fewer than two aligned entries: there is no usable alignment.
    bool Compute(const std::vector<std::int32_t>& labels1, const std::vector<std::int32_t>& labels2,
                 std::uint64_t stride);

    PairAlignment::FastAlign aligner;
    std::uint64_t priorStep = 10;
    std::vector<std::uint64_t> priorSamples;
    std::uint64_t start1 = 0;  // aligned stretch of strand 1, in samples from its first labelled sample
    std::uint64_t length1 = 0;
    std::uint64_t start2 = 0;  // likewise for strand 2, in its own time order
    std::uint64_t length2 = 0;

private:
    PairAlignment::AlignmentPath path;
    std::vector<std::uint64_t> x, y;
};

}  // namespace AsyncCaller
