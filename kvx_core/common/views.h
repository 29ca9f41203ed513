#pragma once
// Non-owning strided views over numeric memory owned elsewhere. Every numeric array that passes
// between the network, the decoders and the read holders is one of these; checks run when a view is
// made, never per element, so hot loops fetch the raw pointer once and walk it.

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "common/logger.h"

namespace Common {

namespace detail {
template <typename T>
struct TypeName {
    static const char* Get() { return typeid(T).name(); }
};
#define KVX_VIEW_TYPE_NAME(type)                           \
    template <>                                            \
    struct TypeName<type> {                                \
        static const char* Get() { return #type; }         \
    };
KVX_VIEW_TYPE_NAME(float)
KVX_VIEW_TYPE_NAME(double)
KVX_VIEW_TYPE_NAME(int)
KVX_VIEW_TYPE_NAME(unsigned int)
KVX_VIEW_TYPE_NAME(long)
KVX_VIEW_TYPE_NAME(unsigned long)
KVX_VIEW_TYPE_NAME(short)
KVX_VIEW_TYPE_NAME(unsigned short)
KVX_VIEW_TYPE_NAME(signed char)
KVX_VIEW_TYPE_NAME(unsigned char)
KVX_VIEW_TYPE_NAME(char)
#undef KVX_VIEW_TYPE_NAME

// Elements after "{": the first 100 and then "...; " and the last when there are 102 or more.
template <typename Get>
void PrintElements(std::ostream& os, std::size_t size, Get get) {
    const bool cut = size >= 102;
    const std::size_t shown = cut ? 100 : size;
    for (std::size_t i = 0; i < shown; ++i) {
        os << get(i);
        if (i + 1 < size) {
            os << "; ";
        }
    }
    if (cut) {
        os << "...; " << get(size - 1);
    }
    os << "}";
}
}  // namespace detail

template <typename T>
struct VecView {
    T* data = nullptr;
    std::uint64_t size = 0;
    std::int64_t stride = 1;

    VecView() = default;
    VecView(T* data_, std::uint64_t size_, std::int64_t stride_ = 1) : data(data_), size(size_), stride(stride_) {
        if (stride == 0) {
            throw std::runtime_error("Stride cannot be zero.");
        }
        if (data == nullptr && size > 0) {
            throw std::runtime_error("Cannot view nullptr with size > 0");
        }
    }
    template <typename A>
    explicit VecView(std::vector<T, A>& v) : VecView(v.data(), v.size(), 1) {}

    // A const view of mutable memory.
    template <typename U, typename = std::enable_if_t<std::is_same<const U, T>::value && !std::is_same<U, T>::value>>
    VecView(const VecView<U>& other) : data(other.data), size(other.size), stride(other.stride) {}

    T& operator[](std::uint64_t i) const { return data[static_cast<std::int64_t>(i) * stride]; }
    T& operator()(std::uint64_t i) const { return (*this)[i]; }
    bool empty() const { return size == 0; }

    VecView slice(std::uint64_t start, std::uint64_t count, std::int64_t step) const {
        if (step == 0) {
            throw std::runtime_error("Slice cannot have zero stride.");
        }
        bool out;
        if (step > 0) {
            // The whole product on purpose: a stride-2 slice of n needs 2n elements after its start.
            out = start + count * static_cast<std::uint64_t>(step) > size;
        } else {
            out = start >= size ||
                  static_cast<std::int64_t>(start) + (static_cast<std::int64_t>(count) - 1) * step < 0;
        }
        if (out) {
            throw std::runtime_error("Slice out of bounds.");
        }
        return VecView(data + stride * static_cast<std::int64_t>(start), count, step * stride);
    }
};

template <typename T>
struct MatView {
    T* data = nullptr;
    std::uint64_t rows = 0;
    std::uint64_t cols = 0;
    std::int64_t rowStride = 1;
    std::int64_t colStride = 1;

    MatView() = default;
    MatView(T* data_, std::uint64_t rows_, std::uint64_t cols_, std::int64_t rowStride_, std::int64_t colStride_ = 1)
        : data(data_), rows(rows_), cols(cols_), rowStride(rowStride_), colStride(colStride_) {
        if (rowStride == 0 || colStride == 0) {
            throw std::runtime_error("Strides (" + std::to_string(rowStride) + "," + std::to_string(colStride) +
                                     ") cannot be zero.");
        }
        if (data == nullptr && rows * cols > 0) {
            throw std::runtime_error("Cannot view nullptr with size > 0");
        }
    }

