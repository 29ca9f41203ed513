#pragma once
// Element-wise and matrix helpers on float views, used by the layers. Products go to CBLAS; the
// element-wise operations are the run-time dispatched kernels of nn_kernels.h. Every helper checks
// sizes first and strides second and throws std::runtime_error with a fixed text naming itself.
// Weight matrices are stored a row per input feature, a column per output feature.

#include "common/views.h"

namespace BasecallNN {
namespace detail {

// a[i] += b[i]
void elementAdd(const Common::VecView<float>& a, const Common::VecView<const float>& b);
// a[i] *= b[i]
void elementMultiply(const Common::VecView<float>& a, const Common::VecView<const float>& b);
// out[i] += a[i] * b[i], one pass
void elementAddMultiply(const Common::VecView<float>& out, const Common::VecView<const float>& a,
                        const Common::VecView<const float>& b);
// v /= sum of |v[i]|
void normalizeVector(const Common::VecView<float>& v);

// y = W^T x: x has W.rows entries, y has W.cols.
void matrixMultiply(const Common::VecView<float>& y, const Common::VecView<const float>& x,
                    const Common::MatView<const float>& W);
// y += W^T x
void matrixMultiplyAdd(const Common::VecView<float>& y, const Common::VecView<const float>& x,
                       const Common::MatView<const float>& W);
// Y = X W: X is rows by W.rows, Y is rows by W.cols; one product over all rows.
void matrixMultiply(const Common::MatView<const float>& X, const Common::MatView<const float>& W,
                    const Common::MatView<float>& Y);

// Each pipeline worker runs its own network, so the BLAS must not start threads of its own inside
// every call: with several workers that oversubscribes the cores and the library's idle threads
// spin. Called by every runner; the setting is process-wide and made once.
void useSingleThreadedBlas();

}  // namespace detail
}  // namespace BasecallNN
