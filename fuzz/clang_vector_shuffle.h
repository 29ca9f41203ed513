#pragma once
// The fuzz build is the project's one clang build. The decoders' row kernels permute vector lanes
// with GCC's __builtin_shuffle, which clang lacks; this header, included ahead of every C++ file of
// that build only, stands in with a plain lane loop. It gives the same lanes (speed does not matter
// in a fuzzing build), and it goes away once the kernels pick clang's own permute themselves.

#if defined(__clang__) && defined(__cplusplus) && !__has_builtin(__builtin_shuffle)
template <typename V, typename M>
static inline V kvxFuzzVectorShuffle(V v, M mask) {
    constexpr unsigned lanes = sizeof(V) / sizeof(v[0]);
    V out = v;
    for (unsigned i = 0; i < lanes; ++i) {
        out[i] = v[static_cast<unsigned>(mask[i]) % lanes];
    }
    return out;
}
// Variadic, so that a braced mask such as v8si{0, 0, 1, 1, ...} passes as one argument.
#define __builtin_shuffle(v, ...) kvxFuzzVectorShuffle(v, __VA_ARGS__)
#endif
