#pragma once
// One source for the element-wise kernels, included by exactly one translation unit per instruction
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

constexpr BasecallNN::kernels::KernelSet MakeKernelSet(const char* name) {
    return BasecallNN::kernels::KernelSet{name,     kTanh,         kSigmoid, kRelu,    kElu,        kExpPlus,
                                          kScaledTanh, kAdd,       kMultiply, kAddMultiply, kProduct, kInterpolate};
}

}  // namespace
