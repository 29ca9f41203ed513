// One source of the Caller<N> row kernels, compiled once per instruction set. Include only from a
// translation unit that defines KVX_HMM_ISA (the namespace of that build) and then calls
// KVX_HMM_DEFINE_SETS; the only difference between the units is their compiler flags.
//
// The code uses GCC vector extensions in groups of 8 floats: with -mavx2 these are single AVX2
// instructions, in the baseline build pairs of SSE2 instructions. It keeps to the operations and the
// order of hmm_kernels_reference.cpp, so that every build gives the same bits.

#ifndef KVX_HMM_ISA
#error "define KVX_HMM_ISA before including hmm_kernels_impl.h"
#endif

#include <cstring>

#include "decoders/hmm_kernels.h"

// The 32-byte vector helpers below are always inlined and never cross a translation unit, so the
// baseline build's note that passing them by value would differ in ABI from an AVX build is moot.
#pragma GCC diagnostic ignored "-Wpsabi"
// GCC contracts a * b + c into one fused instruction whenever the target has FMA, which rounds once
// instead of twice; the builds must round alike, so no contraction here.
#pragma GCC optimize("fp-contract=off")

namespace BasecallHMM {
namespace kernels {
namespace KVX_HMM_ISA {

typedef float v8sf __attribute__((vector_size(32)));
typedef int v8si __attribute__((vector_size(32)));
typedef signed char v8qi __attribute__((vector_size(8)));

static inline __attribute__((always_inline)) v8sf loadf(const float* p) {
    v8sf v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
static inline __attribute__((always_inline)) void storef(float* p, v8sf v) { std::memcpy(p, &v, sizeof v); }
static inline __attribute__((always_inline)) v8si loadi(const int* p) {
    v8si v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
static inline __attribute__((always_inline)) void storei(int* p, v8si v) { std::memcpy(p, &v, sizeof v); }
static inline __attribute__((always_inline)) v8sf splatf(float x) { return v8sf{} + x; }
static inline __attribute__((always_inline)) v8si splati(int x) { return v8si{} + x; }

// The fixed row-sum order of all builds (see laneSum in the reference).
template <int N>
static inline float rowSum(const float* x) {
    v8sf acc = loadf(x);
    for (int s = 8; s < N; s += 8) {
        acc += loadf(x + s);
    }
    return ((acc[0] + acc[1]) + (acc[2] + acc[3])) + ((acc[4] + acc[5]) + (acc[6] + acc[7]));
}

// Lanes 2q, 2q, 2q, 2q, 2q + 1, ... of v: the value of step group u = s / 4 spread over the eight
// states s of the q-th block of 8 within a block of 32 states.
template <int Q>
static inline __attribute__((always_inline)) v8sf spread4(v8sf v) {
    return __builtin_shuffle(v, v8si{2 * Q, 2 * Q, 2 * Q, 2 * Q, 2 * Q + 1, 2 * Q + 1, 2 * Q + 1, 2 * Q + 1});
}
template <int Q>
static inline __attribute__((always_inline)) v8si spread4(v8si v) {
    return __builtin_shuffle(v, v8si{2 * Q, 2 * Q, 2 * Q, 2 * Q, 2 * Q + 1, 2 * Q + 1, 2 * Q + 1, 2 * Q + 1});
}

// ---------------------------------------------------------------------------------------------------------------
// Viterbi decode

template <int N>
float decodeRow(int, const float* prev, const float* em, float* cur, std::uint8_t* codes, const TransParams& tp,
                float* work, int* leakSource) {
    constexpr int Q = N / 4;
    constexpr int R = N / 16;
    float* stepMax = work;
    int* stepArg = reinterpret_cast<int*>(work + Q);
    float* skipMax = work + 2 * Q;
    int* skipArg = reinterpret_cast<int*>(work + 2 * Q + R + 8);

    // Best step predecessor of every step group, the first of equals kept.
    for (int u = 0; u < Q; u += 8) {
        v8sf best = loadf(prev + u);
        v8si arg = splati(0);
        for (int m = 1; m < 4; ++m) {
            const v8sf x = loadf(prev + m * Q + u);
            const v8si gt = x > best;
            best = gt ? x : best;
            arg = gt ? splati(m) : arg;
        }
        storef(stepMax + u, best);
        storei(stepArg + u, arg);
    }
    // Best skip predecessor of every skip group, in the order m = 0 .. 15.
    if constexpr (R % 8 == 0) {
        for (int v = 0; v < R; v += 8) {
            v8sf best = loadf(prev + v);
            v8si arg = splati(0);
            for (int m = 1; m < 16; ++m) {
                const v8sf x = loadf(prev + m * R + v);
                const v8si gt = x > best;
                best = gt ? x : best;
                arg = gt ? splati(m) : arg;
            }
            storef(skipMax + v, best);
            storei(skipArg + v, arg);
        }
    } else {
        for (int v = 0; v < R; ++v) {
            int arg = 0;
            for (int m = 1; m < 16; ++m) {
                if (prev[m * R + v] > prev[arg * R + v]) {
                    arg = m;
                }
            }
            skipMax[v] = prev[arg * R + v];
            skipArg[v] = arg;
        }
    }

    // The flat candidate: the first largest state of the previous row.
    const bool useLeak = tp.leak > 0.0f;
    int top = -1;
    float topValue = 0.0f;
    if (useLeak) {
        v8sf m8 = loadf(prev);
        for (int s = 8; s < N; s += 8) {
            const v8sf x = loadf(prev + s);
            m8 = x > m8 ? x : m8;
        }
        float m = m8[0];
        for (int l = 1; l < 8; ++l) {
            m = m8[l] > m ? m8[l] : m;
        }
        top = 0;
        while (prev[top] != m) {
            ++top;
        }
        topValue = tp.leak * m;
    }
    *leakSource = top;

    const v8sf stay = splatf(tp.stay), step = splatf(tp.step), skip = splatf(tp.skip), leak = splatf(topValue);
    const v8si stepCode = splati(kCodeStepFirst), skipCode = splati(kCodeSkipFirst), leakCode = splati(kCodeLeak);
    for (int i = 0; i < N; i += 32) {
        const v8sf steps = loadf(stepMax + i / 4);
        const v8si stepArgs = loadi(stepArg + i / 4);
        const v8sf sv[4] = {spread4<0>(steps), spread4<1>(steps), spread4<2>(steps), spread4<3>(steps)};
        const v8si sa[4] = {spread4<0>(stepArgs), spread4<1>(stepArgs), spread4<2>(stepArgs), spread4<3>(stepArgs)};
        const v8sf kv[2] = {splatf(skipMax[i / 16]), splatf(skipMax[i / 16 + 1])};
        const v8si ka[2] = {splati(skipArg[i / 16]), splati(skipArg[i / 16 + 1])};
        for (int q = 0; q < 4; ++q) {
            const int s = i + 8 * q;
            v8sf best = stay * loadf(prev + s);
            v8si code = splati(kCodeStay);
            const v8sf stepCand = step * sv[q];
            v8si gt = stepCand > best;
            best = gt ? stepCand : best;
            code = gt ? stepCode + sa[q] : code;
            const v8sf skipCand = skip * kv[q / 2];
            gt = skipCand > best;
            best = gt ? skipCand : best;
            code = gt ? skipCode + ka[q / 2] : code;
            if (useLeak) {
                gt = leak > best;
                best = gt ? leak : best;
                code = gt ? leakCode : code;
            }
            storef(cur + s, best * loadf(em + s));
            const v8qi narrow = __builtin_convertvector(code, v8qi);
            std::memcpy(codes + s, &narrow, sizeof narrow);
        }
    }
    return rowSum<N>(cur);
}

template <int N>
void scaleRow(int, float* x, float factor) {
    const v8sf f = splatf(factor);
    for (int s = 0; s < N; s += 8) {
        storef(x + s, loadf(x + s) * f);
    }
}

template <int N>
float sumRow(int, const float* x) {
    return rowSum<N>(x);
}

// ---------------------------------------------------------------------------------------------------------------
// Transducer search row

template <int N>
float transducerRow(int, const float* cur, const float* post, float stay, float* next, std::int32_t* trace,
                    float* work) {
    constexpr int Q = N / 4;
    constexpr int R = N / 16;
    float* stepValue = work;
    int* stepState = reinterpret_cast<int*>(work + Q);
    float* skipValue = work + 2 * Q;
    int* skipState = reinterpret_cast<int*>(work + 2 * Q + R + 8);

    const v8si lane = v8si{0, 1, 2, 3, 4, 5, 6, 7};
    for (int t = 0; t < Q; t += 8) {
        v8sf best = loadf(cur + t);
        v8si state = lane + t;
        for (int m = 1; m < 4; ++m) {
            const v8sf x = loadf(cur + t + m * Q);
            const v8si gt = x > best;
            best = gt ? x : best;
            state = gt ? lane + (t + m * Q) : state;
        }
        storef(stepValue + t, best);
        storei(stepState + t, state);
    }
    if constexpr (R % 8 == 0) {
        for (int u = 0; u < R; u += 8) {
            v8sf best = loadf(stepValue + u);
            v8si state = loadi(stepState + u);
            for (int m = 1; m < 4; ++m) {
                const v8sf x = loadf(stepValue + u + m * R);
                const v8si gt = x > best;
                best = gt ? x : best;
                state = gt ? loadi(stepState + u + m * R) : state;
            }
            storef(skipValue + u, best);
            storei(skipState + u, state);
        }
    } else {
        for (int u = 0; u < R; ++u) {
            int best = u;
            for (int m = 1; m < 4; ++m) {
                if (stepValue[u + m * R] > stepValue[best]) {
                    best = u + m * R;
                }
            }
            skipValue[u] = stepValue[best];
            skipState[u] = stepState[best];
        }
    }

    const v8sf stayV = splatf(stay);
    const v8si none = splati(-1);
    for (int i = 0; i < N; i += 32) {
        const v8sf steps = loadf(stepValue + i / 4);
        const v8si stepSt = loadi(stepState + i / 4);
        const v8sf sv[4] = {spread4<0>(steps), spread4<1>(steps), spread4<2>(steps), spread4<3>(steps)};
        const v8si ss[4] = {spread4<0>(stepSt), spread4<1>(stepSt), spread4<2>(stepSt), spread4<3>(stepSt)};
        const v8sf kv[2] = {splatf(skipValue[i / 16]), splatf(skipValue[i / 16 + 1])};
        const v8si ks[2] = {splati(skipState[i / 16]), splati(skipState[i / 16 + 1])};
        for (int q = 0; q < 4; ++q) {
            const int s = i + 8 * q;
            const v8si fromSkip = sv[q] < kv[q / 2];
            const v8sf source = fromSkip ? kv[q / 2] : sv[q];
            const v8si sourceState = fromSkip ? ks[q / 2] : ss[q];
            const v8sf arrive = source * loadf(post + s);
            const v8sf keep = loadf(cur + s) * stayV;
            const v8si gt = arrive > keep;
            storef(next + s, gt ? arrive : keep);
            storei(trace + s, gt ? sourceState : none);
        }
    }
    return rowSum<N>(next);
}

template <int N>
const KernelSet* kernelSet(const char* name) {
    static const KernelSet set = {name, decodeRow<N>, scaleRow<N>, sumRow<N>, transducerRow<N>};
    return &set;
}

// The kernel set of this build for a state count, or null.
inline const KernelSet* Sets(int numStates, const char* name) {
    switch (numStates) {
        case 64: return kernelSet<64>(name);
        case 256: return kernelSet<256>(name);
        case 1024: return kernelSet<1024>(name);
        case 4096: return kernelSet<4096>(name);
        case 16384: return kernelSet<16384>(name);
        case 65536: return kernelSet<65536>(name);
        case 262144: return kernelSet<262144>(name);
        case 1048576: return kernelSet<1048576>(name);
        default: return nullptr;
    }
}

}  // namespace KVX_HMM_ISA
}  // namespace kernels
}  // namespace BasecallHMM
