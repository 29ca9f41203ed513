#pragma once
// One source for the kernels, included by exactly one translation unit per instruction
// set; the units differ only in their compiler flags. Everything here has internal linkage so that
// the linker can never swap an AVX2 body in for the baseline one.
//
// The loops are "#pragma omp simd" (built with -fopenmp-simd, no OpenMP run time): with expf and
// tanhf declared "omp declare simd", GCC calls glibc's vector forms (_ZGVbN4v_expf on the
// baseline, _ZGVdN8v_expf with AVX2) for whole blocks and the scalar function for the tail. We do
// not turn on -ffast-math for this, because it would also let the compiler reassociate our sums,
// and the library is built with -ffp-contract=off so that the AVX2 unit forms no fused
// multiply-adds: the arithmetic kernels give identical results in every build.

#include <cmath>
#include <cstddef>
#include <cstring>

#include "basecall_nn/nn_kernels.h"

extern "C" {
#pragma omp declare simd notinbranch
float expf(float) noexcept;
#pragma omp declare simd notinbranch
float tanhf(float) noexcept;
}

namespace {

void kTanh(float* x, std::size_t n) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = tanhf(x[i]);
    }
}

void kSigmoid(float* x, std::size_t n) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = 1.0f / (1.0f + expf(-x[i]));
    }
}

void kRelu(float* x, std::size_t n) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = x[i] < 0.0f ? 0.0f : x[i];
    }
}

void kElu(float* x, std::size_t n) {
    // GCC will not if-convert a select that sits in the same loop as a vector call, so the
    // exponentials go through a small block on the stack and the select runs as a loop of its own.
    constexpr std::size_t kBlock = 64;
    float e[kBlock];
    for (std::size_t base = 0; base < n; base += kBlock) {
        const std::size_t m = n - base < kBlock ? n - base : kBlock;
        float* xb = x + base;
#pragma omp simd
        for (std::size_t i = 0; i < m; ++i) {
            e[i] = expf(xb[i]) - 1.0f;
        }
#pragma omp simd
        for (std::size_t i = 0; i < m; ++i) {
            const float v = xb[i];
            const float ev = e[i];
            xb[i] = v < 0.0f ? ev : v;
        }
    }
}

void kExpPlus(float* x, std::size_t n, float eps) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = expf(x[i]) + eps;
    }
}

void kScaledTanh(float* x, std::size_t n, float scale) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        x[i] = scale * tanhf(x[i]);
    }
}

void kAdd(float* a, const float* b, std::size_t n) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        a[i] += b[i];
    }
}

void kMultiply(float* a, const float* b, std::size_t n) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        a[i] *= b[i];
    }
}

void kAddMultiply(float* out, const float* a, const float* b, std::size_t n) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        out[i] += a[i] * b[i];
    }
}

void kProduct(float* out, const float* a, const float* b, std::size_t n) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        out[i] = a[i] * b[i];
    }
}

void kInterpolate(float* h, const float* z, const float* c, std::size_t n) {
#pragma omp simd
    for (std::size_t i = 0; i < n; ++i) {
        h[i] = z[i] * (h[i] - c[i]) + c[i];
    }
}

// The matrix-vector product works on GCC's generic vectors as wide as the unit's instruction set
// allows; with -ffp-contract=off "acc += x * w" stays a rounded product and a rounded sum.
#if defined(__AVX512F__)
constexpr std::size_t kLanes = 16;
constexpr std::size_t kRegisters = 32;
#elif defined(__AVX__)
constexpr std::size_t kLanes = 8;
constexpr std::size_t kRegisters = 16;
#else
constexpr std::size_t kLanes = 4;
constexpr std::size_t kRegisters = 16;
#endif
typedef float Lanes __attribute__((vector_size(kLanes * sizeof(float))));

