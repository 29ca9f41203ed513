#pragma once
// The immutable description of a loaded network. The model loader builds it through the eight Add
// operations, one layer (or layer pair) each, appended at the end; after loading it is read-only and
// shared by every worker, each of which runs it through its own NNRunner.

#include <cstdint>
#include <memory>
#include <vector>

#include "basecall_nn/nn_types.h"
#include "common/views.h"

namespace BasecallNN {

class NNRunner;

class NNCaller {
public:
    NNCaller() = default;
    NNCaller(const NNCaller&) = delete;
    NNCaller& operator=(const NNCaller&) = delete;

    // W views are insize by size (a row per input feature, any strides) and b has size entries; they
    // point into the loader's arrays, which are freed when the call returns, so implementations copy.

    // A window of winlen rows taken every stride rows with the given zero padding, then a
    // feed-forward layer of (insize * winlen) inputs; W is (insize * winlen) by size.
    virtual void AddConvolution(Activation activation, int insize, int winlen, int size, int stride, int padLeft,
                                int padRight, const Common::MatView<const float>& W,
                                const Common::VecView<const float>& b) = 0;
    virtual void AddFeedforward(Activation activation, int insize, int size, const Common::MatView<const float>& W,
                                const Common::VecView<const float>& b) = 0;
    // W and b arrive already scaled by the loader's temperature factors.
    virtual void AddSoftmax(int insize, int size, const Common::MatView<const float>& W,
                            const Common::VecView<const float>& b) = 0;
    virtual void AddGlobalNormTwoState(int insize, int size, const Common::MatView<const float>& W,
                                       const Common::VecView<const float>& b) = 0;
    // gruMod selects the candidate form that applies the reset gate after the state product.
    virtual void AddGru(int insize, int size, const GruParams& params, bool gruMod, bool reverse,
                        bool residual) = 0;
    // Output has 2 * size columns, the forward direction first.
    virtual void AddBGru(int insize, int size, const GruParams& forward, const GruParams& backward, bool gruMod,
                         bool residual) = 0;
    virtual void AddLstm(int insize, int size, const LstmParams& params, bool reverse) = 0;
    // Output has 2 * size columns, the forward direction first.
    virtual void AddBLstm(int insize, int size, const LstmParams& forward, const LstmParams& backward) = 0;

    virtual ~NNCaller() = default;

    // A runner for up to maxRows input rows; self must be the shared pointer that owns this caller,
    // so that the runner keeps it alive.
    virtual std::shared_ptr<NNRunner> CreateRunner(std::shared_ptr<const NNCaller> self, int maxRows) const = 0;

    int num_states = 0;     // output size of the last layer
    int label_state = 0;    // count of k-mer states (a power of four), or the flip-flop value 4
    int feature_kind = 0;   // FeatureKind
    int decode_type = 0;    // DecodeType
    std::vector<std::int32_t> window;  // event-feature offsets around the current event
    int window_left = 0;    // largest reach to the left, >= 0
    int window_right = 0;   // largest reach to the right, >= 0
    int event_stride = 1;   // input samples per output row: the product of the convolution strides
};

}  // namespace BasecallNN
