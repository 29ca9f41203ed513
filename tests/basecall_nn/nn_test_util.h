#pragma once
// Helpers shared by the network runtime tests: padded matrices, a layer runner that drives layers as
// the runtime does, and fixture files.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "basecall_nn/cblas_layers.h"
#include "common/allocator.h"
#include "common/views.h"

#include "../common/test_support.h"

namespace nn_test {

template <typename F>
std::string ErrorOf(F&& f) {
    return TestSupport::ErrorOf(std::forward<F>(f), "(no exception)");
}

// A float matrix with rows padded as the runtime pads them (width 1 stays unpadded).
struct Matrix {
    Matrix() = default;
    Matrix(std::size_t rows_, std::size_t cols_, float fill = 0.0f)
        : rows(rows_), cols(cols_), stride(Common::PaddedStride(cols_)),
          data(std::max<std::size_t>(1, rows_ * stride), fill) {}
    Common::MatView<float> view() {
        return Common::MatView<float>(data.data(), rows, cols, static_cast<std::int64_t>(stride), 1);
    }
    float& operator()(std::size_t r, std::size_t c) { return data[r * stride + c]; }
    float operator()(std::size_t r, std::size_t c) const { return data[r * stride + c]; }
    std::size_t rows = 0, cols = 0, stride = 1;
    Common::AlignedVector32<float> data;
};

// Runs layers one after the other into fresh buffers whose padding, like the scratch, is NaN, so a
// layer that reads padding or unwritten scratch shows it.
template <typename Layers>
Matrix RunLayers(const Layers& layers, Matrix cur) {
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    for (const auto& layer : layers) {
        const int rows = static_cast<int>(cur.rows);
        Matrix out(std::size_t(layer->OutputRows(rows)), std::size_t(layer->outSize), nan);
        Common::AlignedVector32<float> scratch(static_cast<std::size_t>(layer->ScratchSize(rows)) + 1, nan);
        Common::MatView<float> outView = out.view();
        layer->Process(cur.view(), outView, scratch.data());
        cur = std::move(out);
    }
    return cur;
}

// A model file in the temporary directory, removed again when the object goes.
class TempFile {
public:
    explicit TempFile(const std::string& text) {
        char name[] = "/tmp/kvx_nn_model_XXXXXX";
        const int fd = mkstemp(name);
        if (fd < 0) throw std::runtime_error("mkstemp failed");
        close(fd);
        path = name;
        std::ofstream(path) << text;
    }
    ~TempFile() { std::remove(path.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    std::string path;
};

inline std::string DataPath(const std::string& name) {
    return std::string(KVX_TEST_DATA_DIR) + "/basecall_nn/" + name;
}

// Reads "rows cols" and then the values, as the fixture script writes them.
inline Matrix ReadMatrix(const std::string& name) {
    std::ifstream in(DataPath(name));
    std::size_t rows = 0, cols = 0;
    in >> rows >> cols;
    Matrix m(rows, cols);
    double v = 0;
    for (std::size_t i = 0; i < rows * cols && in >> v; ++i) m(i / cols, i % cols) = static_cast<float>(v);
    if (!in || rows == 0) throw std::runtime_error("missing or short matrix file " + name);
    return m;
}

inline Matrix RandomMatrix(std::mt19937& rng, std::size_t rows, std::size_t cols, float lo, float hi) {
    std::uniform_real_distribution<float> dist(lo, hi);
    Matrix m(rows, cols);
    for (std::size_t i = 0; i < rows * cols; ++i) m(i / cols, i % cols) = dist(rng);
    return m;
}

}  // namespace nn_test
