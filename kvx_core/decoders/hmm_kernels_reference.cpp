// Scalar statement of the row kernels: what every vector build must reproduce bit for bit. Written
// for clarity, with the state count as a run-time value.

#include <vector>

#include "decoders/hmm_kernels.h"

namespace BasecallHMM {
namespace kernels {

namespace {

// The row sum order shared by all builds: lane l adds x[l], x[l + 8], ... in turn, then the eight
// lanes meet in a fixed tree.
float laneSum(int n, const float* x) {
    float lane[8];
    for (int l = 0; l < 8; ++l) {
        lane[l] = x[l];
    }
    for (int s = 8; s < n; ++s) {
        lane[s % 8] += x[s];
    }
    return ((lane[0] + lane[1]) + (lane[2] + lane[3])) + ((lane[4] + lane[5]) + (lane[6] + lane[7]));
}

float decodeRow(int n, const float* prev, const float* em, float* cur, std::uint8_t* codes, const TransParams& tp,
                float*, int* leakSource) {
    const int q = n / 4;
    const int r = n / 16;
    int top = -1;
    float topValue = 0.0f;
    if (tp.leak > 0.0f) {
        top = 0;
        for (int s = 1; s < n; ++s) {
            if (prev[s] > prev[top]) {
                top = s;
            }
        }
        topValue = tp.leak * prev[top];
    }
    *leakSource = top;
    for (int s = 0; s < n; ++s) {
        float best = tp.stay * prev[s];
        std::uint8_t code = kCodeStay;
        // The best step and skip predecessors first (first largest wins), then the candidates.
        int stepM = 0;
        for (int m = 1; m < 4; ++m) {
            if (prev[m * q + s / 4] > prev[stepM * q + s / 4]) {
                stepM = m;
            }
        }
        int skipM = 0;
        for (int m = 1; m < 16; ++m) {
            if (prev[m * r + s / 16] > prev[skipM * r + s / 16]) {
                skipM = m;
            }
        }
        const float step = tp.step * prev[stepM * q + s / 4];
        if (step > best) {
            best = step;
            code = static_cast<std::uint8_t>(kCodeStepFirst + stepM);
        }
        const float skip = tp.skip * prev[skipM * r + s / 16];
        if (skip > best) {
            best = skip;
            code = static_cast<std::uint8_t>(kCodeSkipFirst + skipM);
        }
        if (top >= 0 && topValue > best) {
            best = topValue;
            code = kCodeLeak;
        }
        cur[s] = best * em[s];
        codes[s] = code;
    }
    return laneSum(n, cur);
}

void scaleRow(int n, float* x, float factor) {
    for (int s = 0; s < n; ++s) {
        x[s] *= factor;
    }
}

float sumRow(int n, const float* x) { return laneSum(n, x); }

float transducerRow(int n, const float* cur, const float* post, float stay, float* next, std::int32_t* trace,
                    float*) {
    const int q = n / 4;
    const int r = n / 16;
    std::vector<float> stepValue(q), skipValue(r);
    std::vector<int> stepState(q), skipState(r);
    for (int t = 0; t < q; ++t) {
        stepState[t] = t;
        for (int m = 1; m < 4; ++m) {
            if (cur[t + m * q] > cur[stepState[t]]) {
                stepState[t] = t + m * q;
            }
        }
        stepValue[t] = cur[stepState[t]];
    }
    for (int u = 0; u < r; ++u) {
        int best = u;
        for (int m = 1; m < 4; ++m) {
            if (stepValue[u + m * r] > stepValue[best]) {
                best = u + m * r;
            }
        }
        skipValue[u] = stepValue[best];
        skipState[u] = stepState[best];
    }
    for (int s = 0; s < n; ++s) {
        const int t = s / 4;
        const int u = s / 16;
        const bool fromSkip = stepValue[t] < skipValue[u];
        const float source = fromSkip ? skipValue[u] : stepValue[t];
        const float arrive = source * post[s];
        const float keep = cur[s] * stay;
        if (arrive > keep) {
            next[s] = arrive;
            trace[s] = fromSkip ? skipState[u] : stepState[t];
        } else {
            next[s] = keep;
            trace[s] = -1;
        }
    }
    return laneSum(n, next);
}

const KernelSet kReference = {"reference", decodeRow, scaleRow, sumRow, transducerRow};

}  // namespace

const KernelSet* ReferenceKernels(int numStates) {
    return numStates >= 64 && numStates % 64 == 0 ? &kReference : nullptr;
}

}  // namespace kernels
}  // namespace BasecallHMM
