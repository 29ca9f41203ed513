#pragma once
// The processor implementation of a network: an ordered list of CblasLayer objects, each of which
// runs its time steps through CBLAS. Built once by the loader, then shared read-only by runners.

#include <memory>
#include <vector>

#include "basecall_nn/cblas_layer.h"
#include "basecall_nn/nn_caller.h"

namespace BasecallNN {

class NNCallerCblas : public NNCaller {
public:
    NNCallerCblas() = default;

    // Appends a WindowLayer and then a Feedforward layer; multiplies event_stride by stride.
    void AddConvolution(Activation activation, int insize, int winlen, int size, int stride, int padLeft,
                        int padRight, const Common::MatView<const float>& W,
                        const Common::VecView<const float>& b) override;
    void AddFeedforward(Activation activation, int insize, int size, const Common::MatView<const float>& W,
                        const Common::VecView<const float>& b) override;
    void AddSoftmax(int insize, int size, const Common::MatView<const float>& W,
                    const Common::VecView<const float>& b) override;
    void AddGlobalNormTwoState(int insize, int size, const Common::MatView<const float>& W,
                               const Common::VecView<const float>& b) override;
    void AddGru(int insize, int size, const GruParams& params, bool gruMod, bool reverse, bool residual) override;
    void AddBGru(int insize, int size, const GruParams& forward, const GruParams& backward, bool gruMod,
                 bool residual) override;
    void AddLstm(int insize, int size, const LstmParams& params, bool reverse) override;
    void AddBLstm(int insize, int size, const LstmParams& forward, const LstmParams& backward) override;

    ~NNCallerCblas() override;

    // Logs "Creating NNRunerCblas" and builds an NNRunnerCblas over the caller held by self.
    // Defined beside NNRunnerCblas (nn_runner_cblas.cpp), which it constructs.
    std::shared_ptr<NNRunner> CreateRunner(std::shared_ptr<const NNCaller> self, int maxRows) const override;

    // The layers in the order they run; the first layer's inSize is the network's input width and
    // the last layer's outSize is num_states.
    const std::vector<std::unique_ptr<CblasLayer>>& Layers() const { return layers; }

private:
    std::vector<std::unique_ptr<CblasLayer>> layers;
};

}  // namespace BasecallNN
