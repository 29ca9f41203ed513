#include "read_simulator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <tuple>

namespace TestBed {

namespace {
constexpr int kKmer = 6;
constexpr double kOpenPore = 215.0;   // picoamperes of an empty pore
constexpr const char* kAdapter = "GGCGTCTGCTTGGGTGTTTAACCTTTTTGTCAGAGAGGTTCCAAGTCAGAGAGGTTCCT";

int baseIndex(char b) {
    switch (b) {
        case 'A': return 0;
        case 'C': return 1;
        case 'G': return 2;
        case 'T': return 3;
        default: return -1;
    }
}
}  // namespace

ReadSimulator::ReadSimulator(const SimulatorOptions& options, const DigitiserSettings& digitiser, PoreLevels levels,
                             std::string genome)
    : m_options(options), m_digitiser(digitiser), m_levels(std::move(levels)), m_genome(std::move(genome)),
      m_rng(options.seed) {
    if (m_levels.level_mean.size() != 4096 || m_levels.level_stdv.size() != 4096) {
        throw std::runtime_error("The pore model must have 4096 6-mer levels.");
    }
    if (m_options.min_length < 50 || m_options.max_length < m_options.min_length) {
        throw std::runtime_error("Molecule lengths must satisfy 50 <= min_length <= max_length.");
    }
    validateSignalSettings();
    if (m_genome.empty()) {
        m_genome = RandomGenome(m_options.genome_length, m_rng);
    }
    if (m_genome.size() < m_options.max_length) {
        throw std::runtime_error("The genome is shorter than the longest molecule.");
    }
    for (std::uint32_t r = 0; r < std::max(1u, m_options.run_count); ++r) {
        // Run ids look like the 40-digit hexadecimal identifiers of real runs.
        std::string id;
        std::uniform_int_distribution<int> hex(0, 15);
        for (int i = 0; i < 40; ++i) {
            id.push_back("0123456789abcdef"[hex(m_rng)]);
        }
        m_runIds.push_back(id);
    }
}

std::string ReadSimulator::RandomGenome(std::uint32_t length, std::mt19937_64& rng) {
    std::uniform_int_distribution<int> base(0, 3);
    std::string g(length, 'A');
    for (auto& c : g) {
        c = "ACGT"[base(rng)];
    }
    return g;
}

std::string ReadSimulator::ReverseComplement(const std::string& seq) {
    std::string rc(seq.rbegin(), seq.rend());
    for (auto& c : rc) {
        switch (c) {
            case 'A': c = 'T'; break;
            case 'C': c = 'G'; break;
            case 'G': c = 'C'; break;
            case 'T': c = 'A'; break;
            default: c = 'N';
        }
    }
    return rc;
}

std::string ReadSimulator::randomReadId() {
    // A version-4 UUID in its usual text form.
    std::uniform_int_distribution<int> hex(0, 15);
    std::string id;
    for (int i = 0; i < 36; ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            id.push_back('-');
        } else if (i == 14) {
            id.push_back('4');
        } else if (i == 19) {
            id.push_back("89ab"[hex(m_rng) & 3]);
        } else {
            id.push_back("0123456789abcdef"[hex(m_rng)]);
        }
    }
    return id;
}

