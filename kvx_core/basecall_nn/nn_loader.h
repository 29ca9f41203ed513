#pragma once
// Reads a JSON model file, in either of its two dialects, and loads it into NNCaller objects.
//
// "Tessel"-encoded files are a tree of layers under a root "serial"; "Quorlet"-encoded files are a
// flat list of "layers" plus a map of "weights". The whole document is parsed once, in the
// constructor, and kept (a Tessel tree is normalised in place first), so that the rest of the program
// can ask what kind of model it is before any caller exists, and so that the same document can be
// loaded into one caller per worker. All failures are std::runtime_error with a message for the user.

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include "basecall_nn/nn_caller.h"
#include "common/allocator.h"

namespace BasecallNN {

class NNLoader {
public:
    // Opens and parses the file; temperatures divide the softmax weights and bias when loading.
    // Throws "Model File \"<path>\" could not be opened." or "... is not a valid NN model file.",
    // and the normalisation messages of a Tessel tree.
    NNLoader(const std::string& path, float temp_weight = 1.0f, float temp_bias = 1.0f);
    NNLoader(const NNLoader&) = delete;
    NNLoader& operator=(const NNLoader&) = delete;
    virtual ~NNLoader();

    // Chooses the dialect and adds every layer to caller, filling its model fields. May run any
    // number of times; each run builds its own flat arrays. Refuses a model whose layers do not
    // chain: each layer must read as many inputs as the one before it gives, and the last layer
    // must give the output layer's states.
    void LoadInto(NNCaller& caller) const;

    DecodeType GetDecodeType() const;
    // Input samples (or events) per output row: the product of the convolution strides.
    std::uint64_t GetEventStride() const;
    // k of the k-mer states: log4 of (last layer size - 1); 1 for a flip-flop model.
    std::uint64_t GetLablLength() const;
    // Whether the model reads raw signal rather than events.
    bool IsRawModel() const;

    const std::string& ModelPath() const { return model_path; }

    // Appends the numbers under key of obj, depth first, to out and returns the dimensions. A ragged
    // array throws "Can only load structured array. ...". Public for tests.
    using FlatArray = Common::AlignedVector64<float>;
    static std::vector<std::uint64_t> AppendArray(const rapidjson::Value& obj, const char* key, FlatArray& out);

private:
    using Value = rapidjson::Value;
    using LayerList = std::vector<const Value*>;

    bool isQuorlet() const;
    bool isTessel() const;

    void normaliseLayer(Value& layer, bool isLast, bool residual, bool reverse);
    static void flattenLayers(const Value& layer, bool stopAtParallel, LayerList& out);
    LayerList flattenedTessel(bool stopAtParallel) const;

    void LoadTesselInto(NNCaller& caller) const;
    void LoadQuorletInto(NNCaller& caller) const;

    void LoadConvolutionLayer(const Value& layer, NNCaller& caller) const;
    void LoadFeedforwardLayer(const Value& layer, NNCaller& caller) const;
    void LoadSoftmaxLayer(const Value& layer, NNCaller& caller) const;
    void LoadGlobalNormTwoStateLayer(const Value& layer, NNCaller& caller) const;
    void LoadGRULayer(const Value& layer, NNCaller& caller) const;
    void LoadLSTMLayer(const Value& layer, NNCaller& caller) const;
    void LoadBidirectionalLayer(const Value& layer, NNCaller& caller) const;
    void LoadBLSTMLayer(const Value& fwdLayer, const Value& revLayer, NNCaller& caller) const;
    void LoadBGRULayer(const Value& fwdLayer, const Value& revLayer, NNCaller& caller) const;

    std::string model_path;
    std::ifstream model_stream;
    float softmax_weight_scale;  // 1 / temp_weight
    float softmax_bias_scale;    // 1 / temp_bias
    rapidjson::Document document;
    rapidjson::ParseResult parse_result;
};

}  // namespace BasecallNN
