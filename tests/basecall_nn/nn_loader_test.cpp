// The model loader on small hand-written files: what it asks of each layer, what it passes to the
// caller, the queries, and every message a user can meet with a bad model file.

#include "basecall_nn/nn_loader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "basecall_nn/basecall_config.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "nn_test_util.h"

using namespace BasecallNN;
using nn_test::RecordingCaller;
using nn_test::ErrorOf;
using nn_test::TempFile;

namespace {

// n numbers start, start + 1, ... as a JSON array.
std::string numbers(int n, int start = 1) {
    std::string s = "[";
    for (int i = 0; i < n; ++i) s += (i ? "," : "") + std::to_string(start + i);
    return s + "]";
}
// rows arrays of cols numbers each.
std::string nested(int rows, int cols, int start = 1) {
    std::string s = "[";
    for (int r = 0; r < rows; ++r) s += (r ? "," : "") + numbers(cols, start + r * cols);
    return s + "]";
}

std::string feedforward(int insize, int size, const std::string& activation = "tanh") {
    return R"({"type":"feed-forward","insize":)" + std::to_string(insize) + R"(,"size":)" + std::to_string(size) +
           R"(,"activation":")" + activation + R"(","params":{"W":)" + nested(size, insize) +
           R"(,"b":)" + numbers(size) + "}}";
}
std::string softmax(int insize, int size, const std::string& type = "softmax") {
    return R"({"type":")" + type + R"(","insize":)" + std::to_string(insize) + R"(,"size":)" + std::to_string(size) +
           R"(,"params":{"W":)" + nested(size, insize) + R"(,"b":)" + numbers(size) + "}}";
}
std::string gru(int insize, int size, const std::string& type = "GRU", const std::string& activation = "tanh") {
    return R"({"type":")" + type + R"(","insize":)" + std::to_string(insize) + R"(,"size":)" + std::to_string(size) +
           R"(,"activation":")" + activation + R"(","bias":true,"params":{"iW":)" + nested(3 * size, insize) +
           R"(,"sW":)" + nested(2 * size, size) + R"(,"sW2":)" + nested(size, size) + R"(,"b":)" +
           numbers(3 * size) + "}}";
}
std::string lstm(int insize, int size, const std::string& activation = "tanh", bool bias = true) {
    return R"({"type":"LSTM","insize":)" + std::to_string(insize) + R"(,"size":)" + std::to_string(size) +
           R"(,"activation":")" + activation + R"(","bias":)" + (bias ? "true" : "false") +
           R"(,"peep":true,"params":{"iW":)" + nested(4 * size, insize) + R"(,"sW":)" + nested(4 * size, size) +
           R"(,"b":)" + numbers(4 * size, 100) + R"(,"p":)" + numbers(3 * size) + "}}";
}
std::string convolution(int insize, int size, int winlen, int stride) {
    return R"({"type":"convolution","insize":)" + std::to_string(insize) + R"(,"size":)" + std::to_string(size) +
           R"(,"winlen":)" + std::to_string(winlen) + R"(,"stride":)" + std::to_string(stride) +
           R"(,"padding":[1,2],"activation":"relu","params":{"W":)" + nested(size, insize * winlen) +
           R"(,"b":)" + numbers(size) + "}}";
}
std::string wrap(const std::string& type, const std::string& children, const char* key = "sublayers") {
    return R"({"type":")" + type + R"(",")" + key + R"(":)" + children + "}";
}
std::string serial(const std::vector<std::string>& layers, const std::string& extra = "") {
    std::string s = R"({"type":"serial",)" + extra + R"("sublayers":[)";
    for (std::size_t i = 0; i < layers.size(); ++i) s += (i ? "," : "") + layers[i];
    return s + "]}";
}
std::string parallel(const std::string& a, const std::string& b) {
    return wrap("parallel", "[" + a + "," + b + "]");
}

// Opening and loading into a recording caller.
std::string loadFailure(const std::string& json) {
    TempFile file(json);
    return ErrorOf([&] {
        NNLoader loader(file.path);
        RecordingCaller caller;
        loader.LoadInto(caller);
    });
}

}  // namespace

TEST(NNLoaderTest, FilesThatAreNotModels) {
    EXPECT_EQ(ErrorOf([] { NNLoader("/nonexistent/model.json"); }),
              "Model File \"/nonexistent/model.json\" could not be opened.");
    for (const std::string text : {"{\"layers\": [", "[1, 2]", "{\"weights\": {}}", "", "not json"}) {
        TempFile file(text);
        EXPECT_EQ(ErrorOf([&] { NNLoader loader(file.path); }),
                  "Model File \"" + file.path + "\" is not a valid NN model file.")
            << text;
    }
}

