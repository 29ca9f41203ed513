#pragma once
// Element-wise kernels of the layers, built once per instruction set (nn_kernels_base.cpp for the
// x86-64 baseline, nn_kernels_avx2.cpp for AVX2 with FMA) from one source, nn_kernels_impl.h. The
// exponential and the hyperbolic tangent are glibc's vector forms (libmvec), reached through the
// compiler's OpenMP SIMD support; there is no approximation of our own. Best() asks the processor
// once and hands out the best set; Available() lists every set this machine can run, so tests can
// compare them.

#include <cstddef>
#include <vector>

namespace BasecallNN {
namespace kernels {

struct KernelSet {
    const char* name;  // "default" or "avx2"
    // In-place activations over n floats.
    void (*tanh)(float* x, std::size_t n);
    void (*sigmoid)(float* x, std::size_t n);  // 1 / (1 + exp(-x))
    void (*relu)(float* x, std::size_t n);     // 0 for x < 0
    void (*elu)(float* x, std::size_t n);      // exp(x) - 1 for x < 0
    void (*expPlus)(float* x, std::size_t n, float eps);     // exp(x) + eps, the softmax numerator
    void (*scaledTanh)(float* x, std::size_t n, float scale);  // scale * tanh(x)
    // Element-wise arithmetic.
    void (*add)(float* a, const float* b, std::size_t n);                         // a += b
    void (*multiply)(float* a, const float* b, std::size_t n);                    // a *= b
    void (*addMultiply)(float* out, const float* a, const float* b, std::size_t n);  // out += a * b
    void (*product)(float* out, const float* a, const float* b, std::size_t n);   // out = a * b
    // h = z * (h - c) + c, the GRU state update.
    void (*interpolate)(float* h, const float* z, const float* c, std::size_t n);
};

// The baseline set; runs on every x86-64 processor.
const KernelSet& Baseline();
// The best set this processor supports, chosen on first use.
const KernelSet& Best();
// Every set this processor can run, baseline first.
std::vector<const KernelSet*> Available();

// The set the layers and helpers use: Best() unless Use() picked another. Use() exists so that
// tests and benchmarks can run whole layers on each set; it is not meant to be called while
// layers are running.
const KernelSet& Active();
void Use(const KernelSet& set);

}  // namespace kernels
}  // namespace BasecallNN
