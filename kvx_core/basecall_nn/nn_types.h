#pragma once
// Small vocabulary shared by the model loader, the layer set and the network runner: what a model
// decodes to, what its input features are, the activation words, and the gate parameters that the
// loader hands to the recurrent layers.

#include "common/views.h"

namespace BasecallNN {

// How the posteriors of a model are decoded.
enum DecodeType : int {
    kNontransducer = 0,
    kTransducer = 1,
    kFlipflop = 2,
};

// Log text of a decode type: "Nontransducer", "Transducer", "Flipflop"; "Unknown" for others.
const char* DecodeTypeName(int decodeType);

// What the first layer of a model reads.
enum FeatureKind : int {
    kFeaturesUntrained = 0,  // a "Quorlet" model not trained by "Tessel"
    kFeaturesStudentise = 1,
    kFeaturesRaw = 2,
};

// Activation of convolution and feed-forward layers. The numbers are the ones the loader maps the
// words of the model file to: "identity", "tanh", "sigmoid"/"logistic", "relu", "elu".
enum Activation : int {
    v_identity = 0,
    v_tanh = 1,
    v_sigmoid = 2,
    v_relu = 3,
    v_elu = 4,
};

// Views of one gate's parameters, laid out as the loader reads them: iW is insize by size, sW is
// size by size (a row per input feature, any strides), bias has size entries. The views point into
// the loader's flat arrays, which live only for the duration of the Add call: layers copy.
struct GateParams {
    Common::MatView<const float> iW;
    Common::MatView<const float> sW;
    Common::VecView<const float> bias;
};

// A gate that also looks at the cell state through a peephole vector of size entries.
struct PeepholeGateParams : GateParams {
    Common::VecView<const float> peep;
};

// Records in this order: forget, input, output, cell.
struct LstmParams {
    PeepholeGateParams forget;
    PeepholeGateParams input;
    PeepholeGateParams output;
    GateParams cell;
};

// Records in this order: update, reset, candidate.
struct GruParams {
    GateParams update;
    GateParams reset;
    GateParams candidate;
};

}  // namespace BasecallNN
