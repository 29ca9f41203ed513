#pragma once
// Read simulator of the test bed: turns molecules into raw pore-current signal with full truth.
//
// A strand moves through the pore one base at a time. While base j is the newest base in the pore,
// the current is set by the 6-mer ending at j; that level lasts for a random dwell of samples and is
// blurred by Gaussian noise and a slow drift. The first five bases enter together with the sixth, so
// base_starts[j] for j < 5 is the start of the first 6-mer.

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace TestBed {

struct PoreLevels {
    // Indexed by the 6-mer as a base-4 number, first base most significant (A=0, C=1, G=2, T=3).
    std::vector<float> level_mean;
    std::vector<float> level_stdv;
};

struct SimulatorOptions {
    std::uint64_t seed = 1;
    std::uint32_t molecules = 200;
    std::uint32_t min_length = 2000;
    std::uint32_t max_length = 20000;
    double pair_fraction = 0.7;         // molecules whose second strand follows on the same channel
    std::uint32_t channels = 64;
    std::uint32_t run_count = 2;
    double sampling_rate = 4000.0;
    double mean_dwell = 9.0;            // samples per base
    double dwell_shape = 3.0;           // gamma shape of the dwell beyond its one-sample minimum
    double pair_gap_min = 0.05, pair_gap_max = 0.45;      // seconds between the strands of a pair
    double other_gap_min = 1.0, other_gap_max = 20.0;     // seconds before an unrelated read
    bool adapter = true;                // an open-pore and adapter stretch before each strand
    std::uint32_t open_pore_min = 400;  // samples of open pore before the adapter, drawn per read
    std::uint32_t open_pore_max = 1200; //   from [min, max), or exactly min when they are equal
    double leader_dwell_factor = 0.5;   // an adapter 6-mer lasts this share of a strand base's dwell
    double noise_scale = 1.0;           // multiplies the Gaussian spread of the samples around every level
    double drift_pa = 1.5;              // amplitude of the slow drift, picoamperes
    double drift_scale = 1.0;           // multiplies drift_pa
    double drift_period_min = 2000.0;   // samples; each read draws its drift period from [min, max]
    double drift_period_max = 8000.0;
    double scale_spread = 0.04;         // standard deviation of the per-read gain around 1
    double offset_spread = 3.0;         // standard deviation of the per-read shift, picoamperes
    std::uint32_t genome_length = 500000;  // random genome when no FASTA is given
};

struct DigitiserSettings {
    // Picoamperes = (raw + offset) * range / digitisation. The reads carry these values, so readers
    // scale each read with its own settings.
    double digitisation = 8192.0;
    double range = 1402.0;
    double offset = 12.0;
};

// One simulated read with its truth.
struct SimulatedRead {
    std::string read_id;
    std::string run_id;
    std::uint32_t run_index = 0;
    std::uint32_t channel = 0;          // 1-based
    std::uint32_t read_number = 0;      // per channel and run
    std::uint64_t start_sample = 0;     // since the start of the run
    std::uint32_t molecule = 0;
    int strand = 1;                     // 1 forward, 2 reverse complement
    std::string sequence;               // true bases of the strand
    std::vector<std::int16_t> raw;      // digitised signal
    std::uint64_t strand_start = 0;     // first sample of the strand (after the adapter stretch)
    std::vector<std::uint32_t> base_starts;  // sample at which each base arrives, relative to the read
    double median_before = 0.0;
};

struct SimulatedPair {
    std::string read_id1;
    std::string read_id2;
};

class ReadSimulator {
public:
    ReadSimulator(const SimulatorOptions& options, const DigitiserSettings& digitiser, PoreLevels levels,
                  std::string genome);

    // Draws every molecule, lays the reads out on channels and makes their signal. Reads come back
    // ordered by run, channel and time.
    std::vector<SimulatedRead> Run(std::vector<SimulatedPair>& pairs);

    // Signal for one strand: appends to read.raw and fills strand_start and base_starts.
    void MakeSignal(SimulatedRead& read);

    static std::string ReverseComplement(const std::string& seq);
    static std::string RandomGenome(std::uint32_t length, std::mt19937_64& rng);

    const std::vector<std::string>& RunIds() const { return m_runIds; }

private:
    void validateSignalSettings() const;
    std::int16_t digitise(double picoamperes) const;
    std::string randomReadId();

    SimulatorOptions m_options;
    DigitiserSettings m_digitiser;
    PoreLevels m_levels;
    std::string m_genome;
    std::mt19937_64 m_rng;
    std::vector<std::string> m_runIds;
};

}  // namespace TestBed
