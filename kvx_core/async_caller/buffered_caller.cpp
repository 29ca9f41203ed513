#include "async_caller/buffered_caller.h"

#include <stdexcept>

namespace AsyncCaller {

BufferedCaller::BufferedCaller(std::unique_ptr<ChunkCaller> engine, std::int32_t dimension_, std::uint64_t chunk_size_,
                               std::uint64_t stride_, std::uint64_t overlap_, std::uint64_t soft_limit_,
                               float qscore_offset_, float qscore_scale_)
    : CallerBuffer(dimension_, chunk_size_, stride_, overlap_, soft_limit_), caller(std::move(engine)) {
    if (!caller) {
        throw std::runtime_error("BufferedCaller needs a chunk caller.");
    }
    if (dimension == 1 && dynamic_cast<ChunkCallerMD*>(caller.get()) == nullptr) {
        throw std::runtime_error("A two-dimensional BufferedCaller needs a two-dimensional chunk caller.");
    }
    qscore_offset = qscore_offset_;
    qscore_scale = qscore_scale_;
    startWorker();
}

BufferedCaller::~BufferedCaller() {
    // The worker uses the engine: it must be gone before the engine is.
    stopWorker();
}

bool BufferedCaller::IsBusy() {
    if (failed) {
        rethrowStoredFailure();
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(engine_mutex);
        if (!caller) {
            return false;
        }
    }
    // A chunk counts until it is back in its read: `working` covers the engine's finished but not yet
    // collected chunks, which IsWorking alone would miss.
    if (chunksInFlight()) {
        return true;
    }
    std::lock_guard<std::mutex> lock(engine_mutex);
    return caller && caller->IsWorking();
}

void BufferedCaller::OnWorkerExit() {
    std::unique_ptr<ChunkCaller> engine;
    {
        std::lock_guard<std::mutex> lock(engine_mutex);
        engine = std::move(caller);
    }
    // Destroyed here, on the Caller worker, so that the engine's threads end on this thread.
    engine.reset();
}

bool BufferedCaller::FeedChunks() { return feedChunks(*caller); }

void BufferedCaller::CollectChunks(bool wait) { collectChunks(*caller, wait); }

void BufferedCaller::SetEventDetection(std::uint64_t winsize1, std::uint64_t winsize2, float threshold1,
                                       float threshold2, float peak_height) {
    if (dimension != 1) {
        throw std::runtime_error("SetEventDetection() method not supported for 1d basecalling.");
    }
    std::lock_guard<std::mutex> lock(engine_mutex);
    if (auto* md = dynamic_cast<ChunkCallerMD*>(caller.get())) {
        md->SetEventDetection(winsize1, winsize2, threshold1, threshold2, peak_height);
    }
}

}  // namespace AsyncCaller
