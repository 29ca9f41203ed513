#pragma once
// Element-wise kernels of the layers and the recurrent layers' matrix-vector product, built once per
// instruction set (nn_kernels_base.cpp for the x86-64 baseline, nn_kernels_avx2.cpp for AVX2 with FMA,
// nn_kernels_avx512.cpp for AVX-512 F, BW and VL) from one source, nn_kernels_impl.h. The
// exponential and the hyperbolic tangent are glibc's vector forms (libmvec), reached through the
// compiler's OpenMP SIMD support; there is no approximation of our own. Best() asks the processor
// once and hands out the best set; Available() lists every set this machine can run, so tests can
// compare them.

#include <cstddef>
#include <vector>

namespace BasecallNN {
namespace kernels {

struct KernelSet {
    const char* name;  // "default", "avx2" or "avx512"
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
    // y[v] = W^T x[v], or y[v] += W^T x[v] when add is set, for each of count (1 to kMaxVectors)
    // vectors: W has k rows of n floats, ldw floats apart; x[v] has k entries, y[v] n. Every output is
    // summed over the rows of W in order, from zero, each product rounded before it is added (and the
    // sum then added to y[v] in add mode), so a vector's result is the same in every set and whether
    // it is multiplied alone or beside another: the recurrent layers step two strands at once with it
    // and must give what they give for each strand alone.
    void (*matVec)(const float* W, std::size_t ldw, std::size_t k, std::size_t n, const float* const* x,
                   float* const* y, std::size_t count, bool add);
};

// Most vectors one matVec call takes.
constexpr std::size_t kMaxVectors = 2;

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
