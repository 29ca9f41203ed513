// The model loader on small hand-written files: what it asks of the network, its queries, and one
// case per message a user can meet with a bad model file.

#include "basecall_nn/nn_loader.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "basecall_nn/basecall_config.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "nn_test_util.h"

using namespace BasecallNN;
using nn_test::ErrorOf;
using nn_test::TempFile;

namespace {

std::string str(int n) { return std::to_string(n); }
// n numbers start, start + 1, ... as a JSON array, or rows such arrays of cols numbers.
std::string numbers(int n, int start = 1, int cols = 0) {
    std::string s = "[";
    for (int i = 0; i < n; ++i)
        s += (i ? "," : "") + (cols ? numbers(cols, start + i * cols) : str(start + i));
    return s + "]";
}
std::string nested(int rows, int cols) { return numbers(rows, 1, cols); }
// A Tessel layer: type, sizes and activation, then the members in `rest`.
std::string layer(const std::string& type, int insize, int size, const std::string& activation,
                  const std::string& rest) {
    return R"({"type":")" + type + R"(","insize":)" + str(insize) + R"(,"size":)" + str(size) +
           R"(,"activation":")" + activation + R"(",)" + rest + "}";
}
std::string softmax(int insize, int size, const std::string& type = "softmax", const char* act = "tanh") {
    return layer(type, insize, size, act,
                 R"("params":{"W":)" + nested(size, insize) + R"(,"b":)" + numbers(size) + "}");
}
std::string feedforward(int insize, int size, const char* activation = "tanh") {
    return softmax(insize, size, "feed-forward", activation);
}
std::string gru(int insize, int size, const std::string& type = "GRU", const char* activation = "tanh") {
    return layer(type, insize, size, activation,
                 R"("bias":true,"params":{"iW":)" + nested(3 * size, insize) + R"(,"sW":)" +
                     nested(2 * size, size) + R"(,"sW2":)" + nested(size, size) + R"(,"b":)" +
                     numbers(3 * size) + "}");
}
std::string lstm(int insize, int size, const char* activation = "tanh", const char* bias = "true") {
    return layer("LSTM", insize, size, activation,
                 R"("bias":)" + std::string(bias) + R"(,"peep":true,"params":{"iW":)" +
                     nested(4 * size, insize) + R"(,"sW":)" + nested(4 * size, size) + R"(,"b":)" +
                     numbers(4 * size, 100) + R"(,"p":)" + numbers(3 * size) + "}");
}
std::string convolution(int insize, int size, int winlen, int stride) {
    return layer("convolution", insize, size, "relu",
                 R"("winlen":)" + str(winlen) + R"(,"stride":)" + str(stride) +
                     R"(,"padding":[1,2],"params":{"W":)" + nested(size, insize * winlen) + R"(,"b":)" +
                     numbers(size) + "}");
}
std::string wrap(const std::string& type, const std::string& children, const char* key = "sublayer") {
    return R"({"type":")" + type + R"(",")" + key + R"(":)" + children + "}";
}
std::string serial(const std::vector<std::string>& layers, const std::string& extra = "") {
    std::string s = R"({"type":"serial",)" + extra + R"("sublayers":[)";
    for (std::size_t i = 0; i < layers.size(); ++i) s += (i ? "," : "") + layers[i];
    return s + "]}";
}
std::string parallel(const std::string& a, const std::string& b) {
    return wrap("parallel", "[" + a + "," + b + "]", "sublayers");
}
std::string reverse(const std::string& layer) { return wrap("reverse", layer); }

// A Quorlet file: an input of 2 and a feed-forward "f" of 5 whose weights are given, then `more`.
std::string quorlet(const std::string& more = "", const std::string& weights = "", const char* meta = "") {
    return std::string("{") + meta + R"("layers":[{"type":"input","name":"i","size":2},)" +
           R"({"type":"feedforward_relu","name":"f","size":5})" + more + R"(],"weights":{"f":{"input":)" +
           numbers(10) + R"(,"bias":)" + numbers(5) + "}" + weights + "}}";
}
// Quorlet weights of layer `name`: `input` and `bias` numbers, then more members.
std::string weights(const char* name, int input, int bias, const std::string& more = "") {
    return R"(,")" + std::string(name) + R"(":{"input":)" + numbers(input) + R"(,"bias":)" + numbers(bias) +
           more + "}";
}

}  // namespace