void ReadSimulator::validateSignalSettings() const {
    const auto fail = [](const std::string& what) { throw std::runtime_error(what); };
    const SimulatorOptions& o = m_options;
    for (double v : {o.mean_dwell, o.dwell_shape, o.noise_scale, o.drift_pa, o.drift_scale, o.drift_period_min,
                     o.drift_period_max, o.scale_spread, o.offset_spread, o.leader_dwell_factor}) {
        if (!std::isfinite(v)) {
            fail("Every signal setting must be a finite number.");
        }
    }
    // Negated comparisons so that NaN is refused as well.
    if (!(o.mean_dwell >= 1.0)) {
        fail("mean_dwell must be at least 1 sample per base.");
    }
    if (!(o.dwell_shape > 0.0)) {
        fail("dwell_shape must be more than 0.");
    }
    if (!(o.noise_scale >= 0.0)) {
        fail("noise_scale must be 0 or more.");
    }
    if (!(o.drift_pa >= 0.0) || !(o.drift_scale >= 0.0)) {
        fail("drift_scale must be 0 or more.");
    }
    if (!(o.drift_period_min > 0.0) || !(o.drift_period_max >= o.drift_period_min)) {
        fail("The drift period must satisfy 0 < drift_period_min <= drift_period_max.");
    }
    // Beyond 0.2 a read's gain could come out negative (a five-sigma draw), which no pore does.
    if (!(o.scale_spread >= 0.0 && o.scale_spread <= 0.2)) {
        fail("scale_spread must lie between 0 and 0.2.");
    }
    if (!(o.offset_spread >= 0.0)) {
        fail("offset_spread must be 0 or more.");
    }
    // The upper bound also catches a negative number wrapped round by the unsigned option parser.
    if (o.open_pore_max < o.open_pore_min || o.open_pore_max > 1000000) {
        fail("The open-pore stretch must satisfy open_pore_min <= open_pore_max <= 1000000 samples.");
    }
    if (!(o.leader_dwell_factor > 0.0 && o.leader_dwell_factor <= 100.0)) {
        fail("leader_dwell_factor must be more than 0 and at most 100.");
    }
    const DigitiserSettings& d = m_digitiser;
    // Readers take the offset as a 16-bit integer, so a fractional one would shift every read.
    if (!(std::abs(d.offset) <= 32767.0) || d.offset != std::round(d.offset)) {
        fail("digitisation_offset must be a whole number between -32767 and 32767.");
    }
    // Twice the open-pore current must fit the 16-bit samples, or the signal would clip.
    const double minRange = 2.0 * kOpenPore * d.digitisation / (32767.0 - std::abs(d.offset));
    if (!(d.digitisation > 0.0) || !(d.range >= minRange)) {
        char text[160];
        std::snprintf(text, sizeof(text),
                      "digitisation_range must be at least %.0f pA with this offset, or the signal clips.",
                      std::ceil(minRange));
        fail(text);
    }
}

std::int16_t ReadSimulator::digitise(double picoamperes) const {
    const double raw = std::round(picoamperes * m_digitiser.digitisation / m_digitiser.range - m_digitiser.offset);
    return static_cast<std::int16_t>(std::clamp(raw, -32768.0, 32767.0));
}

void ReadSimulator::MakeSignal(SimulatedRead& read) {
    std::normal_distribution<double> unit(0.0, 1.0);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    // Each pore has its own gain and offset; the pipeline normalises them away. Every draw is taken
    // whatever the settings, so that changing one setting leaves the other draws of a seed alone.
    const double gain = 1.0 + m_options.scale_spread * unit(m_rng);
    const double shift = m_options.offset_spread * unit(m_rng);
    const double driftPeriod =
        m_options.drift_period_min + (m_options.drift_period_max - m_options.drift_period_min) * uniform(m_rng);
    const double driftPhase = 6.283185307 * uniform(m_rng);
    const double driftAmplitude = m_options.drift_pa * m_options.drift_scale;
    const double extraDwell = std::max(0.0, m_options.mean_dwell - 1.0);
    std::gamma_distribution<double> dwellDist(m_options.dwell_shape, extraDwell / m_options.dwell_shape);

    auto& raw = read.raw;
    raw.clear();
    auto emit = [&](double level, double noise, std::uint32_t samples) {
        const double spread = noise * m_options.noise_scale;
        for (std::uint32_t s = 0; s < samples; ++s) {
            const double t = static_cast<double>(raw.size());
            const double drift = driftAmplitude * std::sin(6.283185307 * t / driftPeriod + driftPhase);
            raw.push_back(digitise(gain * level + shift + drift + spread * unit(m_rng)));
        }
    };
    auto dwell = [&]() { return 1u + static_cast<std::uint32_t>(std::lround(extraDwell > 0 ? dwellDist(m_rng) : 0)); };

    read.median_before = kOpenPore + shift;
    if (m_options.adapter) {
        const std::uint32_t openPoreSpan = m_options.open_pore_max - m_options.open_pore_min;
        emit(kOpenPore, 2.5, m_options.open_pore_min + static_cast<std::uint32_t>(uniform(m_rng) * openPoreSpan));
        const std::string adapter(kAdapter);
        for (std::size_t i = 0; i + kKmer <= adapter.size(); ++i) {
            int idx = 0;
            for (int k = 0; k < kKmer; ++k) {
                idx = idx * 4 + baseIndex(adapter[i + k]);
            }
            // The adapter passes faster and with a damped level, as a leader does.
            const double leaderDwell = dwell() * m_options.leader_dwell_factor;
            emit(0.8 * m_levels.level_mean[idx] + 15.0, m_levels.level_stdv[idx],
                 std::max(1u, static_cast<std::uint32_t>(leaderDwell)));
        }
    }
    read.strand_start = raw.size();
    const std::string& seq = read.sequence;
    read.base_starts.assign(seq.size(), 0);
    int idx = 0;
    for (std::size_t j = 0; j < seq.size(); ++j) {
        const int b = baseIndex(seq[j]);
        if (b < 0) {
            throw std::runtime_error("Molecule holds a base outside ACGT.");
        }
        idx = (idx * 4 + b) & 4095;
        if (j + 1 < static_cast<std::size_t>(kKmer)) {
            read.base_starts[j] = static_cast<std::uint32_t>(read.strand_start);
            continue;
        }
        read.base_starts[j] = static_cast<std::uint32_t>(raw.size());
        emit(m_levels.level_mean[idx], m_levels.level_stdv[idx], dwell());
    }
}

