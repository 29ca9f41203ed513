#pragma once
// Finds where the DNA strand begins in a read's signal.
//
// A read opens with the empty pore, whose current stands far above anything a strand gives, and then
// the leader (adapter) threads through, faster than the strand, before the strand itself. The
// detector is deliberately simple:
//
// 1. Open pore. The level of the open pore is taken as the median of the first `probe_samples`
//    samples, and the strand's as the median of the last `probe_samples` (the read ends inside the
//    strand; the median of the whole read would be the open pore's in a read that is mostly open
//    pore). If the first lies less than `min_open_pore_step` picoamperes above the second, the read
//    has no open-pore stretch and the strand is taken to start at sample 0. Otherwise the open pore
//    ends at the first sample from which `quiet_samples` samples in a row all lie below the midpoint
//    between the two levels.
// 2. Leader. Its levels change about twice as fast as the strand's and look much like them, so the
//    boundary cannot be told reliably from the current alone (rate-change detectors over the leader's
//    ~250 samples miss by 50 to 100 samples). What is known is its length: a fixed sequence of levels
//    at about half the strand's dwell. The strand starts `adapter_samples` after the open pore ends;
//    the default of 230 is the leader's mean duration at 4 kHz, and the spread of the true duration
//    around it is about 17 samples (two bases).
//
// The strand runs to the end of the read; nothing trails it.

#include <cstdint>

namespace TestBed {

struct SegmenterSettings {
    double min_open_pore_step = 40.0;    // picoamperes above the strand's level that mark an open pore
    std::uint64_t probe_samples = 100;   // samples at each end of the read that measure the two levels
    std::uint64_t quiet_samples = 50;    // samples in a row below the midpoint that end the open pore
    std::uint64_t adapter_samples = 230; // leader duration skipped after the open pore
    std::uint64_t min_strand_samples = 30;  // shorter strands are refused
};

struct Segmentation {
    std::uint64_t first_sample = 0;    // first sample of the strand
    std::uint64_t duration = 0;        // samples from first_sample to the end of the read
    bool open_pore_found = false;
    std::uint64_t open_pore_end = 0;   // first sample after the open pore (0 if none)
};

class StrandSegmenter {
public:
    explicit StrandSegmenter(const SegmenterSettings& settings = SegmenterSettings());

    // Segments `n` samples in picoamperes. Throws std::runtime_error when fewer than
    // min_strand_samples are left for the strand.
    Segmentation Find(const float* picoamperes, std::uint64_t n) const;

    const SegmenterSettings& Settings() const { return settings; }

private:
    SegmenterSettings settings;
};

}  // namespace TestBed
