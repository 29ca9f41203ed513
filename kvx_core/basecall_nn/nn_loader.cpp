#include "basecall_nn/nn_loader.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <sstream>
#include <stdexcept>

#include <rapidjson/error/en.h>
#include <rapidjson/istreamwrapper.h>

#include "common/logger.h"
#include "common/views.h"

namespace BasecallNN {

namespace {

using Value = rapidjson::Value;
using FlatArray = NNLoader::FlatArray;

// Containers of a Tessel tree; everything else is a real layer.
bool isContainer(const std::string& type) {
    return type.empty() || type == "serial" || type == "reverse" || type == "residual" || type == "parallel";
}

const Value* member(const Value& obj, const char* key) {
    if (!obj.IsObject()) {
        return nullptr;
    }
    const auto it = obj.FindMember(key);
    return it == obj.MemberEnd() ? nullptr : &it->value;
}

std::string typeOf(const Value& layer) {
    const Value* type = member(layer, "type");
    return type != nullptr && type->IsString() ? std::string(type->GetString(), type->GetStringLength())
                                               : std::string();
}

std::string toLower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// A JSON value as a user would write it: strings bare, everything else as JSON text.
std::string valueText(const Value* v) {
    if (v == nullptr) {
        return "(absent)";
    }
    if (v->IsString()) {
        return std::string(v->GetString(), v->GetStringLength());
    }
    if (v->IsBool()) {
        return v->GetBool() ? "true" : "false";
    }
    if (v->IsInt64()) {
        return std::to_string(v->GetInt64());
    }
    if (v->IsUint64()) {
        return std::to_string(v->GetUint64());
    }
    if (v->IsNumber()) {
        std::ostringstream os;
        os << v->GetDouble();
        return os.str();
    }
    if (v->IsNull()) {
        return "null";
    }
    return v->IsArray() ? "(array)" : "(object)";
}

// Members that the layer tables require. A file that lacks one is told so, rather than read as zero.
const Value& required(const Value& layer, const char* key, const std::string& what) {
    const Value* v = member(layer, key);
    if (v == nullptr) {
        throw std::runtime_error("Model file: " + what + " has no member '" + key + "'.");
    }
    return *v;
}

std::string layerWhat(const Value& layer) { return "layer of type '" + typeOf(layer) + "'"; }

int getInt(const Value& layer, const char* key, const std::string& what) {
    const Value& v = required(layer, key, what);
    if (v.IsInt()) {
        return v.GetInt();
    }
    if (v.IsNumber()) {
        const double d = v.GetDouble();
        if (std::floor(d) == d && d >= std::numeric_limits<int>::min() && d <= std::numeric_limits<int>::max()) {
            return static_cast<int>(d);
        }
    }
    throw std::runtime_error("Model file: member '" + std::string(key) + "' of " + what +
                             " should be an integer, but is " + valueText(&v) + ".");
}
int getInt(const Value& layer, const char* key) { return getInt(layer, key, layerWhat(layer)); }

int getPositive(const Value& layer, const char* key, const std::string& what) {
    const int n = getInt(layer, key, what);
    if (n < 1) {
        throw std::runtime_error("Model file: member '" + std::string(key) + "' of " + what +
                                 " should be at least 1, but is " + std::to_string(n) + ".");
    }
    return n;
}
int getPositive(const Value& layer, const char* key) { return getPositive(layer, key, layerWhat(layer)); }

bool getBool(const Value& layer, const char* key) {
    const Value& v = required(layer, key, layerWhat(layer));
    if (!v.IsBool()) {
        throw std::runtime_error("Model file: member '" + std::string(key) + "' of " + layerWhat(layer) +
                                 " should be true or false, but is " + valueText(&v) + ".");
    }
    return v.GetBool();
}

std::string getString(const Value& layer, const char* key, const std::string& what) {
    const Value& v = required(layer, key, what);
    if (!v.IsString()) {
        throw std::runtime_error("Model file: member '" + std::string(key) + "' of " + what +
                                 " should be a string, but is " + valueText(&v) + ".");
    }
    return std::string(v.GetString(), v.GetStringLength());
}
std::string getString(const Value& layer, const char* key) { return getString(layer, key, layerWhat(layer)); }

Activation activationFromWord(const std::string& word) {
    if (word == "identity") {
        return v_identity;
    }
    if (word == "tanh") {
        return v_tanh;
    }
    if (word == "sigmoid" || word == "logistic") {
        return v_sigmoid;
    }
    if (word == "relu") {
        return v_relu;
    }
    if (word == "elu") {
        return v_elu;
    }
    throw std::runtime_error("Unknown activation: " + word);
}

// Appends obj[key] to out and checks that it holds exactly `expected` numbers.
void readArray(const Value& obj, const char* key, std::size_t expected, FlatArray& out, const std::string& what) {
    const std::size_t before = out.size();
    NNLoader::AppendArray(obj, key, out);
    const std::size_t got = out.size() - before;
    if (got != expected) {
        throw std::runtime_error("Model file: array '" + std::string(key) + "' of " + what + " holds " +
                                 std::to_string(got) + " numbers, but " + std::to_string(expected) +
                                 " were expected.");
    }
}

// A bias that may be absent or empty, in which case it is `size` zeros.
void readOptionalBias(const Value& params, const char* key, std::size_t size, FlatArray& out, const std::string& what) {
    const Value* b = member(params, key);
    if (b == nullptr || (b->IsArray() && b->Empty())) {
        out.assign(size, 0.0f);
        return;
    }
    readArray(params, key, size, out, what);
}

// Views of a flat array holding `size` rows of `insize` numbers, as insize by size.
Common::MatView<const float> transposedView(const float* data, std::size_t insize, std::size_t size) {
    return Common::MatView<const float>(data, insize, size, 1, static_cast<std::int64_t>(insize));
}
Common::VecView<const float> vectorView(const float* data, std::size_t size) {
    return Common::VecView<const float>(data, size, 1);
}

// Flat arrays of one recurrent layer, with the gate views over them. Not movable: views point in.
struct LstmArrays {
    FlatArray iW, sW, b, p;
    LstmParams params;
    LstmArrays() = default;
    LstmArrays(const LstmArrays&) = delete;
};
struct GruArrays {
    FlatArray iW, sW, b;
    GruParams params;
    GruArrays() = default;
    GruArrays(const GruArrays&) = delete;
};

// Gate views for the LSTM blocks in file order cell, input, forget, output (weights, bias) and
// input, forget, output (peepholes). Block k of a weight array starts at blockOffset(k); the
// bidirectional Quorlet layout interleaves the directions, which only changes the offsets.
template <typename IwAt, typename SwAt, typename BAt, typename PAt>
void lstmViews(LstmArrays& a, std::size_t insize, std::size_t size, IwAt iwAt, SwAt swAt, BAt bAt, PAt pAt) {
    PeepholeGateParams* blocks[4] = {nullptr, &a.params.input, &a.params.forget, &a.params.output};
    for (std::size_t k = 0; k < 4; ++k) {
        GateParams& gate = k == 0 ? a.params.cell : *blocks[k];
        gate.iW = transposedView(a.iW.data() + iwAt(k), insize, size);
        gate.sW = transposedView(a.sW.data() + swAt(k), size, size);
        gate.bias = vectorView(a.b.data() + bAt(k), size);
    }
    for (std::size_t k = 0; k < 3; ++k) {
        blocks[k + 1]->peep = vectorView(a.p.data() + pAt(k), size);
    }
}

// Gate views for the GRU blocks in file order reset, update, candidate.
template <typename IwAt, typename SwAt, typename BAt>
void gruViews(GruArrays& a, std::size_t insize, std::size_t size, IwAt iwAt, SwAt swAt, BAt bAt) {
    GateParams* blocks[3] = {&a.params.reset, &a.params.update, &a.params.candidate};
    for (std::size_t k = 0; k < 3; ++k) {
        blocks[k]->iW = transposedView(a.iW.data() + iwAt(k), insize, size);
        blocks[k]->sW = transposedView(a.sW.data() + swAt(k), size, size);
        blocks[k]->bias = vectorView(a.b.data() + bAt(k), size);
    }
}

// Sizes of a Tessel recurrent layer; the recurrent layers only run with tanh.
void readRecurrentShape(const Value& layer, const char* prefix, int& insize, int& size) {
    insize = getPositive(layer, "insize");
    size = getPositive(layer, "size");
    const std::string activation = getString(layer, "activation");
    if (activation != "tanh") {
        throw std::runtime_error(std::string(prefix) + " layer does not support activation function '" + activation +
                                 "'.");
    }
}

// Tessel LSTM: "iW", "sW", optional "b" and "p" under "params".
void readTesselLstm(const Value& layer, const char* prefix, LstmArrays& a, int& insizeOut, int& sizeOut) {
    const std::string what = layerWhat(layer);
    int insize = 0, size = 0;
    readRecurrentShape(layer, prefix, insize, size);
    const bool hasBias = getBool(layer, "bias");
    const bool hasPeep = getBool(layer, "peep");
    const Value& params = required(layer, "params", what);
    const std::size_t in = static_cast<std::size_t>(insize);
    const std::size_t h = static_cast<std::size_t>(size);
    readArray(params, "iW", 4 * h * in, a.iW, what);
    readArray(params, "sW", 4 * h * h, a.sW, what);
    if (hasBias) {
        readArray(params, "b", 4 * h, a.b, what);
    } else {
        a.b.assign(4 * h, 0.0f);
    }
    if (hasPeep) {
        readArray(params, "p", 3 * h, a.p, what);
    } else {
        a.p.assign(3 * h, 0.0f);
    }
    lstmViews(
        a, in, h, [&](std::size_t k) { return k * h * in; }, [&](std::size_t k) { return k * h * h; },
        [&](std::size_t k) { return k * h; }, [&](std::size_t k) { return k * h; });
    insizeOut = insize;
    sizeOut = size;
}

// Tessel GRU: "iW", "sW" then "sW2" into one array, optional "b".
void readTesselGru(const Value& layer, const char* prefix, GruArrays& a, int& insizeOut, int& sizeOut) {
    const std::string what = layerWhat(layer);
    int insize = 0, size = 0;
    readRecurrentShape(layer, prefix, insize, size);
    const bool hasBias = getBool(layer, "bias");
    const Value& params = required(layer, "params", what);
    const std::size_t in = static_cast<std::size_t>(insize);
    const std::size_t h = static_cast<std::size_t>(size);
    readArray(params, "iW", 3 * h * in, a.iW, what);
    // The state weights of the reset and update gates, then those of the candidate, in one array.
    NNLoader::AppendArray(params, "sW", a.sW);
    NNLoader::AppendArray(params, "sW2", a.sW);
    if (a.sW.size() != 3 * h * h) {
        throw std::runtime_error("Model file: arrays 'sW' and 'sW2' of " + what + " hold " +
                                 std::to_string(a.sW.size()) + " numbers together, but " + std::to_string(3 * h * h) +
                                 " were expected.");
    }
    if (hasBias) {
        readArray(params, "b", 3 * h, a.b, what);
    } else {
        a.b.assign(3 * h, 0.0f);
    }
    gruViews(
        a, in, h, [&](std::size_t k) { return k * h * in; }, [&](std::size_t k) { return k * h * h; },
        [&](std::size_t k) { return k * h; });
    insizeOut = insize;
    sizeOut = size;
}

void updateWindowReach(NNCaller& caller) {
    for (const std::int32_t w : caller.window) {
        // Negated in 64 bits: the most negative offset has no positive int.
        const std::int64_t left = std::max<std::int64_t>(caller.window_left, -static_cast<std::int64_t>(w));
        caller.window_left = static_cast<int>(std::min<std::int64_t>(left, std::numeric_limits<int>::max()));
        caller.window_right = std::max(caller.window_right, static_cast<int>(w));
    }
}

// Numbers in a weight array of the given dimensions, all read from the file: their product may not
// fit, and the layers keep their sizes as int. No real layer comes near the bound.
std::size_t arrayCount(std::initializer_list<std::size_t> dims, const std::string& what) {
    constexpr std::size_t kMax = static_cast<std::size_t>(std::numeric_limits<int>::max());
    std::size_t n = 1;
    for (const std::size_t d : dims) {
        if (d != 0 && n > kMax / d) {
            throw std::runtime_error("Model file: " + what + " would have a weight array of more than " +
                                     std::to_string(kMax) + " numbers.");
        }
        n *= d;
    }
    return n;
}

// The runner gives each layer the buffer the layer before it wrote, and takes the number of columns
// from the reading layer: a layer that reads more columns than were written runs over the end of that
// buffer, one that reads fewer computes on the wrong features. Neither fails by itself, so the
// widths are compared here, while the file is loaded, and a model that does not chain is refused.
class LayerChain {
public:
    // Layers are counted from 1 in the order they run; a bidirectional pair is one layer.
    void Link(const std::string& what, std::int64_t insize, std::int64_t outsize) {
        ++count;
        const std::string name = "layer " + std::to_string(count) + " (" + what + ")";
        if (count > 1 && insize != width) {
            throw std::runtime_error("Model file: " + name + " reads " + std::to_string(insize) +
                                     " inputs, but " + lastName + " before it gives " + std::to_string(width) +
                                     " outputs.");
        }
        width = outsize;
        lastName = name;
    }
    // The posteriors are the last layer's output, read as num_states columns.
    void CheckOutput(std::int64_t numStates) const {
        if (count > 0 && width != numStates) {
            throw std::runtime_error("Model file: the network ends with " + lastName + ", which gives " +
                                     std::to_string(width) + " outputs, but its output layer has " +
                                     std::to_string(numStates) + " states.");
        }
    }

private:
    int count = 0;
    std::int64_t width = 0;
    std::string lastName;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Opening

NNLoader::NNLoader(const std::string& path, float temp_weight, float temp_bias)
    : model_path(path), softmax_weight_scale(1.0f / temp_weight), softmax_bias_scale(1.0f / temp_bias) {
    model_stream.open(model_path);
    if (!model_stream.is_open()) {
        throw std::runtime_error("Model File \"" + model_path + "\" could not be opened.");
    }
    rapidjson::IStreamWrapper stream(model_stream);
    parse_result = document.ParseStream(stream);
    if (parse_result.IsError()) {
        KVX_LOG(warning) << "Model File \"" << model_path << "\" is not valid JSON: "
                         << rapidjson::GetParseError_En(parse_result.Code()) << " (at offset "
                         << parse_result.Offset() << ")";
    }
    if (!isQuorlet() && !isTessel()) {
        throw std::runtime_error("Model File \"" + model_path + "\" is not a valid NN model file.");
    }
    if (isTessel()) {
        normaliseLayer(document, true, false, false);
    }
}

NNLoader::~NNLoader() = default;

bool NNLoader::isQuorlet() const { return !parse_result.IsError() && member(document, "layers") != nullptr; }

bool NNLoader::isTessel() const {
    return !parse_result.IsError() && !isQuorlet() && member(document, "type") != nullptr;
}

// ---------------------------------------------------------------------------------------------
// Tessel tree normalisation and flattening

void NNLoader::normaliseLayer(Value& layer, bool isLast, bool residual, bool reverse) {
    if (!layer.IsObject()) {
        throw std::runtime_error("Model file: a layer of the network is " + valueText(&layer) +
                                 " instead of a JSON object.");
    }
    if (layer.ObjectEmpty()) {
        return;
    }
    auto& alloc = document.GetAllocator();
    const auto setBool = [&](const char* key, bool value) {
        auto it = layer.FindMember(key);
        if (it != layer.MemberEnd()) {
            it->value.SetBool(value);
        } else {
            layer.AddMember(rapidjson::StringRef(key), Value(value), alloc);
        }
    };
    const std::string type = typeOf(layer);

    if (isContainer(type)) {
        if (type == "reverse") {
            reverse = true;
        } else if (type == "residual") {
            residual = true;
        }
        auto it = layer.FindMember("sublayer");
        if (it == layer.MemberEnd()) {
            it = layer.FindMember("sublayers");
        }
        if (it == layer.MemberEnd()) {
            return;
        }
        Value& children = it->value;
        if (children.IsArray()) {
            const rapidjson::SizeType n = children.Size();
            for (rapidjson::SizeType i = 0; i < n; ++i) {
                normaliseLayer(children[i], isLast && i + 1 == n, residual, reverse);
            }
        } else {
            normaliseLayer(children, isLast, residual, reverse);
        }
        return;
    }

    const bool mustBeLast = type == "softmax" || type == "softmax_old" || type == "GlobalNormTwoState";
    if (mustBeLast != isLast) {
        // The wording is kept as users of these model files know it.
        throw std::runtime_error("Layer type '" + type + "' must" + (isLast ? "" : "not ") + "be last layer.");
    }
    if (type == "GRU" || type == "GruMod") {
        layer["type"].SetString(rapidjson::StringRef("GRU"));
        setBool("GruMod", type == "GruMod");
    } else if (type == "LSTM") {
        if (residual) {
            throw std::runtime_error("Layer type '" + type + "' does not support residual.");
        }
    } else {
        if (type == "softmax_old") {
            layer["type"].SetString(rapidjson::StringRef("softmax"));
        } else if (type != "softmax" && type != "GlobalNormTwoState" && type != "feed-forward" &&
                   type != "convolution") {
            throw std::runtime_error("Layer type '" + type + "' has no loading implemented.");
        }
        if (reverse) {
            throw std::runtime_error("Layer type '" + type + "' does not support reverse.");
        }
        if (residual) {
            throw std::runtime_error("Layer type '" + type + "' does not support residual.");
        }
    }
    setBool("reverse", reverse);
    setBool("residual", residual);
}

void NNLoader::flattenLayers(const Value& layer, bool stopAtParallel, LayerList& out) {
    if (!layer.IsObject() || layer.ObjectEmpty()) {
        return;
    }
    const std::string type = typeOf(layer);
    if (!isContainer(type)) {
        out.push_back(&layer);
        return;
    }
    if (type == "parallel" && stopAtParallel) {
        out.push_back(&layer);
        return;
    }
    const Value* children = member(layer, "sublayer");
    if (children == nullptr) {
        children = member(layer, "sublayers");
    }
    if (children == nullptr) {
        return;
    }
    if (children->IsArray()) {
        for (const Value& child : children->GetArray()) {
            flattenLayers(child, stopAtParallel, out);
        }
    } else {
        flattenLayers(*children, stopAtParallel, out);
    }
}

NNLoader::LayerList NNLoader::flattenedTessel(bool stopAtParallel) const {
    LayerList layers;
    flattenLayers(document, stopAtParallel, layers);
    return layers;
}

// ---------------------------------------------------------------------------------------------
// Arrays

std::vector<std::uint64_t> NNLoader::AppendArray(const rapidjson::Value& obj, const char* key, FlatArray& out) {
    KVX_LOG(trace) << "Extracting " << key << " from JSON object";
    const Value* root = member(obj, key);
    if (root == nullptr) {
        throw std::runtime_error("Model file: parameters have no array '" + std::string(key) + "'.");
    }
    std::vector<std::uint64_t> dims;
    // Depth first; the first array met at each depth fixes that dimension.
    const auto walk = [&](const auto& self, const Value& v, std::size_t depth) -> void {
        if (v.IsArray()) {
            const std::uint64_t n = v.Size();
            if (dims.size() == depth) {
                dims.push_back(n);
            } else if (dims[depth] != n) {
                std::ostringstream os;
                os << "Can only load structured array. Sizes should be [";
                for (std::size_t d = 0; d < dims.size(); ++d) {
                    os << (d ? ", " : "") << dims[d];
                }
                os << "], but size in dimension " << depth << " was " << n;
                throw std::runtime_error(os.str());
            }
            for (const Value& e : v.GetArray()) {
                self(self, e, depth + 1);
            }
        } else if (v.IsNumber()) {
            out.push_back(static_cast<float>(v.GetDouble()));
        } else {
            throw std::runtime_error("Model file: array '" + std::string(key) + "' holds " + valueText(&v) +
                                     ", which is not a number.");
        }
    };
    walk(walk, *root, 0);
    KVX_LOG(trace) << "read array of size " << Common::VecView<const std::uint64_t>(dims.data(), dims.size(), 1);
    KVX_LOG(verbose) << key << " = " << Common::VecView<const float>(out.data(), out.size(), 1);
    return dims;
}

// ---------------------------------------------------------------------------------------------
// Queries

DecodeType NNLoader::GetDecodeType() const {
    if (!isQuorlet() && !isTessel()) {
        throw std::runtime_error("NNLoader::GetDecodeType called on invalid model");
    }
    if (isTessel()) {
        const LayerList layers = flattenedTessel(false);
        if (!layers.empty() && typeOf(*layers.back()) == "GlobalNormTwoState") {
            return kFlipflop;
        }
    }
    const Value* meta = member(document, "meta");
    const Value* transducer = meta != nullptr ? member(*meta, "transducer") : nullptr;
    if (transducer == nullptr) {
        return kNontransducer;
    }
    return transducer->IsTrue() ? kTransducer : kNontransducer;
}

std::uint64_t NNLoader::GetEventStride() const {
    LayerList layers;
    if (isTessel()) {
        layers = flattenedTessel(false);
    } else if (isQuorlet()) {
        const Value& list = document["layers"];
        if (list.IsArray()) {
            for (const Value& layer : list.GetArray()) {
                layers.push_back(&layer);
            }
        }
    } else {
        throw std::runtime_error("NNLoader::GetEventStride called on invalid model");
    }
    std::uint64_t stride = 1;
    for (const Value* layer : layers) {
        if (typeOf(*layer) == "convolution") {
            stride *= static_cast<std::uint64_t>(getPositive(*layer, "stride"));
        }
    }
    return stride;
}

std::uint64_t NNLoader::GetLablLength() const {
    const Value* last = nullptr;
    if (isTessel()) {
        const LayerList layers = flattenedTessel(false);
        if (layers.empty()) {
            throw std::runtime_error("No neural network layers found.");
        }
        if (typeOf(*layers.back()) == "GlobalNormTwoState") {
            return 1;
        }
        last = layers.back();
    } else if (isQuorlet()) {
        // The last entry that is a layer: "input" and "multiclass_classification" entries carry none.
        const Value& list = document["layers"];
        if (list.IsArray()) {
            for (const Value& layer : list.GetArray()) {
                const std::string type = typeOf(layer);
                if (type != "input" && type != "multiclass_classification") {
                    last = &layer;
                }
            }
        }
        if (last == nullptr) {
            throw std::runtime_error("Error loading RNN model. No layers found.");
        }
    } else {
        throw std::runtime_error("NNLoader::GetLablLength called on invalid model");
    }
    const std::int64_t count = static_cast<std::int64_t>(getInt(*last, "size")) - 1;
    std::uint64_t k = 0;
    std::int64_t n = count;
    while (n >= 4 && n % 4 == 0) {
        n /= 4;
        ++k;
    }
    if (count < 4 || n != 1) {
        throw std::runtime_error("Unsupported number of states: " + std::to_string(count) +
                                 ". State count should be a positive power of 4.");
    }
    return k;
}

bool NNLoader::IsRawModel() const {
    if (isTessel()) {
        const LayerList layers = flattenedTessel(true);
        if (layers.empty()) {
            throw std::runtime_error("No neural network layers found.");
        }
        return typeOf(*layers.front()) == "convolution";
    }
    if (isQuorlet()) {
        const Value* meta = member(document, "meta");
        const Value* function = meta != nullptr ? member(*meta, "feature_function") : nullptr;
        return function != nullptr && function->IsString() && std::string(function->GetString()) == "raw";
    }
    throw std::runtime_error("NNLoader::IsRawModel called on invalid model");
}

// ---------------------------------------------------------------------------------------------
// Loading

void NNLoader::LoadInto(NNCaller& caller) const {
    if (isQuorlet()) {
        LoadQuorletInto(caller);
    } else if (isTessel()) {
        LoadTesselInto(caller);
    } else {
        throw std::runtime_error("Unrecognised model file format in NNLoader::LoadInto()");
    }
}

void NNLoader::LoadTesselInto(NNCaller& caller) const {
    if (!isTessel()) {
        throw std::runtime_error("Attempting to load caller with invalid Tessel file.");
    }
    if (typeOf(document) != "serial") {
        throw std::runtime_error("Tessel model root type must be 'serial'.");
    }
    caller.feature_kind = kFeaturesStudentise;
    caller.decode_type = GetDecodeType();
    const Value* meta = member(document, "meta");
    const Value* function = meta != nullptr ? member(*meta, "feature_function") : nullptr;
    if (function != nullptr) {
        const std::string word = valueText(function);
        if (word == "raw") {
            caller.feature_kind = kFeaturesRaw;
        } else if (word == "studentise") {
            caller.feature_kind = kFeaturesStudentise;
        } else {
            throw std::runtime_error("Unrecognised feature function: " + word);
        }
    }

    const LayerList layers = flattenedTessel(true);
    if (layers.empty()) {
        throw std::runtime_error("No neural network layers found.");
    }
    // The first layer decides: a convolution reads raw samples one at a time, anything else reads
    // event features around the current event.
    if (typeOf(*layers.front()) == "convolution") {
        caller.feature_kind = kFeaturesRaw;
        caller.window = {0};
    } else {
        caller.feature_kind = kFeaturesStudentise;
        caller.window = {-1, 0, 1};
    }
    updateWindowReach(caller);

    LayerChain chain;
    for (const Value* layer : layers) {
        const std::string type = typeOf(*layer);
        if (type == "parallel") {
            LoadBidirectionalLayer(*layer, caller);
            // Loading has checked that the two halves agree in type and sizes.
            LayerList halves;
            flattenLayers(*layer, false, halves);
            const Value& half = *halves.front();
            chain.Link("type 'parallel' over '" + typeOf(half) + "'", getInt(half, "insize"),
                       2 * static_cast<std::int64_t>(getInt(half, "size")));
            continue;
        }
        if (type == "feed-forward") {
            LoadFeedforwardLayer(*layer, caller);
        } else if (type == "softmax") {
            LoadSoftmaxLayer(*layer, caller);
        } else if (type == "GlobalNormTwoState") {
            LoadGlobalNormTwoStateLayer(*layer, caller);
        } else if (type == "convolution") {
            LoadConvolutionLayer(*layer, caller);
        } else if (type == "LSTM") {
            LoadLSTMLayer(*layer, caller);
        } else if (type == "GRU") {
            LoadGRULayer(*layer, caller);
        } else {
            throw std::runtime_error("Layer type '" + type + "' has no loading implemented.");
        }
        chain.Link("type '" + type + "'", getInt(*layer, "insize"), getInt(*layer, "size"));
    }
    chain.CheckOutput(caller.num_states);
}

void NNLoader::LoadConvolutionLayer(const Value& layer, NNCaller& caller) const {
    const std::string what = layerWhat(layer);
    const int size = getPositive(layer, "size");
    const int insize = getPositive(layer, "insize");
    const int winlen = getPositive(layer, "winlen");
    const int stride = getPositive(layer, "stride");
    const Value& padding = required(layer, "padding", what);
    if (!padding.IsArray() || padding.Size() != 2 || !padding[0].IsInt() || !padding[1].IsInt()) {
        throw std::runtime_error("Model file: member 'padding' of " + what +
                                 " should be an array of two integers, left and right.");
    }
    const Activation activation = activationFromWord(getString(layer, "activation"));
    const Value& params = required(layer, "params", what);
    const std::size_t rows = static_cast<std::size_t>(insize) * static_cast<std::size_t>(winlen);
    FlatArray W, b;
    readArray(params, "W", arrayCount({rows, static_cast<std::size_t>(size)}, what), W, what);
    readArray(params, "b", static_cast<std::size_t>(size), b, what);
    caller.AddConvolution(activation, insize, winlen, size, stride, padding[0].GetInt(), padding[1].GetInt(),
                          transposedView(W.data(), rows, static_cast<std::size_t>(size)),
                          vectorView(b.data(), b.size()));
}

void NNLoader::LoadFeedforwardLayer(const Value& layer, NNCaller& caller) const {
    const std::string what = layerWhat(layer);
    const int size = getPositive(layer, "size");
    const int insize = getPositive(layer, "insize");
    const Activation activation = activationFromWord(getString(layer, "activation"));
    const Value& params = required(layer, "params", what);
    const auto in = static_cast<std::size_t>(insize);
    const auto out = static_cast<std::size_t>(size);
    FlatArray W, b;
    readArray(params, "W", in * out, W, what);
    readOptionalBias(params, "b", out, b, what);
    caller.AddFeedforward(activation, insize, size, transposedView(W.data(), in, out), vectorView(b.data(), out));
}

void NNLoader::LoadSoftmaxLayer(const Value& layer, NNCaller& caller) const {
    const std::string what = layerWhat(layer);
    const int size = getPositive(layer, "size");
    const int insize = getPositive(layer, "insize");
    const Value& params = required(layer, "params", what);
    const auto in = static_cast<std::size_t>(insize);
    const auto out = static_cast<std::size_t>(size);
    FlatArray W, b;
    readArray(params, "W", in * out, W, what);
    readOptionalBias(params, "b", out, b, what);
    // This dialect keeps the no-base output first; the network's posteriors keep it last.
    std::rotate(b.begin(), b.begin() + 1, b.end());
    std::rotate(W.begin(), W.begin() + static_cast<std::ptrdiff_t>(in), W.end());
    for (float& w : W) {
        w *= softmax_weight_scale;
    }
    for (float& x : b) {
        x *= softmax_bias_scale;
    }
    caller.AddSoftmax(insize, size, transposedView(W.data(), in, out), vectorView(b.data(), out));
    caller.num_states = size;
    caller.label_state = size - 1;
}

void NNLoader::LoadGlobalNormTwoStateLayer(const Value& layer, NNCaller& caller) const {
    const std::string what = layerWhat(layer);
    const int size = getPositive(layer, "size");
    const int insize = getPositive(layer, "insize");
    const Value& params = required(layer, "params", what);
    const auto in = static_cast<std::size_t>(insize);
    const auto out = static_cast<std::size_t>(size);
    FlatArray W, b;
    readArray(params, "W", in * out, W, what);
    readOptionalBias(params, "b", out, b, what);
    caller.AddGlobalNormTwoState(insize, size, transposedView(W.data(), in, out), vectorView(b.data(), out));
    caller.num_states = size;
    caller.label_state = 4;
}

void NNLoader::LoadLSTMLayer(const Value& layer, NNCaller& caller) const {
    LstmArrays a;
    int insize = 0, size = 0;
    readTesselLstm(layer, "LSTM", a, insize, size);
    caller.AddLstm(insize, size, a.params, getBool(layer, "reverse"));
}

void NNLoader::LoadGRULayer(const Value& layer, NNCaller& caller) const {
    GruArrays a;
    int insize = 0, size = 0;
    readTesselGru(layer, "GRU", a, insize, size);
    caller.AddGru(insize, size, a.params, getBool(layer, "GruMod"), getBool(layer, "reverse"),
                  getBool(layer, "residual"));
}

void NNLoader::LoadBidirectionalLayer(const Value& layer, NNCaller& caller) const {
    LayerList halves;
    flattenLayers(layer, false, halves);
    if (halves.size() != 2) {
        throw std::runtime_error("Parallel layer must have two sublayers.");
    }
    const Value& fwdLayer = *halves[0];
    const Value& revLayer = *halves[1];
    const Value* fwdReverse = member(fwdLayer, "reverse");
    const Value* revReverse = member(revLayer, "reverse");
    if (fwdReverse == nullptr || !fwdReverse->IsFalse() || revReverse == nullptr || !revReverse->IsTrue()) {
        throw std::runtime_error("Parallel layer must be bidirectional.");
    }
    std::vector<const char*> compared = {"type", "activation", "size", "insize", "residual"};
    if (typeOf(fwdLayer) == "GRU") {
        compared.push_back("GruMod");
    }
    for (const char* key : compared) {
        const Value* f = member(fwdLayer, key);
        const Value* r = member(revLayer, key);
        const bool same = (f == nullptr && r == nullptr) || (f != nullptr && r != nullptr && *f == *r);
        if (!same) {
            throw std::runtime_error(std::string("fwdLayer[") + key + "] = " + valueText(f) + ", but revLayer[" + key +
                                     "] = " + valueText(r));
        }
    }
    const std::string activation = getString(fwdLayer, "activation");
    if (activation != "tanh") {
        throw std::runtime_error("Bidirectional layer does not support activation function '" + activation + "'.");
    }
    const std::string type = typeOf(fwdLayer);
    if (type == "GRU") {
        LoadBGRULayer(fwdLayer, revLayer, caller);
    } else if (type == "LSTM") {
        LoadBLSTMLayer(fwdLayer, revLayer, caller);
    } else {
        throw std::runtime_error("Bidirectional layer does not support type '" + type + "'.");
    }
}

void NNLoader::LoadBLSTMLayer(const Value& fwdLayer, const Value& revLayer, NNCaller& caller) const {
    LstmArrays fwd, rev;
    int insize = 0, size = 0, revInsize = 0, revSize = 0;
    readTesselLstm(fwdLayer, "BLSTM", fwd, insize, size);
    readTesselLstm(revLayer, "BLSTM", rev, revInsize, revSize);
    caller.AddBLstm(insize, size, fwd.params, rev.params);
}

void NNLoader::LoadBGRULayer(const Value& fwdLayer, const Value& revLayer, NNCaller& caller) const {
    GruArrays fwd, rev;
    int insize = 0, size = 0, revInsize = 0, revSize = 0;
    readTesselGru(fwdLayer, "BGRU", fwd, insize, size);
    readTesselGru(revLayer, "BGRU", rev, revInsize, revSize);
    caller.AddBGru(insize, size, fwd.params, rev.params, getBool(fwdLayer, "GruMod"), getBool(fwdLayer, "residual"));
}

// ---------------------------------------------------------------------------------------------
// Quorlet

void NNLoader::LoadQuorletInto(NNCaller& caller) const {
    if (!isQuorlet()) {
        throw std::runtime_error("Attempting to load caller with invalid Quorlet file.");
    }
    const Value* weights = member(document, "weights");
    const Value& layers = document["layers"];
    const Value* meta = member(document, "meta");

    if (meta != nullptr) {
        const Value* function = member(*meta, "feature_function");
        if (function != nullptr) {
            const std::string word = valueText(function);
            const std::string lower = toLower(word);
            if (lower == "raw") {
                caller.feature_kind = kFeaturesRaw;
            } else if (lower == "studentise") {
                caller.feature_kind = kFeaturesStudentise;
            } else {
                throw std::runtime_error("Unrecognised feature function: " + word);
            }
        } else {
            const Value* trainer = member(*meta, "trainer");
            const bool byTessel = trainer != nullptr && toLower(valueText(trainer)).find("tessel") != std::string::npos;
            caller.feature_kind = byTessel ? kFeaturesStudentise : kFeaturesUntrained;
        }
        const Value* window = member(*meta, "window");
        if (window != nullptr) {
            if (!window->IsArray()) {
                throw std::runtime_error("Model file: \"window\" of \"meta\" should be an array of integers.");
            }
            caller.window.clear();
            for (const Value& w : window->GetArray()) {
                if (!w.IsInt()) {
                    throw std::runtime_error("Model file: \"window\" of \"meta\" should be an array of integers.");
                }
                caller.window.push_back(w.GetInt());
            }
            updateWindowReach(caller);
        }
    }
    caller.decode_type = GetDecodeType();

    if (!layers.IsArray()) {
        throw std::runtime_error("Model file: \"layers\" should be an array of layers.");
    }
    int added = 0;
    LayerChain chain;
    for (const Value& entry : layers.GetArray()) {
        const std::string type = getString(entry, "type", "an entry of \"layers\"");
        if (type == "input" || type == "multiclass_classification") {
            continue;
        }
        const bool feedforward = type.size() > 12 && type.compare(0, 12, "feedforward_") == 0;
        const bool known = feedforward || type == "softmax" || type == "lstm" || type == "rlstm" ||
                           type == "blstm" || type == "gru" || type == "rgru" || type == "bgru" ||
                           type == "convolution";
        if (!known) {
            throw std::runtime_error("Unsupported layer type: " + type);
        }
        const std::string name = getString(entry, "name", "a layer of type '" + type + "'");
        const std::string what = "layer '" + name + "'";
        const int size = getPositive(entry, "size", what);
        const auto h = static_cast<std::size_t>(size);

        const Value* w = weights != nullptr ? member(*weights, name.c_str()) : nullptr;
        if (w == nullptr) {
            throw std::runtime_error("Model file: \"weights\" has no entry for " + what + ".");
        }
        FlatArray input, bias, internal;
        AppendArray(*w, "input", input);
        if (member(*w, "bias") != nullptr) {
            AppendArray(*w, "bias", bias);
        }
        if (member(*w, "internal") != nullptr) {
            AppendArray(*w, "internal", internal);
        }
        // insize from the length of "input", which must divide evenly.
        const auto insizeFor = [&](std::size_t blocks) {
            const std::size_t per = blocks * h;
            if (input.empty() || input.size() % per != 0) {
                throw std::runtime_error("Model file: \"input\" of " + what + " holds " +
                                         std::to_string(input.size()) + " numbers, which is not a multiple of " +
                                         std::to_string(per) + ".");
            }
            return input.size() / per;
        };
        const auto expectLength = [&](const FlatArray& a, const char* key, std::size_t n) {
            if (a.size() != n) {
                throw std::runtime_error("Model file: \"" + std::string(key) + "\" of " + what + " holds " +
                                         std::to_string(a.size()) + " numbers, but " + std::to_string(n) +
                                         " were expected.");
            }
        };

        std::size_t inWidth = 0;  // what the layer reads per row
        if (type == "softmax" || feedforward) {
            const std::size_t in = insizeFor(1);
            inWidth = in;
            expectLength(bias, "bias", h);
            const auto W = transposedView(input.data(), in, h);
            if (type == "softmax") {
                for (float& x : input) {
                    x *= softmax_weight_scale;
                }
                for (float& x : bias) {
                    x *= softmax_bias_scale;
                }
                caller.AddSoftmax(static_cast<int>(in), size, W, vectorView(bias.data(), h));
            } else {
                caller.AddFeedforward(activationFromWord(type.substr(12)), static_cast<int>(in), size, W,
                                      vectorView(bias.data(), h));
            }
            caller.num_states = size;
            caller.label_state = size - 1;
        } else if (type == "lstm" || type == "rlstm") {
            const std::size_t in = insizeFor(4);
            inWidth = in;
            expectLength(bias, "bias", 4 * h);
            expectLength(internal, "internal", 4 * h * h + 3 * h);
            LstmArrays a;
            a.iW = std::move(input);
            a.b = std::move(bias);
            a.sW.assign(internal.begin(), internal.begin() + static_cast<std::ptrdiff_t>(4 * h * h));
            a.p.assign(internal.begin() + static_cast<std::ptrdiff_t>(4 * h * h), internal.end());
            lstmViews(
                a, in, h, [&](std::size_t k) { return k * h * in; }, [&](std::size_t k) { return k * h * h; },
                [&](std::size_t k) { return k * h; }, [&](std::size_t k) { return k * h; });
            caller.AddLstm(static_cast<int>(in), size, a.params, type[0] == 'r');
        } else if (type == "blstm") {
            if (size % 2 != 0) {
                throw std::runtime_error("Model file: " + what + " of type 'blstm' has an odd size " +
                                         std::to_string(size) + "; it should be the sum of two equal directions.");
            }
            const std::size_t half = h / 2;
            const std::size_t in = insizeFor(4);
            inWidth = in;
            expectLength(bias, "bias", 4 * h);
            expectLength(internal, "internal", 8 * half * half + 6 * half);
            LstmArrays fwd, bwd;
            for (LstmArrays* a : {&fwd, &bwd}) {
                a->iW = input;
                a->b = bias;
                a->sW.assign(internal.begin(), internal.begin() + static_cast<std::ptrdiff_t>(8 * half * half));
                a->p.assign(internal.begin() + static_cast<std::ptrdiff_t>(8 * half * half), internal.end());
            }
            // Blocks alternate forward, backward: block k of a direction d is block 2 k + d.
            for (std::size_t d = 0; d < 2; ++d) {
                lstmViews(
                    d == 0 ? fwd : bwd, in, half, [&](std::size_t k) { return (2 * k + d) * half * in; },
                    [&](std::size_t k) { return (2 * k + d) * half * half; },
                    [&](std::size_t k) { return (2 * k + d) * half; }, [&](std::size_t k) { return (2 * k + d) * half; });
            }
            caller.AddBLstm(static_cast<int>(in), static_cast<int>(half), fwd.params, bwd.params);
        } else if (type == "gru" || type == "rgru") {
            const std::size_t in = insizeFor(3);
            inWidth = in;
            expectLength(bias, "bias", 3 * h);
            expectLength(internal, "internal", 3 * h * h);
            GruArrays a;
            a.iW = std::move(input);
            a.sW = std::move(internal);
            a.b = std::move(bias);
            gruViews(
                a, in, h, [&](std::size_t k) { return k * h * in; }, [&](std::size_t k) { return k * h * h; },
                [&](std::size_t k) { return k * h; });
            caller.AddGru(static_cast<int>(in), size, a.params, false, type[0] == 'r', false);
        } else if (type == "bgru") {
            if (size % 2 != 0) {
                throw std::runtime_error("Model file: " + what + " of type 'bgru' has an odd size " +
                                         std::to_string(size) + "; it should be the sum of two equal directions.");
            }
            const std::size_t half = h / 2;
            const std::size_t in = insizeFor(3);
            inWidth = in;
            expectLength(bias, "bias", 3 * h);
            expectLength(internal, "internal", 6 * half * half);
            GruArrays fwd, bwd;
            for (GruArrays* a : {&fwd, &bwd}) {
                a->iW = input;
                a->sW = internal;
                a->b = bias;
            }
            for (std::size_t d = 0; d < 2; ++d) {
                gruViews(
                    d == 0 ? fwd : bwd, in, half, [&](std::size_t k) { return (2 * k + d) * half * in; },
                    [&](std::size_t k) { return (2 * k + d) * half * half; },
                    [&](std::size_t k) { return (2 * k + d) * half; });
            }
            caller.AddBGru(static_cast<int>(in), static_cast<int>(half), fwd.params, bwd.params, false, false);
        } else {  // convolution
            const int insize = getPositive(entry, "insize", what);
            inWidth = static_cast<std::size_t>(insize);
            const int winlen = getPositive(entry, "winlen", what);
            const int stride = getPositive(entry, "stride", what);
            const Value& padding = required(entry, "padding", what);
            if (!padding.IsArray() || padding.Size() != 2 || !padding[0].IsInt() || !padding[1].IsInt()) {
                throw std::runtime_error("Model file: member 'padding' of " + what +
                                         " should be an array of two integers, left and right.");
            }
            const std::size_t rows = static_cast<std::size_t>(insize) * static_cast<std::size_t>(winlen);
            expectLength(input, "input", arrayCount({rows, h}, what));
            expectLength(bias, "bias", h);
            caller.AddConvolution(activationFromWord(getString(entry, "activation", what)), insize, winlen, size,
                                  stride, padding[0].GetInt(), padding[1].GetInt(),
                                  transposedView(input.data(), rows, h), vectorView(bias.data(), h));
        }
        // A bidirectional entry's size is already the sum of its two directions.
        chain.Link("'" + name + "' of type '" + type + "'", static_cast<std::int64_t>(inWidth), size);
        ++added;
    }
    if (added == 0) {
        throw std::runtime_error("Error loading RNN model. No layers found.");
    }
    chain.CheckOutput(caller.num_states);
}

}  // namespace BasecallNN
