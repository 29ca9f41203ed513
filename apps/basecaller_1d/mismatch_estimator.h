#pragma once
// Estimates the label mismatch table of the prior aligner from single-strand calls of true pairs.
//
// Each block of a 1D call carries one 3-mer label (the pair run's labels: A=0 .. T=3, first base
// most significant; strand 2 reversed and complemented into strand-1 order). The simulator's truth
// says which bases had arrived by the end of every block, so each block's label can be placed on the
// molecule: the position of the first base of the 3-mer it should show. Blocks of strand 1 and of
// strand 2 at the same molecule position are what the prior alignment should match. For every such
// position, each strand-1 block with label a spreads a weight of 1 over the strand-2 labels b found
// there (weight 1 / count of strand-2 blocks at the position each).
//
// The table is conditional: row a is the distribution of the strand-2 label given strand-1 label a,
// after adding a pseudocount to every cell, so each row sums to 1 and no entry is 0. (A joint table
// would put every entry near 1/4096, and a match would cost about as much as a gap.)

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace TestBed {

class MismatchCounts {
public:
    static constexpr int kLabels = 64;

    MismatchCounts();

    // Adds one true pair. labels1/labels2: one label per block, as the pair run reads them (strand 2
    // already reversed and complemented). positions1/positions2: the molecule position of each block's
    // label, -1 where unknown (such blocks are left out). Sizes must match their labels.
    void AddPair(const std::vector<std::int32_t>& labels1, const std::vector<std::int64_t>& positions1,
                 const std::vector<std::int32_t>& labels2, const std::vector<std::int64_t>& positions2);

    // Row-major 64 x 64: entry 64 a + b is P(strand-2 label b | strand-1 label a), with `pseudocount`
    // added to every cell's weight before each row is normalised.
    std::vector<double> ConditionalTable(double pseudocount) const;

    double Weight(int a, int b) const { return weights[static_cast<std::size_t>(a * kLabels + b)]; }
    double TotalWeight() const;
    std::uint64_t Pairs() const { return pairs; }

private:
    std::vector<double> weights;
    std::uint64_t pairs = 0;
};

// Writes the table in the prior aligner's format: a header "prob", then 4096 values, one per line.
void WriteMismatchTable(std::ostream& out, const std::vector<double>& table);

// Molecule positions of the blocks of one strand. base_starts: the sample (from the start of the
// read) at which each base of the strand arrives; first_sample, stride, blocks: the call's blocks.
// The label of a block is the central 3-mer of the model's k-mer ending at the last base arrived by
// the block's last sample; its first base is at strand position j - k + 1 + (k == 5 ? 1 : 0). For
// strand 2 (second_strand), of molecule length m, that 3-mer starts on the molecule at
// m - 3 - position, and the block order is reversed, as the pair run reverses strand 2's labels.
// Blocks before the k-mer is complete are -1.
std::vector<std::int64_t> BlockPositions(const std::vector<std::uint64_t>& base_starts, std::uint64_t first_sample,
                                         std::uint64_t stride, std::size_t blocks, int k, bool second_strand);

struct TruthEstimate {
    MismatchCounts counts;
    std::vector<std::string> skipped;  // one message per true pair that could not be used
};

// Counts over the true pairs of a simulated data set (truth_dir: truth_pairs.tsv and
// base_starts.tsv.gz of the read simulator) whose reads the single-strand step has annotated; the
// index (filename, read_id) says where each read is under input_path. Labels are read with the pair
// run's own loader. A pair that cannot be used is listed and left out.
TruthEstimate EstimateFromTruth(const std::string& truth_dir, const std::string& index_path,
                                const std::string& input_path);

}  // namespace TestBed
