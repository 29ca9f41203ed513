#pragma once
// The processor chunk caller of strand pairs. Each worker runs the network over both strands at once
// (a runner for each, the recurrent layers stepping them together), turns strand 2's posteriors
// around (reversed in time and complemented, so both strands read the same way on the same strand),
// lays a band around the prior map and decodes both with the two-dimensional Viterbi. The merged
// posteriors along the joint path give bases and qualities.
//
// Raw models take the chunk's samples, stride by stride; event models take the events that the
// detector finds in them (settings from SetEventDetection).
//
// Memory: every runner and decoder is allocated up front at its full size. Each worker's decoder
// holds maxEvents * 5 * band_size band cells of 3 * 4^k integers (pages it never reaches stay
// uncommitted), and each of its two runners' buffers is sized for maxEvents input events (times the
// stride in samples for a raw model). Steady running allocates only the chunk's own results.

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "async_caller/chunk_caller_pool.h"
#include "basecall_nn/nn_caller.h"
#include "basecall_nn/nn_loader.h"
#include "basecall_nn/nn_runner.h"
#include "common/event_data.h"
#include "decoders/quality_matrix.h"
#include "decoders/viterbi_md.h"

namespace AsyncCaller {

// The state of the reverse complement of each k-mer state, two bits a base (A, C, G, T = 0 to 3).
std::vector<int> ReverseComplementStates(std::uint64_t kmerLength);

// Strand 2's posteriors turned to read like strand 1's: row i of `out` (dense, rows by cols) is row
// rows - 1 - i of `from`, each state s taking the value of state complement[s].
void ReverseComplementRows(const Common::MatView<const float>& from, const std::vector<int>& complement, float* out);

class ChunkCallerMDCpu : public ChunkCallerPool<ChunkCallerMD> {
public:
    // Loads the model into a fresh processor network shared by the workers. `threads` 0 runs the one
    // worker on the submitting thread. Throws "Cannot use Flipflop model for Md basecall." for a
    // flip-flop model.
    ChunkCallerMDCpu(std::uint64_t threads, std::uint64_t chunk_size, int band_size, const BasecallNN::NNLoader& model);
    // The same over a network already loaded.
    ChunkCallerMDCpu(std::uint64_t threads, std::uint64_t chunk_size, int band_size,
                     std::shared_ptr<const BasecallNN::NNCaller> network);
    ~ChunkCallerMDCpu() override;

    void SetEventDetection(std::uint64_t winsize1, std::uint64_t winsize2, float threshold1, float threshold2,
                           float peak_height) override;

    // Work done so far, summed over the workers: chunks decoded, their events on both strands, and the
    // steady-clock time spent in the network, in the two-dimensional decode and in all of a chunk.
    struct Timing {
        std::uint64_t chunks = 0;
        std::uint64_t events = 0;
        std::uint64_t network_ns = 0;
        std::uint64_t decode_ns = 0;
        std::uint64_t total_ns = 0;
    };
    Timing Timings() const;

    const std::uint64_t chunk_size;
    const bool isRaw;
    const bool isTransducer;
    const std::uint64_t stride;
    const std::uint64_t kmerLength;
    std::uint64_t winsize1 = 0;
    std::uint64_t winsize2 = 0;
    float threshold1 = 0.0f;
    float threshold2 = 0.0f;
    float peakHeight = 0.0f;
    const std::uint64_t maxEvents;
    const int band_size;
    float qscore_offset = 0.0f;
    float qscore_scale = 1.0f;

protected:
    void processChunk(ChunkData& chunk, int worker) override;

private:
    // One worker's runner, decoder and scratch.
    struct Resources {
        std::shared_ptr<BasecallNN::NNRunner> runner, runner2;  // strand 1, strand 2
        std::shared_ptr<BasecallMD::ViterbiMD> decoder;
        Common::EventData<Common::Deep> events1, events2;
        std::vector<float> post1, post2, stay1, stay2, merged, quality;
        std::vector<int> bandStart, bandEnd, startScores;
        std::vector<std::pair<int, int>> alignment;
        std::vector<short> states;
        std::atomic<std::uint64_t> chunks{0}, events{0}, networkNs{0}, decodeNs{0}, totalNs{0};
    };

    void callPair(ChunkDataMD& chunk, Resources& r);
    // A strand's stays and skip from its call, and its posteriors (rows by states, dense): the
    // runner's own rows for strand 1, a copy in `post` reversed and complemented for strand 2. Null
    // when the call failed.
    float* takeStrand(const BasecallNN::NNRunner& runner, const BasecallNN::TransProbs& trans, bool second,
                      std::vector<float>& post, std::vector<float>& stay, float& skip, std::uint64_t& rows);

    std::shared_ptr<const BasecallNN::NNCaller> caller;
    std::vector<std::unique_ptr<Resources>> resources;
    std::vector<int> complementState;  // reverse complement of each state
    std::unique_ptr<BasecallHMM::QualityMatrix> qualityMatrix;
    std::uint64_t numStates;
};

}  // namespace AsyncCaller
