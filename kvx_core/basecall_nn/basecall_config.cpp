#include "basecall_nn/basecall_config.h"

#include <stdexcept>

namespace BasecallNN {

BasecallConfig::BasecallConfig(const std::string& id_, const BasecallSettings& settings)
    : id(id_),
      model_file(settings.model_file),
      loader(settings.model_file, settings.temp_weight, settings.temp_bias),
      qscore_offset(settings.qscore_offset),
      qscore_scale(settings.qscore_scale),
      temp_weight(settings.temp_weight),
      temp_bias(settings.temp_bias),
      stay_penalty(settings.stay_penalty),
      hp_correct(settings.hp_correct),
      raw_model(loader.IsRawModel()),
      model_stride(loader.GetEventStride()),
      model_size(loader.GetLablLength()),
      event_stride(0) {}

std::size_t BasecallConfigManager::AddConfig(std::shared_ptr<BasecallConfig> config) {
    configs.push_back(std::move(config));
    return configs.size() - 1;
}

std::shared_ptr<BasecallConfig> BasecallConfigManager::GetConfig(std::size_t id) const {
    if (id >= configs.size()) {
        throw std::runtime_error("Invalid baseacall config ID");
    }
    return configs[id];
}

}  // namespace BasecallNN
