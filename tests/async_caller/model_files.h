#pragma once
// Tiny raw-signal models written as model files, for the chunk callers: a strided convolution to a
// few features and a softmax over 4^k k-mer states plus the stay column. Random weights: the calls
// mean nothing, but they run the whole way.

#include "test_util.h"

#include "read_files.h"

namespace TestSupport {

inline std::string tinyModelFile(int k, bool transducer, int stride = 5, unsigned seed = 7) {
    const int states = 1 << (2 * k);
    const int features = 8;
    std::mt19937 random(seed);
    std::normal_distribution<float> weight(0.0f, 1.0f);
    const auto numbers = [&](int count, float scale) {
        std::ostringstream os;
        os << "[";
        for (int i = 0; i < count; ++i) os << (i ? "," : "") << weight(random) * scale;
        os << "]";
        return os.str();
    };
    std::ostringstream json;
    json << "{\"meta\":{\"feature_function\":\"raw\",\"window\":[0],\"transducer\":" << (transducer ? "true" : "false")
         << "},\"layers\":[{\"type\":\"input\",\"name\":\"in\",\"size\":1},"
         << "{\"type\":\"convolution\",\"name\":\"conv\",\"size\":" << features << ",\"insize\":1,\"winlen\":" << stride
         << ",\"stride\":" << stride << ",\"padding\":[" << stride / 2 << "," << stride - 1 - stride / 2
         << "],\"activation\":\"tanh\"},"
         << "{\"type\":\"softmax\",\"name\":\"out\",\"size\":" << states + 1 << "}],"
         << "\"weights\":{\"conv\":{\"input\":" << numbers(stride * features, 1.0f)
         << ",\"bias\":" << numbers(features, 0.1f) << "},"
         << "\"out\":{\"input\":" << numbers(features * (states + 1), 2.0f)
         << ",\"bias\":" << numbers(states + 1, 0.5f) << "}}}";
    const std::string path =
        Scratch().File("model_k" + std::to_string(k) + (transducer ? "_t" : "_n") + std::to_string(seed) + ".json");
    std::ofstream(path) << json.str();
    return path;
}

}  // namespace TestSupport
