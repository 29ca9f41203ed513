// A model file of either dialect, taken as far as a run takes it: parsed and asked for its kind and
// strides (the run's model settings), loaded into the processor network, where layers that do not
// chain must be refused, and one short strand called through a runner, so that a model that loads
// but cannot run shows here rather than in the middle of a run.

#include <cmath>
#include <memory>

#include "basecall_nn/basecall_config.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_runner.h"
#include "common/event_data.h"
#include "common/views.h"
#include "fuzz_support.h"

// Rows of the network's output for the short strand. Small, so that a model with wide layers still
// runs quickly; a model whose stride asks for more samples than this bound is not run.
constexpr std::size_t kEvents = 12;
constexpr std::size_t kMaxSamples = 1 << 14;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string path = fuzz::WriteScratchFile("model.json", data, size);
    fuzz::Try([&] {
        BasecallNN::BasecallSettings settings;
        settings.model_file = path;
        const BasecallNN::BasecallConfig config("", settings);

        auto network = std::make_shared<BasecallNN::NNCallerCblas>();
        config.loader.LoadInto(*network);
        // A loaded network is a chain: each layer reads what the one before it writes.
        const auto& layers = network->Layers();
        fuzz::Check(!layers.empty(), "a loaded network has layers");
        for (std::size_t i = 1; i < layers.size(); ++i) {
            fuzz::Check(layers[i]->inSize == layers[i - 1]->outSize, "each layer reads its predecessor's width");
        }
        fuzz::Check(layers.back()->outSize == network->num_states, "the last layer gives the model's states");

        const bool raw = network->feature_kind == BasecallNN::kFeaturesRaw;
        const std::size_t stride = static_cast<std::size_t>(std::max(network->event_stride, 1));
        if (raw && stride > kMaxSamples / kEvents) {
            return;
        }
        const std::size_t samples = raw ? kEvents * stride : 0;
        std::vector<float> signal(samples);
        for (std::size_t i = 0; i < samples; ++i) {
            signal[i] = static_cast<float>(std::sin(0.37 * static_cast<double>(i)));
        }
        Common::EventData<Common::Deep> events(kEvents);
        for (std::size_t i = 0; i < kEvents; ++i) {
            events.mean[i] = 90.0f + static_cast<float>(i % 5);
            events.stdv[i] = 1.0f + 0.1f * static_cast<float>(i % 3);
            events.start[i] = i * stride;
            events.length[i] = stride;
        }

        // As a chunk caller does: one runner per worker, raw chunks already scaled.
        const auto runner = network->CreateRunner(network, static_cast<int>(raw ? samples : kEvents));
        runner->normaliseRaw = false;
        BasecallNN::TransProbs transitions;
        runner->Call(events, Common::VecView<float>(signal.data(), signal.size(), 1), 4000.0f, transitions, 1e-5f,
                     -1, -1, true, true, false);
        fuzz::Check(runner->posteriors.rows <= kEvents, "no more posterior rows than events");
    });
    return 0;
}