TEST(NNLoaderTest, EveryMessageOfABadModelFile) {
    const std::string ff = feedforward(2, 3), sm = softmax(3, 5), fwd = gru(3, 2), rev = reverse(gru(3, 2));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{\"layers\": [", "is not a valid NN model file."},  // not JSON
        {"{\"weights\": {}}", "is not a valid NN model file."},  // neither dialect
        {serial({softmax(2, 3), sm}), "Layer type 'softmax' mustnot be last layer."},
        // A container that is last passes the flag to its last child only.
        {serial({ff, wrap("serial", "[" + softmax(3, 3) + "," + feedforward(3, 5) + "]", "sublayers")}),
         "Layer type 'softmax' mustnot be last layer."},
        {serial({ff, lstm(3, 4)}), "Layer type 'LSTM' mustbe last layer."},
        {serial({ff, wrap("residual", lstm(3, 3)), sm}), "Layer type 'LSTM' does not support residual."},
        {serial({wrap("reverse", "[" + ff + "]", "sublayers"), sm}),
         "Layer type 'feed-forward' does not support reverse."},
        {serial({R"({"type":"dropout","size":3})", sm}), "Layer type 'dropout' has no loading implemented."},
        {parallel(ff, sm), "Tessel model root type must be 'serial'."},
        // Only the lower-case name counts in this dialect.
        {serial({ff, sm}, R"("meta":{"feature_function":"Raw"},)"), "Unrecognised feature function: Raw"},
        {R"({"type":"serial","sublayers":[]})", "No neural network layers found."},
        {serial({feedforward(2, 3, "swish"), sm}), "Unknown activation: swish"},
        {serial({ff, lstm(3, 4, "relu"), sm}), "LSTM layer does not support activation function 'relu'."},
        {serial({ff, gru(3, 4, "GRU", "relu"), sm}),
         "GRU layer does not support activation function 'relu'."},
        {serial({ff, wrap("parallel", "[" + fwd + "," + rev + "," + fwd + "]", "sublayers"), sm}),
         "Parallel layer must have two sublayers."},
        {serial({ff, parallel(fwd, fwd), sm}), "Parallel layer must be bidirectional."},
        {serial({ff, parallel(rev, fwd), sm}), "Parallel layer must be bidirectional."},
        {serial({ff, parallel(fwd, reverse(gru(3, 3))), sm}), "fwdLayer[size] = 2, but revLayer[size] = 3"},
        {serial({ff, parallel(fwd, reverse(gru(3, 2, "GruMod"))), sm}),
         "fwdLayer[GruMod] = false, but revLayer[GruMod] = true"},
        {serial({ff, parallel(gru(3, 2, "GRU", "sigmoid"), reverse(gru(3, 2, "GRU", "sigmoid"))), sm}),
         "Bidirectional layer does not support activation function 'sigmoid'."},
        {serial({layer("feed-forward", 3, 2, "tanh", R"("params":{"W":[[1,2,3],[4,5]]})"), sm}),
         "Can only load structured array. Sizes should be [2, 3], but size in dimension 1 was 2"},
        {serial({layer("feed-forward", 3, 2, "tanh", R"("params":{"W":[1,2,3,4,5]})"), sm}),
         "Model file: array 'W' of layer of type 'feed-forward' holds 5 numbers, but 6 were expected."},
        {serial({R"({"type":"feed-forward","insize":3,"activation":"tanh","params":{"W":[]}})", sm}),
         "Model file: layer of type 'feed-forward' has no member 'size'."},
        {serial({layer("feed-forward", 1, 1, "tanh", R"("params":{"W":["1"]})"), sm}),
         "Model file: array 'W' holds 1, which is not a number."},
        // Layers well formed one by one that do not chain: the runner would read past a buffer.
        {serial({ff, lstm(4, 4), softmax(4, 5)}),
         "Model file: layer 2 (type 'LSTM') reads 4 inputs, but layer 1 (type 'feed-forward') before it "
         "gives 3 outputs."},
        {serial({ff, parallel(fwd, rev), softmax(2, 5)}),
         "Model file: layer 3 (type 'softmax') reads 2 inputs, but layer 2 (type 'parallel' over 'GRU') "
         "before it gives 4 outputs."},
        {quorlet(R"(,{"type":"softmax","name":"s","size":5})", weights("s", 20, 5)),
         "Model file: layer 2 ('s' of type 'softmax') reads 4 inputs, but layer 1 ('f' of type "
         "'feedforward_relu') before it gives 5 outputs."},
        {quorlet(R"(,{"type":"gru","name":"g","size":3})", weights("g", 45, 9, R"(,"internal":)" +
                                                                   numbers(27))),
         "Model file: the network ends with layer 2 ('g' of type 'gru'), which gives 3 outputs, but its "
         "output layer has 5 states."},
        {quorlet("", "", R"("meta":{"feature_function":"events"},)"),
         "Unrecognised feature function: events"},
        {R"({"layers":[{"type":"input","name":"i","size":2}]})", "Error loading RNN model. No layers found."},
        {R"({"layers":[{"type":"conv2d","name":"c","size":2}]})", "Unsupported layer type: conv2d"},
        {R"({"layers":[{"type":"feedforward_","name":"c","size":2}]})",
         "Unsupported layer type: feedforward_"},
        {quorlet(R"(,{"type":"gru","name":"g","size":5})"),
         "Model file: \"weights\" has no entry for layer 'g'."},
        {R"({"layers":[{"type":"gru","name":"f","size":5}],"weights":{)" + weights("f", 10, 5).substr(1) +
             "}}",
         "Model file: \"input\" of layer 'f' holds 10 numbers, which is not a multiple of 15."},
    };
    for (const auto& [json, message] : cases) {
        TempFile file(json);
        NNCallerCblas network;
        const std::string got = ErrorOf([&] { NNLoader(file.path).LoadInto(network); });
        // The "not a valid" message names the file.
        const std::string file_named = message.front() == 'i' ? "Model File \"" + file.path + "\" " : "";
        EXPECT_EQ(got, file_named + message) << json;
    }
    EXPECT_EQ(ErrorOf([] { NNLoader("/nonexistent/model.json"); }),
              "Model File \"/nonexistent/model.json\" could not be opened.");
}

