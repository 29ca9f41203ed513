// Speed of the prior label aligner on read-sized label sequences (20,000 and 21,000 labels, band
// 1001), per kernel build, in cells per second. With libminimap2-dev installed the same binary times
// that library's banded global aligner (ksw_extz2_sse) over the same diagonal strip; its scores are
// 8-bit, so that comparison runs both aligners on a four-letter alphabet.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "decoders/fast_align.h"
#include "decoders/kernel_isa.h"

#ifdef KVX_HAVE_KSW2
#include <ksw2.h>
#endif

namespace {

using BasecallCommon::KernelIsa;

constexpr int kFirstLength = 20000;
constexpr int kSecondLength = 21000;
constexpr int kBand = 1001;

std::vector<int> randomLabels(int length, int alphabet, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> label(0, alphabet - 1);
    std::vector<int> out(length);
    for (auto& x : out) {
        x = label(rng);
    }
    return out;
}

// Log-probability-like integer scores of one label against another: high on the diagonal.
std::vector<int> labelMatrix(int alphabet) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> off(-700, -300);
    std::vector<int> m(alphabet * alphabet);
    for (int r = 0; r < alphabet; ++r) {
        for (int c = 0; c < alphabet; ++c) {
            m[r * alphabet + c] = r == c ? -20 : off(rng);
        }
    }
    return m;
}

// Match 2, mismatch -4, gap 4 per position: small enough for 8-bit lanes.
std::vector<int> smallAlphabetMatrix() {
    std::vector<int> m(16, -4);
    for (int k = 0; k < 4; ++k) {
        m[k * 5] = 2;
    }
    return m;
}

void runFastAlign(benchmark::State& state, int alphabet, const std::vector<int>& matrix, const std::vector<int>& gaps) {
    const auto isa = static_cast<KernelIsa>(state.range(0));
    if (!BasecallCommon::IsaSupported(isa)) {
        state.SkipWithError("kernel not supported on this processor");
        return;
    }
    const std::vector<int> first = randomLabels(kFirstLength, alphabet, 1);
    const std::vector<int> second = randomLabels(kSecondLength, alphabet, 2);
    PairAlignment::FastAlign aligner(Common::MatView<const int>(matrix.data(), alphabet, alphabet, alphabet, 1), gaps,
                                     kBand);
    aligner.SetKernel(isa);
    PairAlignment::AlignmentPath path;
    std::int64_t cells = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(aligner.Align(PairAlignment::Sequence(first.data(), first.size(), 1),
                                               PairAlignment::Sequence(second.data(), second.size(), 1), path));
        cells += aligner.LastCellCount();
    }
    state.SetLabel(BasecallCommon::IsaName(isa));
    state.counters["cells_per_s"] = benchmark::Counter(static_cast<double>(cells), benchmark::Counter::kIsRate);
    state.counters["cells"] = static_cast<double>(aligner.LastCellCount());
}

void BM_FastAlignLabels(benchmark::State& state) {
    runFastAlign(state, 64, labelMatrix(64), {300, 300, 500, 300, 300, 500});
}

void BM_FastAlignFourLetters(benchmark::State& state) {
    runFastAlign(state, 4, smallAlphabetMatrix(), {4, 4, 4, 4, 4, 4});
}

BENCHMARK(BM_FastAlignLabels)
    ->Arg(static_cast<int>(KernelIsa::Scalar))
    ->Arg(static_cast<int>(KernelIsa::Sse2))
    ->Arg(static_cast<int>(KernelIsa::Avx2))
    ->Arg(static_cast<int>(KernelIsa::Avx512))
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastAlignFourLetters)
    ->Arg(static_cast<int>(KernelIsa::Sse2))
    ->Arg(static_cast<int>(KernelIsa::Avx2))
    ->Arg(static_cast<int>(KernelIsa::Avx512))
    ->Unit(benchmark::kMillisecond);

#ifdef KVX_HAVE_KSW2
// Global alignment with path, linear gaps (opening 0, extension 4), generic 4 x 4 matrix. The
// anti-diagonal band of 1001 cells covers the diagonals i - j within about +-1000 of its centre
// line, so the strip here is w = 1000.
void BM_Ksw2Extz2SseFourLetters(benchmark::State& state) {
    const std::vector<int> firstInts = randomLabels(kFirstLength, 4, 1);
    const std::vector<int> secondInts = randomLabels(kSecondLength, 4, 2);
    const std::vector<std::uint8_t> first(firstInts.begin(), firstInts.end());
    const std::vector<std::uint8_t> second(secondInts.begin(), secondInts.end());
    const std::vector<int> matrix = smallAlphabetMatrix();
    const std::vector<std::int8_t> mat(matrix.begin(), matrix.end());
    const int w = kBand - 1;
    // Cells of the strip |i - j| <= w inside the matrix.
    std::int64_t stripCells = 0;
    for (int i = 0; i < kFirstLength; ++i) {
        stripCells += std::min(kSecondLength - 1, i + w) - std::max(0, i - w) + 1;
    }
    std::int64_t cells = 0;
    ksw_extz_t ez{};
    for (auto _ : state) {
        ksw_reset_extz(&ez);
        ksw_extz2_sse(nullptr, kFirstLength, first.data(), kSecondLength, second.data(), 4, mat.data(), 0, 4, w, -1,
                      0, KSW_EZ_GENERIC_SC, &ez);
        benchmark::DoNotOptimize(ez.score);
        cells += stripCells;
    }
    std::free(ez.cigar);
    state.counters["cells_per_s"] = benchmark::Counter(static_cast<double>(cells), benchmark::Counter::kIsRate);
    state.counters["cells"] = static_cast<double>(stripCells);
    state.counters["score"] = ez.score;
}
BENCHMARK(BM_Ksw2Extz2SseFourLetters)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