    template <typename U, typename = std::enable_if_t<std::is_same<const U, T>::value && !std::is_same<U, T>::value>>
    MatView(const MatView<U>& other)
        : data(other.data), rows(other.rows), cols(other.cols), rowStride(other.rowStride), colStride(other.colStride) {}

    T& operator()(std::uint64_t r, std::uint64_t c) const {
        return data[static_cast<std::int64_t>(r) * rowStride + static_cast<std::int64_t>(c) * colStride];
    }

    VecView<T> row(std::uint64_t i) const {
        if (i >= rows) {
            throw std::runtime_error("row index out of bounds.");
        }
        return VecView<T>(data + rowStride * static_cast<std::int64_t>(i), cols, colStride);
    }
    VecView<T> column(std::uint64_t j) const {
        if (j >= cols) {
            throw std::runtime_error("column index out of bounds.");
        }
        return VecView<T>(data + colStride * static_cast<std::int64_t>(j), rows, rowStride);
    }

    MatView submatrix(std::uint64_t rowStart, std::uint64_t colStart, std::uint64_t nRows, std::uint64_t nCols,
                      std::uint64_t rowStep = 1, std::uint64_t colStep = 1) const {
        const auto rStep = static_cast<std::int64_t>(rowStep);
        const auto cStep = static_cast<std::int64_t>(colStep);
        KVX_LOG(trace) << "From " << rows << " x " << cols << " matrix with stride " << "(" << rowStride << ","
                       << colStride << "), creating submatrix " << "with start (" << rowStart << "," << colStart
                       << "), size " << "(" << nRows << "," << nCols << "), and stride " << "(" << rowStep << ","
                       << colStep << ")";
        MatView sub(data + static_cast<std::int64_t>(rowStart) * rowStride +
                        static_cast<std::int64_t>(colStart) * colStride,
                    nRows, nCols, rowStride * rStep, colStride * cStep);
        const auto parent = sub.span(data, rows, cols, rowStride, colStride);
        const auto child = sub.span(sub.data, sub.rows, sub.cols, sub.rowStride, sub.colStride);
        // The bound is on memory, not on indices: a submatrix may run past a row's end while it stays
        // inside the parent's whole span.
        if (child.first < parent.first || child.second > parent.second) {
            std::ostringstream os;
            os << "MatView submatrix cannot access wider memory than parent matrix: full range is "
               << static_cast<const void*>(parent.first) << ".." << static_cast<const void*>(parent.second)
               << ", sub-range is " << static_cast<const void*>(child.first) << ".."
               << static_cast<const void*>(child.second);
            throw std::runtime_error(os.str());
        }
        return sub;
    }

private:
    // Lowest and highest element address of an r x c matrix at p.
    static std::pair<const T*, const T*> span(const T* p, std::uint64_t r, std::uint64_t c, std::int64_t rs,
                                              std::int64_t cs) {
        const T* lo = p;
        const T* hi = p;
        const auto extend = [&](std::uint64_t n, std::int64_t s) {
            if (n == 0) {
                return;
            }
            const std::int64_t extent = (static_cast<std::int64_t>(n) - 1) * s;
            (extent >= 0 ? hi : lo) += extent;
        };
        extend(r, rs);
        extend(c, cs);
        return {lo, hi};
    }
};

template <typename T>
std::ostream& operator<<(std::ostream& os, const VecView<T>& v) {
    os << "[type  " << detail::TypeName<std::remove_const_t<T>>::Get() << ", size " << v.size << ", stride "
       << v.stride << "] {";
    detail::PrintElements(os, v.size, [&](std::size_t i) { return v[i]; });
    return os;
}

template <typename T, typename A>
std::ostream& operator<<(std::ostream& os, const std::vector<T, A>& v) {
    if (v.capacity() == 0) {
        return os << VecView<const T>(v.data(), v.size(), 1);
    }
    os << "[size " << v.size() << ", capacity " << v.capacity() << "] {";
    detail::PrintElements(os, v.size(), [&](std::size_t i) { return v[i]; });
    return os;
}

template <typename T>
std::string ToString(const VecView<T>& v) {
    std::ostringstream os;
    os << v;
    return os.str();
}

}  // namespace Common
