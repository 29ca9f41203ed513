#include "decoders/quality_matrix.h"

#include <cblas.h>

#include <stdexcept>

#include "common/event_data.h"

namespace BasecallHMM {

QualityMatrix::QualityMatrix(std::int64_t numStates_) : numStates(numStates_), kmerLength(0) {
    if (numStates == 0) {
        return;
    }
    kmerLength = Common::KmerLengthFromStates(numStates);
    const std::int64_t cols = 4 * kmerLength;
    matrix.assign(static_cast<std::size_t>(numStates * cols), 0.0f);
    for (std::int64_t s = 0; s < numStates; ++s) {
        for (int p = 0; p < kmerLength; ++p) {
            const std::int64_t base = (s >> (2 * p)) & 3;
            matrix[static_cast<std::size_t>(s * cols + 4 * p + base)] = 1.0f;
        }
    }
}

Common::MatView<const float> QualityMatrix::View() const {
    const std::int64_t cols = 4 * kmerLength;
    return Common::MatView<const float>(matrix.data(), static_cast<std::uint64_t>(numStates),
                                        static_cast<std::uint64_t>(cols), cols == 0 ? 1 : cols, 1);
}

void QualityMatrix::Apply(const Common::MatView<float>& posteriors, Common::MatView<float>& data) const {
    const auto dense = [](const Common::MatView<float>& m) {
        return m.colStride == 1 && m.rowStride >= static_cast<std::int64_t>(m.cols);
    };
    if (!dense(posteriors)) {
        throw std::runtime_error("Posteriors must be dense and row-major for GetQualityData() function.");
    }
    if (!dense(data)) {
        throw std::runtime_error("Data must be dense and row-major for GetQualityData() function.");
    }
    const std::uint64_t cols = static_cast<std::uint64_t>(4 * kmerLength);
    if (posteriors.cols != static_cast<std::uint64_t>(numStates) || data.cols != cols ||
        posteriors.rows != data.rows) {
        throw std::runtime_error("Size mismatch in GetQualityData() function.");
    }
    if (posteriors.rows == 0 || cols == 0) {
        return;
    }
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, static_cast<int>(posteriors.rows),
                static_cast<int>(cols), static_cast<int>(numStates), 1.0f, posteriors.data,
                static_cast<int>(posteriors.rowStride), matrix.data(), static_cast<int>(cols), 0.0f, data.data,
                static_cast<int>(data.rowStride));
}

}  // namespace BasecallHMM
