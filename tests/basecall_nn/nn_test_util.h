#pragma once
// Helpers shared by the network runtime tests: padded matrices, a small layer runner that mimics how
// the runtime drives layers (padded ping-pong buffers, one scratch), a caller that records what the
// loader asks for, temporary model files and the text matrices the numpy fixture script writes.

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
#include "basecall_nn/nn_caller.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "common/allocator.h"
#include "common/views.h"

#include "../common/test_support.h"

namespace nn_test {

// The message of what f throws, in the text these tests expect when it throws nothing.
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

// Runs layers one after the other the way a runner does: each output goes to a fresh padded buffer
// whose padding is filled with NaN, so that a layer reading padding cells would show it.
inline Matrix RunLayers(const std::vector<const BasecallNN::CblasLayer*>& layers, const Matrix& input) {
    Matrix cur = input;
    for (const BasecallNN::CblasLayer* layer : layers) {
        const int rows = static_cast<int>(cur.rows);
        Matrix out(static_cast<std::size_t>(layer->OutputRows(rows)), static_cast<std::size_t>(layer->outSize),
                   std::numeric_limits<float>::quiet_NaN());
        Common::AlignedVector32<float> scratch(static_cast<std::size_t>(layer->ScratchSize(rows)) + 1,
                                               std::numeric_limits<float>::quiet_NaN());
        Common::MatView<float> outView = out.view();
        layer->Process(cur.view(), outView, scratch.data());
        cur = std::move(out);
    }
    return cur;
}
inline Matrix RunLayer(const BasecallNN::CblasLayer& layer, const Matrix& input) {
    return RunLayers({&layer}, input);
}

// Records what the loader asks of a network, one entry per Add call, and builds nothing.
class RecordingCaller : public BasecallNN::NNCaller {
public:
    struct Call {
        std::string op;
        int insize = 0, size = 0;
        bool gruMod = false, reverse = false, residual = false;
        int activation = -1, winlen = 0, stride = 0;
    };

    void AddConvolution(BasecallNN::Activation activation, int insize, int winlen, int size, int stride, int,
                        int, const Common::MatView<const float>&, const Common::VecView<const float>&) override {
        calls.push_back({"Convolution", insize, size, false, false, false, activation, winlen, stride});
        event_stride *= stride;
    }
    void AddFeedforward(BasecallNN::Activation activation, int insize, int size, const Common::MatView<const float>&,
                        const Common::VecView<const float>&) override {
        calls.push_back({"Feedforward", insize, size, false, false, false, activation});
    }
    void AddSoftmax(int insize, int size, const Common::MatView<const float>&,
                    const Common::VecView<const float>&) override {
        calls.push_back({"Softmax", insize, size});
    }
    void AddGlobalNormTwoState(int insize, int size, const Common::MatView<const float>&,
                               const Common::VecView<const float>&) override {
        calls.push_back({"GlobalNormTwoState", insize, size});
    }
    void AddGru(int insize, int size, const BasecallNN::GruParams&, bool gruMod, bool reverse, bool residual) override {
        calls.push_back({"Gru", insize, size, gruMod, reverse, residual});
    }
    void AddBGru(int insize, int size, const BasecallNN::GruParams&, const BasecallNN::GruParams&, bool gruMod,
                 bool residual) override {
        calls.push_back({"BGru", insize, size, gruMod, false, residual});
    }
    void AddLstm(int insize, int size, const BasecallNN::LstmParams&, bool reverse) override {
        calls.push_back({"Lstm", insize, size, false, reverse});
    }
    void AddBLstm(int insize, int size, const BasecallNN::LstmParams&, const BasecallNN::LstmParams&) override {
        calls.push_back({"BLstm", insize, size});
    }
    std::shared_ptr<BasecallNN::NNRunner> CreateRunner(std::shared_ptr<const NNCaller>, int) const override {
        throw std::logic_error("RecordingCaller has no runner");
    }

    std::vector<Call> calls;
};

// The layers a processor network holds, run one after the other.
inline Matrix RunNetwork(const BasecallNN::NNCallerCblas& network, const Matrix& input) {
    std::vector<const BasecallNN::CblasLayer*> layers;
    for (const auto& l : network.Layers()) {
        layers.push_back(l.get());
    }
    return RunLayers(layers, input);
}

// A model file in the temporary directory, removed again when the object goes.
class TempFile {
public:
    explicit TempFile(const std::string& text) {
        char name[] = "/tmp/kvx_nn_model_XXXXXX";
        const int fd = mkstemp(name);
        if (fd < 0) {
            throw std::runtime_error("mkstemp failed");
        }
        close(fd);
        path = name;
        std::ofstream(path) << text;
    }
    ~TempFile() { std::remove(path.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    std::string path;
};

inline std::string DataPath(const std::string& name) { return std::string(KVX_TEST_DATA_DIR) + "/basecall_nn/" + name; }

// Reads "rows cols" and then the values, as the fixture script writes them.
inline Matrix ReadMatrix(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("cannot open " + path);
    }
    std::size_t rows = 0, cols = 0;
    in >> rows >> cols;
    Matrix m(rows, cols);
    for (std::size_t r = 0; r < rows; ++r) {
        for (std::size_t c = 0; c < cols; ++c) {
            double v;
            in >> v;
            m(r, c) = static_cast<float>(v);
        }
    }
    if (!in) {
        throw std::runtime_error("short matrix file " + path);
    }
    return m;
}

inline Matrix RandomMatrix(std::mt19937& rng, std::size_t rows, std::size_t cols, float lo = -1.0f, float hi = 1.0f) {
    std::uniform_real_distribution<float> dist(lo, hi);
    Matrix m(rows, cols);
    for (std::size_t r = 0; r < rows; ++r) {
        for (std::size_t c = 0; c < cols; ++c) {
            m(r, c) = dist(rng);
        }
    }
    return m;
}

}  // namespace nn_test
