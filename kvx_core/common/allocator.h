#pragma once
// Aligned allocator for the numeric buffers. Model parameters use 64-byte alignment, scratch and
// score buffers 32 bytes, so that rows padded to 8 floats start on an AVX boundary.

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

namespace Common {

template <typename T, std::size_t N>
class Allocator {
    static_assert(N >= alignof(void*) && (N & (N - 1)) == 0, "alignment must be a power of two");

public:
    using value_type = T;
    template <typename U>
    struct rebind {
        using other = Allocator<U, N>;
    };

    Allocator() noexcept = default;
    template <typename U>
    Allocator(const Allocator<U, N>&) noexcept {}

    T* allocate(std::size_t n) {
        const std::size_t bytes = ((n * sizeof(T) + N - 1) / N) * N;
        void* p = nullptr;
        if (bytes == 0 || n > static_cast<std::size_t>(-1) / sizeof(T) || posix_memalign(&p, N, bytes) != 0) {
            throw std::bad_alloc();
        }
        return static_cast<T*>(p);
    }
    void deallocate(T* p, std::size_t) noexcept { std::free(p); }

    template <typename U>
    bool operator==(const Allocator<U, N>&) const noexcept { return true; }
    template <typename U>
    bool operator!=(const Allocator<U, N>&) const noexcept { return false; }
};

template <typename T>
using AlignedVector32 = std::vector<T, Allocator<T, 32>>;
template <typename T>
using AlignedVector64 = std::vector<T, Allocator<T, 64>>;

// Row stride of a padded two-dimensional buffer: widths round up to whole 8-float groups so each row
// starts on a 32-byte boundary; a width of 1 (the raw signal column) stays unpadded.
inline std::size_t PaddedStride(std::size_t width) { return width == 1 ? 1 : ((width + 7) / 8) * 8; }

}  // namespace Common