TEST(NNLoaderTest, NormalisationMessages) {
    const std::string ff = feedforward(2, 3), sm = softmax(3, 5);
    EXPECT_EQ(loadFailure(serial({softmax(2, 3), softmax(3, 5)})), "Layer type 'softmax' mustnot be last layer.");
    EXPECT_EQ(loadFailure(serial({softmax(2, 3, "softmax_old"), sm})),
              "Layer type 'softmax_old' mustnot be last layer.");
    EXPECT_EQ(loadFailure(serial({ff, lstm(3, 4)})), "Layer type 'LSTM' mustbe last layer.");
    EXPECT_EQ(loadFailure(serial({ff, wrap("residual", lstm(3, 3), "sublayer"), sm})),
              "Layer type 'LSTM' does not support residual.");
    EXPECT_EQ(loadFailure(serial({wrap("reverse", ff, "sublayer"), sm})),
              "Layer type 'feed-forward' does not support reverse.");
    EXPECT_EQ(loadFailure(serial({wrap("residual", "[" + ff + "]"), sm})),
              "Layer type 'feed-forward' does not support residual.");
    EXPECT_EQ(loadFailure(serial({wrap("reverse", softmax(2, 5), "sublayer")})),
              "Layer type 'softmax' does not support reverse.");
    EXPECT_EQ(loadFailure(serial({R"({"type":"dropout","size":3})", sm})),
              "Layer type 'dropout' has no loading implemented.");
    // A container that is last passes the flag to its last child only.
    EXPECT_EQ(loadFailure(serial({ff, wrap("serial", "[" + softmax(3, 3) + "," + feedforward(3, 5) + "]")})),
              "Layer type 'softmax' mustnot be last layer.");
}

TEST(NNLoaderTest, TesselRootAndFeatureMessages) {
    const std::string body = R"("sublayers":[)" + feedforward(2, 3) + "," + softmax(3, 5) + "]";
    // Normalisation passes a root "parallel", loading does not.
    EXPECT_EQ(loadFailure(R"({"type":"parallel",)" + body + "}"), "Tessel model root type must be 'serial'.");
    EXPECT_EQ(loadFailure(serial({feedforward(2, 3), softmax(3, 5)}, R"("meta":{"feature_function":"events"},)")),
              "Unrecognised feature function: events");
    // The Tessel comparison is exact.
    EXPECT_EQ(loadFailure(serial({feedforward(2, 3), softmax(3, 5)}, R"("meta":{"feature_function":"Raw"},)")),
              "Unrecognised feature function: Raw");
    EXPECT_EQ(loadFailure(R"({"type":"serial","sublayers":[]})"), "No neural network layers found.");
    EXPECT_EQ(loadFailure(serial({feedforward(2, 3, "swish"), softmax(3, 5)})), "Unknown activation: swish");
}

TEST(NNLoaderTest, RecurrentLayerMessages) {
    const std::string ff = feedforward(2, 3), sm = softmax(4, 5);
    EXPECT_EQ(loadFailure(serial({ff, lstm(3, 4, "relu"), sm})),
              "LSTM layer does not support activation function 'relu'.");
    EXPECT_EQ(loadFailure(serial({ff, gru(3, 4, "GRU", "relu"), sm})),
              "GRU layer does not support activation function 'relu'.");
    const std::string fwd = gru(3, 2), rev = wrap("reverse", gru(3, 2), "sublayer");
    EXPECT_EQ(loadFailure(serial({ff, wrap("parallel", "[" + fwd + "," + rev + "," + fwd + "]"), softmax(2, 5)})),
              "Parallel layer must have two sublayers.");
    EXPECT_EQ(loadFailure(serial({ff, parallel(fwd, fwd), softmax(4, 5)})), "Parallel layer must be bidirectional.");
    EXPECT_EQ(loadFailure(serial({ff, parallel(rev, fwd), softmax(4, 5)})), "Parallel layer must be bidirectional.");
    EXPECT_EQ(loadFailure(serial({ff, parallel(gru(3, 2), wrap("reverse", gru(3, 3), "sublayer")), softmax(5, 5)})),
              "fwdLayer[size] = 2, but revLayer[size] = 3");
    EXPECT_EQ(loadFailure(serial({ff, parallel(gru(3, 2), wrap("reverse", gru(3, 2, "GruMod"), "sublayer")), sm})),
              "fwdLayer[GruMod] = false, but revLayer[GruMod] = true");
    EXPECT_EQ(loadFailure(serial({ff, parallel(gru(3, 2), wrap("reverse", lstm(3, 2), "sublayer")), sm})),
              "fwdLayer[type] = GRU, but revLayer[type] = LSTM");
    EXPECT_EQ(loadFailure(serial({ff, parallel(gru(3, 2, "GRU", "sigmoid"),
                                               wrap("reverse", gru(3, 2, "GRU", "sigmoid"), "sublayer")),
                                  sm})),
              "Bidirectional layer does not support activation function 'sigmoid'.");
}

