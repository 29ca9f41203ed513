#include "decoders/hmm_caller.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "common/logger.h"
#include "decoders/state_moves.h"

namespace BasecallHMM {

CallerBase::~CallerBase() = default;

// ---- Caller<N> ----

namespace {
// Smallest normal float: a row summing below it has lost all information.
constexpr float kMinRowSum = 1.1754944e-38f;

void checkEmissions(const Common::EmissionBase<float>& emissions, int numStates) {
    if (emissions.cols != static_cast<std::uint64_t>(numStates)) {
        throw std::runtime_error("Unexpected size of posterior matrix.");
    }
}
}  // namespace

template <int N>
Caller<N>::Caller()
    : kernelSet(kernels::SelectKernels(N)),
      rowA(N),
      rowB(N),
      emRow(N),
      work(kernels::WorkspaceFloats(N)) {}

template <int N>
void Caller<N>::SetTrans(float stay, float step, float skip, float leak) {
    KVX_LOG(trace) << "BasecallHMM::Caller::SetTrans(" << stay << ", " << step << ", " << skip << ", " << leak
                   << ")";
    const float f = 1.0f / (stay + step + skip);
    pStay = stay * f;
    pStep = step * f * 0.25f;
    pSkip = skip * f * 0.0625f;
    pLeak = leak / N;
}

template <int N>
const float* Caller<N>::emissionRow(const Common::EmissionBase<float>& emissions, std::uint64_t e) {
    const float* row = emissions.data + static_cast<std::int64_t>(e) * emissions.rowStride;
    if (emissions.colStride == 1) {
        return row;
    }
    for (int s = 0; s < N; ++s) {
        emRow[s] = row[static_cast<std::int64_t>(s) * emissions.colStride];
    }
    return emRow.data();
}

template <int N>
bool Caller<N>::checkedScale(float* row, float sum) {
    if (!(sum >= kMinRowSum) || !std::isfinite(sum)) {
        return false;
    }
    kernelSet->scaleRow(N, row, 1.0f / sum);
    return true;
}

template <int N>
float Caller<N>::GetLogLikelihood() const {
    float total = 0.0f;
    for (float s : scales) {
        total += logf(s);
    }
    return total;
}

template <int N>
bool Caller<N>::decodeRows(const Common::EmissionBase<float>& emissions, std::vector<int>& path,
                           std::vector<signed char>* moves) {
    checkEmissions(emissions, N);
    const std::size_t n = emissions.rows;
    path.assign(n, 0);
    if (moves != nullptr) {
        moves->assign(n, 0);
    }
    scales.assign(n, 0.0f);
    if (n == 0) {
        return true;
    }
    codes.resize(n * N);
    leakSources.resize(n);
    const kernels::TransParams tp{pStay, pStep, pSkip, pLeak};

    std::fill(rowA.begin(), rowA.end(), kInvStates);
    float* prev = rowA.data();
    float* cur = rowB.data();
    for (std::size_t e = 0; e < n; ++e) {
        const float sum = kernelSet->decodeRow(N, prev, emissionRow(emissions, e), cur, codes.data() + e * N, tp,
                                               work.data(), &leakSources[e]);
        if (!checkedScale(cur, sum)) {
            return false;
        }
        scales[e] = sum;
        std::swap(prev, cur);
    }

    // The end of the path: the first largest entry of the last row.
    int s = 0;
    for (int t = 1; t < N; ++t) {
        if (prev[t] > prev[s]) {
            s = t;
        }
    }
    int k = 0;
    for (int m = N; m > 1; m /= 4) {
        ++k;
    }
    for (std::size_t e = n - 1; e > 0; --e) {
        path[e] = s;
        const std::uint8_t code = codes[e * N + static_cast<std::size_t>(s)];
        int from;
        int move;
        if (code == kernels::kCodeStay) {
            from = s;
            move = 0;
        } else if (code < kernels::kCodeSkipFirst) {
            from = (code - kernels::kCodeStepFirst) * kStepGroups + s / 4;
            move = 1;
        } else if (code < kernels::kCodeLeak) {
            from = (code - kernels::kCodeSkipFirst) * kSkipGroups + s / 16;
            move = 2;
        } else {
            from = leakSources[e];
            move = MoveBetweenStates(from, s, k);
        }
        if (moves != nullptr) {
            (*moves)[e] = static_cast<signed char>(move);
        }
        s = from;
    }
    path[0] = s;
    if (moves != nullptr) {
        (*moves)[0] = 1;
    }
    return true;
}

template <int N>
bool Caller<N>::Decode(const Common::EmissionBase<float>& emissions, std::vector<int>& path) {
    return decodeRows(emissions, path, nullptr);
}

template <int N>
bool Caller<N>::Decode(const Common::EmissionBase<float>& emissions, std::vector<int>& path,
                       std::vector<signed char>& moves) {
    return decodeRows(emissions, path, &moves);
}

template <int N>
bool Caller<N>::SimpleDecode(const Common::EmissionBase<float>& emissions, std::vector<int>& path) {
    return decodeRows(emissions, path, nullptr);
}

template <int N>
void Caller<N>::GetQualityData(const Common::MatView<float>& posteriors, Common::MatView<float>& data) {
    if (!qualityMatrix) {
        qualityMatrix = std::make_unique<QualityMatrix>(N);
    }
    qualityMatrix->Apply(posteriors, data);
}

template <int N>
void Caller<N>::TransitionExpectations(const Common::MatView<float>& posteriors, Common::MatView<float>& out) {
    if (posteriors.cols != static_cast<std::uint64_t>(N)) {
        throw std::runtime_error("Unexpected size of posterior matrix.");
    }
    if (out.rows != posteriors.rows || out.cols != 3) {
        throw std::runtime_error("Transition expectation matrix must have one row of 3 per event.");
    }
    groupSums.resize(kStepGroups + kSkipGroups);
    double* stepSum = groupSums.data();
    double* skipSum = stepSum + kStepGroups;
    for (std::uint64_t e = 0; e < posteriors.rows; ++e) {
        out(e, 0) = out(e, 1) = out(e, 2) = 0.0f;
        if (e == 0) {
            continue;
        }
        const auto a = posteriors.row(e - 1);
        const auto b = posteriors.row(e);
        std::fill(groupSums.begin(), groupSums.end(), 0.0);
        for (int p = 0; p < N; ++p) {
            stepSum[p % kStepGroups] += a[p];
            skipSum[p % kSkipGroups] += a[p];
        }
        // With the two events independent: the chance that they hold the same state, a state and one
        // of its step successors, a state and one of its skip successors.
        double stay = 0.0, step = 0.0, skip = 0.0;
        for (int s = 0; s < N; ++s) {
            stay += static_cast<double>(a[s]) * b[s];
            step += stepSum[s / 4] * b[s];
            skip += skipSum[s / 16] * b[s];
        }
        const double total = stay + step + skip;
        if (total > 0.0 && std::isfinite(total)) {
            out(e, 0) = static_cast<float>(stay / total);
            out(e, 1) = static_cast<float>(step / total);
            out(e, 2) = static_cast<float>(skip / total);
        }
    }
}

template class Caller<64>;
template class Caller<256>;
template class Caller<1024>;
template class Caller<4096>;
template class Caller<16384>;
template class Caller<65536>;
template class Caller<262144>;
template class Caller<1048576>;

std::unique_ptr<CallerBase> CreateCaller(int numStates) {
    switch (numStates) {
        case 64: return std::make_unique<Caller<64>>();
        case 256: return std::make_unique<Caller<256>>();
        case 1024: return std::make_unique<Caller<1024>>();
        case 4096: return std::make_unique<Caller<4096>>();
        case 16384: return std::make_unique<Caller<16384>>();
        case 65536: return std::make_unique<Caller<65536>>();
        case 262144: return std::make_unique<Caller<262144>>();
        case 1048576: return std::make_unique<Caller<1048576>>();
        default: throw std::runtime_error(Common::UnsupportedStatesMessage(numStates));
    }
}

}  // namespace BasecallHMM
