#include "decoders/sequence_builder.h"

#include <cmath>
#include <stdexcept>

namespace BasecallCommon {

namespace {

const char kAlphabet[] = "ACGT";

template <typename State>
void build(float qscoreOffset, float qscoreScale, const Common::MatView<const float>& qualityData,
           const Common::VecView<const State>& states, const Common::VecView<const signed char>& moves,
           std::string& sequence, std::string& quality) {
    sequence.clear();
    quality.clear();
    const std::size_t n = states.size;
    if (moves.size != n || qualityData.rows != n) {
        throw std::runtime_error("Sequence builder needs one state, one move and one quality data row per path "
                                 "entry, but got " + std::to_string(n) + " states, " + std::to_string(moves.size) +
                                 " moves and " + std::to_string(qualityData.rows) + " rows.");
    }
    if (n == 0) {
        return;
    }
    if (qualityData.cols == 0 || qualityData.cols % 4 != 0) {
        throw std::runtime_error("Quality data must have 4 columns per k-mer position, but has " +
                                 std::to_string(qualityData.cols) + ".");
    }
    const int k = static_cast<int>(qualityData.cols / 4);
    if (k > 16) {
        throw std::runtime_error("Quality data has more k-mer positions (" + std::to_string(k) +
                                 ") than a state can hold.");
    }

    std::size_t bases = static_cast<std::size_t>(k);
    for (std::size_t i = 1; i < n; ++i) {
        if (moves[i] < 0 || moves[i] > k) {
            throw std::runtime_error("Move " + std::to_string(moves[i]) + " of path entry " + std::to_string(i) +
                                     " is outside 0 .. " + std::to_string(k) + ".");
        }
        bases += static_cast<std::size_t>(moves[i]);
    }
    sequence.reserve(bases);
    quality.reserve(bases);
    std::vector<float> hit(bases, 0.0f);
    std::vector<float> total(bases, 0.0f);

    std::size_t count = 0;
    char kmer[32];
    for (std::size_t e = 0; e < n; ++e) {
        const int m = e == 0 ? k : moves[e];
        const std::size_t offset = e == 0 ? 0 : count + static_cast<std::size_t>(m) - static_cast<std::size_t>(k);
        const std::int64_t state = static_cast<std::int64_t>(states[e]);
        for (int p = 0; p < k; ++p) {
            // p = 0 is the oldest base of the k-mer, which is its highest digit.
            const int digit = k - 1 - p;
            const int d = static_cast<int>((state >> (2 * digit)) & 3);
            kmer[p] = kAlphabet[d];
            const std::uint64_t block = static_cast<std::uint64_t>(4 * digit);
            hit[offset + p] += qualityData(e, block + d);
            total[offset + p] += ((qualityData(e, block) + qualityData(e, block + 1)) + qualityData(e, block + 2)) +
                                 qualityData(e, block + 3);
        }
        for (int p = k - m; p < k; ++p) {
            sequence.push_back(kmer[p]);
        }
        count += static_cast<std::size_t>(m);
    }
    for (std::size_t b = 0; b < bases; ++b) {
        quality.push_back(QualityChar(hit[b] / total[b], qscoreOffset, qscoreScale));
    }
}

}  // namespace

char QualityChar(float p, float qscoreOffset, float qscoreScale) {
    float q = static_cast<float>(-10.0 * std::log10(1.0 - static_cast<double>(p)));
    q = q * qscoreScale + qscoreOffset;
    if (q <= 1.0f) {
        q = 1.0f;
    } else if (q >= 90.0f) {
        q = 90.0f;
    }
    return static_cast<char>(lroundf(q) + 33);
}

void BuildSequence(float qscoreOffset, float qscoreScale, const Common::MatView<const float>& qualityData,
                   const Common::VecView<const short>& states, const Common::VecView<const signed char>& moves,
                   std::string& sequence, std::string& quality) {
    build(qscoreOffset, qscoreScale, qualityData, states, moves, sequence, quality);
}

void BuildSequence(float qscoreOffset, float qscoreScale, const Common::MatView<const float>& qualityData,
                   const Common::VecView<const int>& states, const Common::VecView<const signed char>& moves,
                   std::string& sequence, std::string& quality) {
    build(qscoreOffset, qscoreScale, qualityData, states, moves, sequence, quality);
}

}  // namespace BasecallCommon