TEST(NNLoaderTest, ArrayAndShapeMessages) {
    // A ragged "W": the second row is short, which is dimension 1.
    const std::string ragged = R"({"type":"feed-forward","insize":3,"size":2,"activation":"tanh",)"
                               R"("params":{"W":[[1,2,3],[4,5]],"b":[0,0]}})";
    EXPECT_EQ(loadFailure(serial({ragged, softmax(2, 5)})),
              "Can only load structured array. Sizes should be [2, 3], but size in dimension 1 was 2");
    const std::string shortW = R"({"type":"feed-forward","insize":3,"size":2,"activation":"tanh",)"
                               R"("params":{"W":[1,2,3,4,5],"b":[0,0]}})";
    EXPECT_EQ(loadFailure(serial({shortW, softmax(2, 5)})),
              "Model file: array 'W' of layer of type 'feed-forward' holds 5 numbers, but 6 were expected.");
    const std::string noSize = R"({"type":"feed-forward","insize":3,"activation":"tanh","params":{"W":[]}})";
    EXPECT_EQ(loadFailure(serial({noSize, softmax(2, 5)})),
              "Model file: layer of type 'feed-forward' has no member 'size'.");
    const std::string text = R"({"type":"feed-forward","insize":1,"size":1,"activation":"tanh",)"
                             R"("params":{"W":["1"]}})";
    EXPECT_EQ(loadFailure(serial({text, softmax(1, 5)})), "Model file: array 'W' holds 1, which is not a number.");
}

TEST(NNLoaderTest, LayersThatDoNotChainAreRefused) {
    // Each model is well formed layer by layer, but one layer reads a width its predecessor does not
    // give (or the last layer is not the output layer); the runner would read past a buffer.
    const std::string ff = feedforward(2, 3), rev = wrap("reverse", gru(3, 2), "sublayer");
    const std::string quorletHead = R"({"layers":[{"type":"input","name":"i","size":2},)"
                                    R"({"type":"feedforward_tanh","name":"f","size":5},)";
    const std::string quorletF = R"("f":{"input":)" + numbers(10) + R"(,"bias":)" + numbers(5) + "}";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {serial({ff, lstm(4, 4), softmax(4, 5)}),
         "layer 2 (type 'LSTM') reads 4 inputs, but layer 1 (type 'feed-forward') before it gives 3 outputs."},
        {serial({convolution(1, 4, 3, 2), gru(3, 4), softmax(4, 5)}),
         "layer 2 (type 'GRU') reads 3 inputs, but layer 1 (type 'convolution') before it gives 4 outputs."},
        {serial({ff, parallel(gru(3, 2), rev), softmax(2, 5)}),
         "layer 3 (type 'softmax') reads 2 inputs, but layer 2 (type 'parallel' over 'GRU') before it gives 4 "
         "outputs."},
        {quorletHead + R"({"type":"softmax","name":"s","size":5}],"weights":{)" + quorletF + R"(,"s":{"input":)" +
             numbers(20) + R"(,"bias":)" + numbers(5) + "}}}",
         "layer 2 ('s' of type 'softmax') reads 4 inputs, but layer 1 ('f' of type 'feedforward_tanh') before it "
         "gives 5 outputs."},
        {quorletHead + R"({"type":"gru","name":"g","size":3}],"weights":{)" + quorletF + R"(,"g":{"input":)" +
             numbers(45) + R"(,"bias":)" + numbers(9) + R"(,"internal":)" + numbers(27) + "}}}",
         "the network ends with layer 2 ('g' of type 'gru'), which gives 3 outputs, but its output layer has 5 "
         "states."},
    };
    for (const auto& [json, message] : cases) EXPECT_EQ(loadFailure(json), "Model file: " + message) << json;
}

