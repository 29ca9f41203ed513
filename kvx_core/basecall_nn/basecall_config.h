#pragma once
// The run's model and scoring settings, built once at set-up and then shared read-only by every
// caller. The one write after construction is event_stride, before the first caller is made.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "basecall_nn/nn_loader.h"

namespace BasecallNN {

// The values a BasecallConfig takes from the run's parameters, with the parameters' defaults.
struct BasecallSettings {
    std::string model_file;
    float qscore_offset = 0.0f;
    float qscore_scale = 1.0f;
    float temp_weight = 1.0f;
    float temp_bias = 1.0f;
    float stay_penalty = 1.0f;
    bool hp_correct = true;
};

class BasecallConfig {
public:
    // Parses the model (see NNLoader for its messages) and asks it for raw_model, model_stride and
    // model_size.
    BasecallConfig(const std::string& id, const BasecallSettings& settings);
    BasecallConfig(const BasecallConfig&) = delete;
    BasecallConfig& operator=(const BasecallConfig&) = delete;

    std::string id;          // identifier, empty in this program
    std::string model_file;  // path of the JSON model
    NNLoader loader;         // parsed model
    float qscore_offset;
    float qscore_scale;
    float temp_weight;
    float temp_bias;
    float stay_penalty;
    bool hp_correct;
    bool raw_model;              // the model takes raw signal, not events
    std::uint64_t model_stride;  // input samples per output row
    std::uint64_t model_size;    // k of the model's k-mer states
    std::uint64_t event_stride;  // 0; set from winsize1 for an event model
};

class BasecallConfigManager {
public:
    // Returns the new configuration's identifier: its index.
    std::size_t AddConfig(std::shared_ptr<BasecallConfig> config);
    // Throws "Invalid baseacall config ID" for an unknown identifier.
    std::shared_ptr<BasecallConfig> GetConfig(std::size_t id) const;

private:
    std::vector<std::shared_ptr<BasecallConfig>> configs;
};

}  // namespace BasecallNN
