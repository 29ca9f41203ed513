#pragma once
// Per-k-mer level table of an event model: expected current level and spread of every k-mer. Only
// the event-model path reads it; the raw-signal pipeline does not.

#include <string>
#include <vector>

namespace Common {

class KmerTable {
public:
    // Arrays in row order, one entry per k-mer, k-mer 0 (all A) first.
    std::vector<float> level_mean;
    std::vector<float> level_stdv;
    std::vector<float> sd_mean;
    std::vector<float> sd_stdv;

    // Reads a tab-separated table with the columns "level_mean", "level_stdv", "sd_mean" and
    // "sd_stdv", one row per k-mer sorted by k-mer. The row count must be 4^kmerLength, else
    // "Invalid model length." is thrown. When the table also has a "kmer" column, each row is placed
    // by its k-mer (A=0, C=1, G=2, T=3, first base most significant), so that an unsorted file still
    // fills the arrays in k-mer order.
    void Read(const std::string& path, int kmerLength);

    std::size_t size() const { return level_mean.size(); }
};

}  // namespace Common