TEST(NNLoaderTest, QueriesOfTesselFiles) {
    const auto loader = [](const std::string& json) {
        auto file = std::make_shared<TempFile>(json);
        return std::make_pair(file, std::make_shared<NNLoader>(file->path));
    };
    {
        // The first layer decides: a convolution makes a raw model whatever "meta" says.
        auto [file, l] = loader(serial({convolution(1, 4, 3, 2), convolution(4, 6, 2, 3), softmax(6, 65)},
                                       R"("meta":{"feature_function":"studentise","transducer":true},)"));
        EXPECT_TRUE(l->IsRawModel());
        EXPECT_EQ(l->GetEventStride(), 6u);
        EXPECT_EQ(l->GetLablLength(), 3u);
        EXPECT_EQ(l->GetDecodeType(), kTransducer);
        RecordingCaller caller;
        l->LoadInto(caller);
        EXPECT_EQ(caller.feature_kind, kFeaturesRaw);
        EXPECT_EQ(caller.window, std::vector<std::int32_t>{0});
        EXPECT_EQ(caller.event_stride, 6);
    }
    {
        auto [file, l] = loader(serial({feedforward(3, 4), softmax(4, 5)}, R"("meta":{"transducer":"yes"},)"));
        EXPECT_FALSE(l->IsRawModel());
        EXPECT_EQ(l->GetEventStride(), 1u);
        EXPECT_EQ(l->GetLablLength(), 1u);
        EXPECT_EQ(l->GetDecodeType(), kNontransducer);  // only JSON true counts
        RecordingCaller caller;
        caller.window_left = 4;
        l->LoadInto(caller);
        EXPECT_EQ(caller.feature_kind, kFeaturesStudentise);
        EXPECT_EQ(caller.window, (std::vector<std::int32_t>{-1, 0, 1}));
        EXPECT_EQ(caller.window_left, 4);  // the larger of the old value and the window's reach
        EXPECT_EQ(caller.window_right, 1);
    }
    for (const int size : {2, 6, 18, 33}) {
        auto [file, l] = loader(serial({feedforward(3, 4), softmax(4, size)}));
        EXPECT_EQ(ErrorOf([&] { l->GetLablLength(); }),
                  "Unsupported number of states: " + std::to_string(size - 1) +
                      ". State count should be a positive power of 4.");
    }
    {
        auto [file, l] = loader(serial({feedforward(3, 4), softmax(4, 257)}));
        EXPECT_EQ(l->GetLablLength(), 4u);
    }
}

TEST(NNLoaderTest, TesselNormalisationReachesTheCaller) {
    TempFile file(serial({feedforward(2, 3),
                          wrap("residual", wrap("reverse", gru(3, 3, "GruMod"), "sublayer"), "sublayer"),
                          wrap("reverse", "[" + gru(3, 2) + "]"), parallel(lstm(2, 2), wrap("reverse", lstm(2, 2), "sublayer")),
                          parallel(gru(4, 3, "GruMod"), wrap("reverse", gru(4, 3, "GruMod"), "sublayer")),
                          softmax(6, 5, "softmax_old")}));
    NNLoader loader(file.path);
    RecordingCaller caller;
    loader.LoadInto(caller);
    ASSERT_EQ(caller.calls.size(), 6u);
    EXPECT_EQ(caller.calls[1].op, "Gru");
    EXPECT_TRUE(caller.calls[1].gruMod);
    EXPECT_TRUE(caller.calls[1].reverse);
    EXPECT_TRUE(caller.calls[1].residual);
    EXPECT_FALSE(caller.calls[2].gruMod);
    EXPECT_TRUE(caller.calls[2].reverse);
    EXPECT_FALSE(caller.calls[2].residual);
    EXPECT_EQ(caller.calls[3].op, "BLstm");
    EXPECT_EQ(caller.calls[3].size, 2);
    EXPECT_EQ(caller.calls[4].op, "BGru");
    EXPECT_TRUE(caller.calls[4].gruMod);
    EXPECT_EQ(caller.calls[5].op, "Softmax");
    EXPECT_EQ(caller.num_states, 5);
    EXPECT_EQ(caller.label_state, 4);
}