std::vector<SimulatedRead> ReadSimulator::Run(std::vector<SimulatedPair>& pairs) {
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    std::uniform_int_distribution<std::uint32_t> channelDist(1, std::max(1u, m_options.channels));
    const double logMin = std::log(static_cast<double>(m_options.min_length));
    const double logMax = std::log(static_cast<double>(m_options.max_length));

    // Per run and channel: the time (seconds) at which the pore is free again, and its read count.
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::pair<double, std::uint32_t>> pores;
    std::vector<SimulatedRead> reads;
    pairs.clear();

    auto place = [&](SimulatedRead& read, double gapMin, double gapMax) {
        auto& pore = pores[{read.run_index, read.channel}];
        pore.first += gapMin + (gapMax - gapMin) * uniform(m_rng);
        read.start_sample = static_cast<std::uint64_t>(pore.first * m_options.sampling_rate);
        read.read_number = ++pore.second;
        MakeSignal(read);
        pore.first = static_cast<double>(read.start_sample + read.raw.size()) / m_options.sampling_rate;
    };

    for (std::uint32_t m = 0; m < m_options.molecules; ++m) {
        // Lengths are log-uniform: as many short molecules as long ones per doubling.
        const auto length = static_cast<std::uint32_t>(std::exp(logMin + (logMax - logMin) * uniform(m_rng)));
        std::uniform_int_distribution<std::size_t> startDist(0, m_genome.size() - length);
        const std::size_t start = startDist(m_rng);
        std::string molecule = m_genome.substr(start, length);
        if (uniform(m_rng) < 0.5) {
            molecule = ReverseComplement(molecule);
        }

        SimulatedRead first;
        first.read_id = randomReadId();
        first.run_index = m % static_cast<std::uint32_t>(m_runIds.size());
        first.run_id = m_runIds[first.run_index];
        first.channel = channelDist(m_rng);
        first.molecule = m;
        first.strand = 1;
        first.sequence = molecule;
        place(first, m_options.other_gap_min, m_options.other_gap_max);
        reads.push_back(std::move(first));

        if (uniform(m_rng) < m_options.pair_fraction) {
            const SimulatedRead& f = reads.back();
            SimulatedRead second;
            second.read_id = randomReadId();
            second.run_index = f.run_index;
            second.run_id = f.run_id;
            second.channel = f.channel;
            second.molecule = m;
            second.strand = 2;
            second.sequence = ReverseComplement(molecule);
            place(second, m_options.pair_gap_min, m_options.pair_gap_max);
            pairs.push_back({reads.back().read_id, second.read_id});
            reads.push_back(std::move(second));
        }
    }
    std::stable_sort(reads.begin(), reads.end(), [](const SimulatedRead& a, const SimulatedRead& b) {
        return std::tie(a.run_index, a.channel, a.start_sample) < std::tie(b.run_index, b.channel, b.start_sample);
    });
    return reads;
}

}  // namespace TestBed
