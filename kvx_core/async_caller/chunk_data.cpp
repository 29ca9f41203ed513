#include "async_caller/chunk_data.h"

namespace AsyncCaller {

ChunkData::~ChunkData() = default;

void ChunkDataMD::Clear() {
    raw1 = Common::VecView<float>();
    raw2 = Common::VecView<float>();
    events1 = 0;
    events2 = 0;
    priorSamples.clear();
    priorStep = 0;
    score = 0.0f;
}

void ChunkData1D::Clear() {
    raw = Common::VecView<float>();
    events = 0;
    states.clear();
    moves.clear();
    weights.clear();
    posteriors.clear();
    posterior_cols = 0;
    score = 0.0f;
}

}  // namespace AsyncCaller
