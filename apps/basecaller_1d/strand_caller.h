#pragma once
// Calls one read on its own: the signal is scaled to picoamperes and normalised by the median and MAD
// of the whole read (the same scaling the pair pipeline applies), the strand is found, and the
// network and its decoder run over the strand in whole blocks of the model's stride. The result holds
// what the pair run later reads back: the segmentation, one move per block, and the called sequence
// with its qualities.
//
// One StrandCaller per worker thread: it owns the network runner and its buffers, which grow to the
// longest strand seen (the 1025 outputs dominate: about 10 kB per block in the runner and the
// decoder together, so a process with one worker peaks at about 830 MB on 20 kb strands with the
// shipped model). The network is shared.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "async_caller/file_data_handler.h"
#include "basecall_nn/nn_caller.h"
#include "basecall_nn/nn_runner.h"
#include "strand_segmenter.h"

namespace TestBed {

// The shipped model's qualities, mapped so that a base printed as Q is wrong about 10^(-Q/10) of
// the time: fitted on held-out simulated reads by tools/calibration/fit_qscores.py, whose record
// (tools/calibration/qscore_calibration.json) a test holds these numbers to. Refit with a new model.
constexpr float kCalibratedQscoreScale = 1.18f;
constexpr float kCalibratedQscoreOffset = 4.9f;

struct StrandCallSettings {
    float qscore_offset = kCalibratedQscoreOffset;
    float qscore_scale = kCalibratedQscoreScale;
    float stay_penalty = 1.0f;          // scales the transducer's stay column; 1 is neutral
    bool homopolymer_correct = false;   // recount bases inside homopolymer runs from their dwell
    float sampling_rate = 4000.0f;      // for event models only; raw models ignore it
};

struct StrandCall {
    Segmentation segmentation;
    std::uint64_t block_stride = 0;     // samples per block (the model's stride)
    std::uint64_t kmer_length = 0;      // k of the model's states
    std::vector<std::uint8_t> moves;    // one per block: new bases since the previous block
    std::string sequence;
    std::string qualities;              // FASTQ characters, one per base
    float mean_qscore = 0.0f;
    float score = 0.0f;                 // the decoder's log score of the path end
    float median = 0.0f;                // picoamperes, whole read
    float mad = 0.0f;
};

// The mean quality of a read, taken over error probabilities: -10 log10(mean of 10^(-q/10)). 0 for
// an empty string.
float MeanQscore(const std::string& qualities);

class StrandCaller {
public:
    // Throws for a network that does not read raw signal or is a flip-flop model.
    StrandCaller(std::shared_ptr<const BasecallNN::NNCaller> network, const SegmenterSettings& segmenter,
                 const StrandCallSettings& settings);

    // Calls one read from its stored samples and calibration (picoamperes = (raw + offset) * scale).
    // Throws std::runtime_error when no strand is found or the decode fails.
    StrandCall Call(const std::vector<std::int16_t>& raw, std::int16_t offset, float scale);

    std::uint64_t Stride() const { return stride; }

private:
    std::shared_ptr<const BasecallNN::NNCaller> network;
    std::shared_ptr<BasecallNN::NNRunner> runner;
    StrandSegmenter segmenter;
    StrandCallSettings settings;
    AsyncCaller::FileDataHandler::FileProcessor processor;  // default scaling: measured median and MAD
    std::uint64_t stride;
    int kmerLength;
    std::vector<float> picoamperes;
    std::vector<float> normalised;
};

}  // namespace TestBed