TEST(NNLoaderTest, SoftmaxRotationAndTemperatures) {
    // W rows 1..5 of one input, b 1..5: the first output of the file moves to the last place, then
    // W is divided by temp_weight and b by temp_bias.
    const std::string tessel = serial({feedforward(1, 1, "identity"), softmax(1, 5)});
    const std::string quorlet = R"({"layers":[{"type":"softmax","name":"s","size":5}],)"
                                R"("weights":{"s":{"input":[1,2,3,4,5],"bias":[1,2,3,4,5]}}})";
    const std::vector<float> rotated = {2, 3, 4, 5, 1}, plain = {1, 2, 3, 4, 5};
    for (const auto& [json, order] : {std::make_pair(tessel, rotated), std::make_pair(quorlet, plain)}) {
        TempFile file(json);
        NNLoader loader(file.path, 2.0f, 4.0f);
        NNCallerCblas network;
        loader.LoadInto(network);
        const auto* layer = dynamic_cast<const Softmax*>(network.Layers().back().get());
        ASSERT_NE(layer, nullptr);
        for (std::size_t j = 0; j < 5; ++j) {
            EXPECT_FLOAT_EQ(layer->W.view(0, j), order[j] / 2.0f);
            EXPECT_FLOAT_EQ(layer->bias.view[j], order[j] / 4.0f);
        }
    }
}

TEST(NNLoaderTest, LstmBiasFlagAndGateBlocks) {
    // "bias": false gives zero biases although "b" is there.
    TempFile file(serial({feedforward(1, 3), lstm(3, 2, "tanh", false), softmax(2, 5)}));
    NNLoader loader(file.path);
    NNCallerCblas network;
    loader.LoadInto(network);
    const auto* layer = dynamic_cast<const Lstm*>(network.Layers()[1].get());
    ASSERT_NE(layer, nullptr);
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(layer->bias.view[i], 0.0f);
    // The file's blocks are cell, input, forget, output, which is also the layer's order; its
    // peepholes are input, forget, output (1..6).
    EXPECT_EQ(layer->Wx.view(0, 0), 1.0f);   // cell block, row 0 of the file
    EXPECT_EQ(layer->Wx.view(2, 2), 9.0f);   // input block: file row 2, third input
    EXPECT_EQ(layer->Wh.view(1, 7), 16.0f);  // output block, last file row, second state
    EXPECT_EQ(layer->peepholeInput.view[0], 1.0f);
    EXPECT_EQ(layer->peepholeForget.view[0], 3.0f);
    EXPECT_EQ(layer->peepholeOutput.view[1], 6.0f);
}

TEST(NNLoaderTest, QuorletFeaturesWindowAndMessages) {
    const std::string layers = R"("layers":[{"type":"input","name":"i","size":2},)"
                               R"({"type":"feedforward_relu","name":"f","size":5}],)";
    const std::string weights = R"("weights":{"f":{"input":)" + numbers(10) + R"(,"bias":)" + numbers(5) + "}}";
    const auto load = [&](const std::string& meta, RecordingCaller& caller) {
        TempFile file("{" + meta + layers + weights + "}");
        NNLoader loader(file.path);
        loader.LoadInto(caller);
        return loader.IsRawModel();
    };
    {
        RecordingCaller caller;
        caller.feature_kind = 7;
        EXPECT_FALSE(load("", caller));
        EXPECT_EQ(caller.feature_kind, 7);  // no "meta": untouched
        EXPECT_TRUE(caller.window.empty());
        ASSERT_EQ(caller.calls.size(), 1u);
        EXPECT_EQ(caller.calls[0].insize, 2);
        EXPECT_EQ(caller.calls[0].activation, v_relu);
        EXPECT_EQ(caller.num_states, 5);
        EXPECT_EQ(caller.label_state, 4);
    }
    {
        RecordingCaller caller;
        EXPECT_FALSE(load(R"("meta":{"feature_function":"STUDENTISE","window":[-2,-1,0,1,3]},)", caller));
        EXPECT_EQ(caller.feature_kind, kFeaturesStudentise);
        EXPECT_EQ(caller.window, (std::vector<std::int32_t>{-2, -1, 0, 1, 3}));
        EXPECT_EQ(caller.window_left, 2);
        EXPECT_EQ(caller.window_right, 3);
    }
    {
        RecordingCaller caller;
        // Loading compares without regard to case; the raw-model query compares exactly.
        EXPECT_FALSE(load(R"("meta":{"feature_function":"Raw"},)", caller));
        EXPECT_EQ(caller.feature_kind, kFeaturesRaw);
    }
    {
        RecordingCaller a, b;
        load(R"("meta":{"trainer":"by TESSEL 2.1"},)", a);
        load(R"("meta":{"trainer":"other","transducer":true},)", b);
        EXPECT_EQ(a.feature_kind, kFeaturesStudentise);
        EXPECT_EQ(b.feature_kind, kFeaturesUntrained);
        EXPECT_EQ(b.decode_type, kTransducer);
    }
    {
        RecordingCaller caller;
        EXPECT_EQ(ErrorOf([&] { load(R"("meta":{"feature_function":"events"},)", caller); }),
                  "Unrecognised feature function: events");
    }
    EXPECT_EQ(loadFailure(R"({"layers":[{"type":"input","name":"i","size":2}]})"),
              "Error loading RNN model. No layers found.");
    EXPECT_EQ(loadFailure(R"({"layers":[{"type":"conv2d","name":"c","size":2}]})"), "Unsupported layer type: conv2d");
    EXPECT_EQ(loadFailure(R"({"layers":[{"type":"feedforward_","name":"c","size":2}]})"),
              "Unsupported layer type: feedforward_");
    EXPECT_EQ(loadFailure(R"({"layers":[{"type":"feedforward_gelu","name":"f","size":5}],)" + weights + "}"),
              "Unknown activation: gelu");
    EXPECT_EQ(loadFailure(R"({"layers":[{"type":"gru","name":"g","size":5}],)" + weights + "}"),
              "Model file: \"weights\" has no entry for layer 'g'.");
    EXPECT_EQ(loadFailure(R"({"layers":[{"type":"gru","name":"f","size":5}],)" + weights + "}"),
              "Model file: \"input\" of layer 'f' holds 10 numbers, which is not a multiple of 15.");
}