inline Lanes loadLanes(const float* p) {
    Lanes v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline void storeLanes(float* p, Lanes v) { std::memcpy(p, &v, sizeof v); }
// s in every lane: the scalar minus a vector of zeros is the scalar exactly, and compiles to a broadcast.
inline Lanes broadcast(float s) { return s - Lanes{}; }

// Columns [j, j + B * kLanes) of V vectors: B * V accumulators stay in registers through the rows.
template <std::size_t V, std::size_t B>
void matVecBlock(const float* W, std::size_t ldw, std::size_t k, std::size_t j, const float* const* x,
                 float* const* y, bool add) {
    Lanes acc[V][B];
#pragma GCC unroll 2
    for (std::size_t v = 0; v < V; ++v) {
#pragma GCC unroll 16
        for (std::size_t b = 0; b < B; ++b) {
            acc[v][b] = Lanes{};
        }
    }
    for (std::size_t i = 0; i < k; ++i) {
        const float* w = W + i * ldw + j;
        Lanes wv[B];
#pragma GCC unroll 16
        for (std::size_t b = 0; b < B; ++b) {
            wv[b] = loadLanes(w + b * kLanes);
        }
#pragma GCC unroll 2
        for (std::size_t v = 0; v < V; ++v) {
            const Lanes xv = broadcast(x[v][i]);
#pragma GCC unroll 16
            for (std::size_t b = 0; b < B; ++b) {
                acc[v][b] += xv * wv[b];
            }
        }
    }
#pragma GCC unroll 2
    for (std::size_t v = 0; v < V; ++v) {
#pragma GCC unroll 16
        for (std::size_t b = 0; b < B; ++b) {
            float* out = y[v] + j + b * kLanes;
            storeLanes(out, add ? loadLanes(out) + acc[v][b] : acc[v][b]);
        }
    }
}

// Whole vectors of columns from j on, `vectors` of them: blocks of B, then halves of B for the rest.
template <std::size_t V, std::size_t B>
std::size_t matVecColumns(const float* W, std::size_t ldw, std::size_t k, std::size_t j, std::size_t vectors,
                          const float* const* x, float* const* y, bool add) {
    for (; vectors >= B; vectors -= B, j += B * kLanes) {
        matVecBlock<V, B>(W, ldw, k, j, x, y, add);
    }
    if constexpr (B > 1) {
        return matVecColumns<V, B / 2>(W, ldw, k, j, vectors, x, y, add);
    }
    return j;
}

template <std::size_t V>
void matVecOf(const float* W, std::size_t ldw, std::size_t k, std::size_t n, const float* const* x,
              float* const* y, bool add) {
    // Three quarters of the registers hold accumulators: many independent sums hide the adds'
    // latency, and the rest is room for a product and the broadcast inputs (the weights are read
    // from memory by the multiplies). Widths of 12 and 6 vectors fit the gate vectors of the usual
    // layer sizes without a narrow, latency-bound remainder.
    constexpr std::size_t kBlock = kRegisters * 3 / 4 / V;
    const std::size_t j = matVecColumns<V, kBlock>(W, ldw, k, 0, n / kLanes, x, y, add);
    // Columns past the last whole vector, one at a time in the same order.
    for (std::size_t c = j; c < n; ++c) {
        for (std::size_t v = 0; v < V; ++v) {
            float acc = 0.0f;
            for (std::size_t i = 0; i < k; ++i) {
                acc += x[v][i] * W[i * ldw + c];
            }
            y[v][c] = add ? y[v][c] + acc : acc;
        }
    }
}

void kMatVec(const float* W, std::size_t ldw, std::size_t k, std::size_t n, const float* const* x, float* const* y,
             std::size_t count, bool add) {
    static_assert(BasecallNN::kernels::kMaxVectors == 2, "matVec has forms for one and two vectors");
    if (count == 2) {
        matVecOf<2>(W, ldw, k, n, x, y, add);
    } else if (count == 1) {
        matVecOf<1>(W, ldw, k, n, x, y, add);
    }
}

constexpr BasecallNN::kernels::KernelSet MakeKernelSet(const char* name) {
    return BasecallNN::kernels::KernelSet{name,        kTanh, kSigmoid,  kRelu,        kElu,     kExpPlus,
                                          kScaledTanh, kAdd,  kMultiply, kAddMultiply, kProduct, kInterpolate,
                                          kMatVec};
}

}  // namespace
