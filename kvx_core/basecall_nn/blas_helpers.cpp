#include "basecall_nn/blas_helpers.h"

#include <cblas.h>

#include <mutex>
#include <stdexcept>

#include "basecall_nn/nn_kernels.h"

namespace BasecallNN {
namespace detail {

namespace {
const kernels::KernelSet& K() { return kernels::Active(); }

// Leading dimension for CBLAS: a single row may carry any stride, but CBLAS still checks it.
template <typename V>
blasint leading(const V& m) {
    if (m.rows <= 1 && m.rowStride < static_cast<std::int64_t>(m.cols)) {
        return static_cast<blasint>(m.cols == 0 ? 1 : m.cols);
    }
    return static_cast<blasint>(m.rowStride);
}

[[noreturn]] void sizeMismatch(const char* function) {
    throw std::runtime_error(std::string("Size mismatch error in ") + function + "() function.");
}
[[noreturn]] void nonUnitStride(const char* function) {
    throw std::runtime_error(std::string("Non-unit stride used in ") + function + "() function.");
}

// y = W^T x + beta * y. CBLAS reads W row-major, so its columns must be adjacent.
void gemv(const char* function, float beta, const Common::VecView<float>& y, const Common::VecView<const float>& x,
          const Common::MatView<const float>& W) {
    if (y.size != W.cols || x.size != W.rows) {
        sizeMismatch(function);
    }
    if (y.stride != 1 || x.stride != 1 || W.colStride != 1) {
        nonUnitStride(function);
    }
    if (W.cols == 0) {
        return;
    }
    if (W.rows == 0) {
        // An empty sum: y = beta * y.
        for (std::uint64_t i = 0; i < y.size; ++i) {
            y.data[i] *= beta;
        }
        return;
    }
    cblas_sgemv(CblasRowMajor, CblasTrans, static_cast<blasint>(W.rows), static_cast<blasint>(W.cols), 1.0f,
                W.data, leading(W), x.data, 1, beta, y.data, 1);
}
}  // namespace

void elementAdd(const Common::VecView<float>& a, const Common::VecView<const float>& b) {
    if (a.size != b.size) {
        sizeMismatch("elementAdd");
    }
    if (a.stride != 1 || b.stride != 1) {
        nonUnitStride("elementAdd");
    }
    K().add(a.data, b.data, a.size);
}

void elementMultiply(const Common::VecView<float>& a, const Common::VecView<const float>& b) {
    if (a.size != b.size) {
        sizeMismatch("elementMultiply");
    }
    if (a.stride != 1 || b.stride != 1) {
        nonUnitStride("elementMultiply");
    }
    K().multiply(a.data, b.data, a.size);
}

void elementAddMultiply(const Common::VecView<float>& out, const Common::VecView<const float>& a,
                        const Common::VecView<const float>& b) {
    if (out.size != a.size || out.size != b.size) {
        sizeMismatch("elementAddMultiply");
    }
    if (out.stride != 1 || a.stride != 1 || b.stride != 1) {
        nonUnitStride("elementAddMultiply");
    }
    K().addMultiply(out.data, a.data, b.data, out.size);
}

void normalizeVector(const Common::VecView<float>& v) {
    if (v.stride != 1) {
        nonUnitStride("normalizeVector");
    }
    if (v.size == 0) {
        return;
    }
    const auto n = static_cast<blasint>(v.size);
    const float sum = cblas_sasum(n, v.data, 1);
    cblas_sscal(n, 1.0f / sum, v.data, 1);
}

void matrixMultiply(const Common::VecView<float>& y, const Common::VecView<const float>& x,
                    const Common::MatView<const float>& W) {
    gemv("matrixMultiply", 0.0f, y, x, W);
}

void matrixMultiplyAdd(const Common::VecView<float>& y, const Common::VecView<const float>& x,
                       const Common::MatView<const float>& W) {
    gemv("matrixMultiplyAdd", 1.0f, y, x, W);
}

void matrixMultiply(const Common::MatView<const float>& X, const Common::MatView<const float>& W,
                    const Common::MatView<float>& Y) {
    if (Y.rows != X.rows || Y.cols != W.cols || X.cols != W.rows) {
        sizeMismatch("matrixMultiply");
    }
    if (X.colStride != 1 || W.colStride != 1 || Y.colStride != 1) {
        nonUnitStride("matrixMultiply");
    }
    if (Y.rows == 0 || Y.cols == 0) {
        return;
    }
    if (W.rows == 0) {
        for (std::uint64_t r = 0; r < Y.rows; ++r) {
            for (std::uint64_t c = 0; c < Y.cols; ++c) {
                Y(r, c) = 0.0f;
            }
        }
        return;
    }
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, static_cast<blasint>(X.rows),
                static_cast<blasint>(W.cols), static_cast<blasint>(W.rows), 1.0f, X.data,
                leading(X), W.data, leading(W), 0.0f, Y.data, leading(Y));
}

void useSingleThreadedBlas() {
    static std::once_flag once;
    std::call_once(once, [] { openblas_set_num_threads(1); });
}

}  // namespace detail
}  // namespace BasecallNN