TEST(NNLoaderTest, QuorletQueries) {
    TempFile file(R"({"meta":{"feature_function":"raw","transducer":true},"layers":[)"
                  R"({"type":"convolution","name":"c","size":2,"insize":1,"winlen":3,"stride":5,"padding":[1,1],)"
                  R"("activation":"tanh"},{"type":"softmax","name":"s","size":17},)"
                  R"({"type":"multiclass_classification","name":"m","size":3}],)"
                  R"("weights":{"c":{"input":[1,2,3,4,5,6],"bias":[0,0]},"s":{"input":)" +
                  numbers(34) + R"(,"bias":)" + numbers(17) + "}}}");
    NNLoader loader(file.path);
    EXPECT_TRUE(loader.IsRawModel());
    EXPECT_EQ(loader.GetEventStride(), 5u);
    EXPECT_EQ(loader.GetLablLength(), 2u);
    EXPECT_EQ(loader.GetDecodeType(), kTransducer);
    RecordingCaller caller;
    loader.LoadInto(caller);
    ASSERT_EQ(caller.calls.size(), 2u);
    EXPECT_EQ(caller.calls[0].op, "Convolution");
    EXPECT_EQ(caller.calls[0].winlen, 3);
    EXPECT_EQ(caller.event_stride, 5);
    EXPECT_EQ(caller.num_states, 17);
    EXPECT_EQ(caller.label_state, 16);
}

TEST(BasecallConfigTest, AsksTheModelAndNumbersConfigs) {
    TempFile file(serial({convolution(1, 4, 3, 5), softmax(4, 1025)}));
    BasecallSettings settings;
    settings.model_file = file.path;
    auto config = std::make_shared<BasecallConfig>("", settings);
    EXPECT_EQ(config->loader.ModelPath(), file.path);
    EXPECT_TRUE(config->raw_model);
    EXPECT_EQ(config->model_stride, 5u);
    EXPECT_EQ(config->model_size, 5u);
    EXPECT_EQ(config->event_stride, 0u);

    BasecallConfigManager manager;
    EXPECT_EQ(manager.AddConfig(config), 0u);
    EXPECT_EQ(manager.AddConfig(config), 1u);
    EXPECT_EQ(manager.GetConfig(1), config);
    EXPECT_EQ(ErrorOf([&] { manager.GetConfig(2); }), "Invalid baseacall config ID");

    settings.model_file = "/nonexistent.json";
    EXPECT_EQ(ErrorOf([&] { BasecallConfig("", settings); }), "Model File \"/nonexistent.json\" could not be opened.");
    TempFile empty(R"({"type":"serial","sublayers":[]})");
    settings.model_file = empty.path;
    EXPECT_EQ(ErrorOf([&] { BasecallConfig("", settings); }), "No neural network layers found.");
}