TEST(NNLoaderTest, ConfigManagerHandsBackWhatItHolds) {
    TempFile file(serial({convolution(1, 4, 3, 5), softmax(4, 1025)}));
    BasecallSettings settings;
    settings.model_file = file.path;
    auto config = std::make_shared<BasecallConfig>("", settings);
    BasecallConfigManager manager;
    EXPECT_EQ(manager.AddConfig(config), 0u);
    EXPECT_EQ(manager.AddConfig(config), 1u);
    EXPECT_EQ(manager.GetConfig(1), config);
    EXPECT_EQ(ErrorOf([&] { manager.GetConfig(2); }), "Invalid baseacall config ID");
}

// Block orders, reversal, residual and bidirectional layers are checked end to end against numpy in
// nn_model_fixtures_test.cpp; the LSTM's bias flag is not in those files.
TEST(NNLoaderTest, LstmWithoutBiasGetsZeroBiases) {
    TempFile file(serial({feedforward(1, 3), lstm(3, 2, "tanh", "false"), softmax(2, 5)}));
    NNCallerCblas network;
    NNLoader(file.path).LoadInto(network);
    const auto* layer = dynamic_cast<const Lstm*>(network.Layers()[1].get());
    ASSERT_NE(layer, nullptr);
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(layer->bias.view[i], 0.0f);
}

TEST(NNLoaderTest, QueriesAndFeatureSettings) {
    struct Case {
        std::string json;
        bool raw;
        std::uint64_t stride, labl;
        DecodeType decode;
        int feature;
        std::vector<std::int32_t> window;
        int left, right;  // the caller's window reach after loading
    };
    const std::string ffsm = feedforward(3, 4) + "," + softmax(4, 5);
    const Case cases[] = {
        // The first layer decides: a convolution makes a raw model whatever "meta" says.
        {serial({convolution(1, 4, 3, 2), convolution(4, 6, 2, 3), softmax(6, 65)},
                R"("meta":{"feature_function":"studentise","transducer":true},)"),
         true, 6, 3, kTransducer, kFeaturesRaw, {0}, 2, 0},
        // Only JSON true sets the transducer; the window reaches one each way, the old left of 2 stays.
        {serial({ffsm}, R"("meta":{"transducer":"yes"},)"), false, 1, 1, kNontransducer, kFeaturesStudentise,
         {-1, 0, 1}, 2, 1},
        // Quorlet: no "meta" leaves the caller's settings alone; names compare without regard to case.
        {quorlet(), false, 1, 1, kNontransducer, 7, {}, 2, 0},
        {quorlet("", "", R"("meta":{"feature_function":"STUDENTISE","window":[-3,-1,0,1,3]},)"), false, 1, 1,
         kNontransducer, kFeaturesStudentise, {-3, -1, 0, 1, 3}, 3, 3},
        {quorlet("", "", R"("meta":{"feature_function":"Raw"},)"), false, 1, 1, kNontransducer, kFeaturesRaw,
         {}, 2, 0},
        {quorlet("", "", R"("meta":{"trainer":"by TESSEL 2.1"},)"), false, 1, 1, kNontransducer,
         kFeaturesStudentise, {}, 2, 0},
        {quorlet("", "", R"("meta":{"trainer":"other","transducer":true},)"), false, 1, 1, kTransducer,
         kFeaturesUntrained, {}, 2, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json.substr(0, 120));
        TempFile file(c.json);
        NNLoader loader(file.path);
        EXPECT_EQ(std::make_tuple(loader.IsRawModel(), loader.GetEventStride(), loader.GetLablLength(),
                                  loader.GetDecodeType()),
                  std::make_tuple(c.raw, c.stride, c.labl, c.decode));
        NNCallerCblas network;
        network.feature_kind = 7;
        network.window_left = 2;
        loader.LoadInto(network);
        EXPECT_EQ(std::tie(network.feature_kind, network.decode_type, network.window, network.window_left,
                           network.window_right),
                  std::tie(c.feature, c.decode, c.window, c.left, c.right));
        EXPECT_EQ(network.event_stride, static_cast<int>(c.stride));
    }
    for (const int size : {2, 6, 18, 33}) {
        TempFile file(serial({feedforward(3, 4), softmax(4, size)}));
        EXPECT_EQ(ErrorOf([&] { NNLoader(file.path).GetLablLength(); }),
                  "Unsupported number of states: " + str(size - 1) +
                      ". State count should be a positive power of 4.");
    }
}
