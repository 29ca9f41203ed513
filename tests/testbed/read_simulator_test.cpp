#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <set>
#include <string>

#include <boost/filesystem.hpp>

#include "common/kmer_table.h"
#include "data_api/attribute_map.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"
#include "data_api/read_data.h"
#include "pair_list.h"
#include "read_simulator.h"
#include "simulation_writer.h"
#include "testbed_util.h"

using namespace TestBed;

namespace {
SimulatorOptions SmallOptions(std::uint64_t seed) {
    SimulatorOptions o;
    o.seed = seed;
    o.molecules = 24;
    o.min_length = 300;
    o.max_length = 900;
    o.channels = 4;  // several molecules per pore, so unrelated neighbours are tried by the pairing rule
    o.genome_length = 20000;
    return o;
}

int KmerIndex(const std::string& seq, std::size_t end) {
    int idx = 0;
    for (std::size_t k = end - 5; k <= end; ++k) {
        idx = idx * 4 + static_cast<int>(std::string("ACGT").find(seq[k]));
    }
    return idx;
}
}  // namespace

TEST(ReadSimulator, SignalFollowsThePoreModelAndTheTruth) {
    const PoreLevels levels = ShippedLevels();
    DigitiserSettings dig;
    ReadSimulator sim(SmallOptions(3), dig, levels, "");
    std::vector<SimulatedPair> pairs;
    const auto reads = sim.Run(pairs);
    ASSERT_FALSE(reads.empty());
    const double scale = dig.range / dig.digitisation;
    for (const auto& r : reads) {
        ASSERT_EQ(r.base_starts.size(), r.sequence.size());
        EXPECT_GT(r.strand_start, 0u) << "the adapter stretch comes first";
        // Each 6-mer's samples average near its level: compare event means with the table.
        std::vector<double> observed, expected;
        for (std::size_t j = 5; j + 1 < r.sequence.size(); ++j) {
            ASSERT_LT(r.base_starts[j], r.base_starts[j + 1]) << "every base dwells at least one sample";
            double sum = 0;
            for (auto s = r.base_starts[j]; s < r.base_starts[j + 1]; ++s) {
                sum += (r.raw[s] + dig.offset) * scale;
            }
            observed.push_back(sum / (r.base_starts[j + 1] - r.base_starts[j]));
            expected.push_back(levels.level_mean[KmerIndex(r.sequence, j)]);
        }
        const double mo = std::accumulate(observed.begin(), observed.end(), 0.0) / observed.size();
        const double me = std::accumulate(expected.begin(), expected.end(), 0.0) / expected.size();
        double sxy = 0, sxx = 0, syy = 0;
        for (std::size_t i = 0; i < observed.size(); ++i) {
            sxy += (observed[i] - mo) * (expected[i] - me);
            sxx += (observed[i] - mo) * (observed[i] - mo);
            syy += (expected[i] - me) * (expected[i] - me);
        }
        EXPECT_GT(sxy / std::sqrt(sxx * syy), 0.9) << r.read_id;
        const double dwell = double(r.raw.size() - r.strand_start) / (r.sequence.size() - 5);
        EXPECT_NEAR(dwell, 9.0, 1.5);
    }
    // Pairs: strand 2 is the reverse complement, on the same pore, less than 0.5 s later.
    std::map<std::string, const SimulatedRead*> byId;
    for (const auto& r : reads) {
        byId[r.read_id] = &r;
    }
    ASSERT_FALSE(pairs.empty());
    for (const auto& p : pairs) {
        const auto* a = byId.at(p.read_id1);
        const auto* b = byId.at(p.read_id2);
        EXPECT_EQ(b->sequence, ReadSimulator::ReverseComplement(a->sequence));
        EXPECT_EQ(a->channel, b->channel);
        EXPECT_EQ(a->run_id, b->run_id);
        const double gap = double(b->start_sample) / 4000.0 - double(a->start_sample + a->raw.size()) / 4000.0;
        EXPECT_GT(gap, 0.0);
        EXPECT_LT(gap, 0.5);
    }
    // Same seed, same data.
    ReadSimulator again(SmallOptions(3), dig, levels, "");
    std::vector<SimulatedPair> pairs2;
    const auto reads2 = again.Run(pairs2);
    ASSERT_EQ(reads2.size(), reads.size());
    EXPECT_EQ(reads2.front().raw, reads.front().raw);
    EXPECT_EQ(reads2.back().read_id, reads.back().read_id);
}

TEST(ReadSimulator, WrittenFilesReadBackAndPairAsTheTruthSays) {
    const TestSupport::TempDir temp;
    const auto& dir = temp.path;
    DigitiserSettings dig;
    dig.offset = 40.0;  // not the defaults, so that the files are seen to carry the simulator's own
    dig.range = 1800.0;
    ReadSimulator sim(SmallOptions(11), dig, ShippedLevels(), "");
    std::vector<SimulatedPair> pairs;
    const auto reads = sim.Run(pairs);
    WriterOptions wo;
    wo.output_dir = dir.string();
    wo.reads_per_file = 7;
    wo.legacy_fraction = 0.25;
    SimulationWriter writer(wo, dig, 4000.0, sim.RunIds());
    const auto placed = writer.Write(reads, pairs);

    // Every read comes back through the project's reader with its signal and metadata.
    std::set<std::string> runIds;
    bool sawLegacy = false, sawMulti = false;
    for (const auto& w : placed) {
        DataAPI::Rawh5::ReadSource source((dir / "reads" / w.filename).string(), DataAPI::H5Wrapper::H5Mode::ReadOnly);
        (source.IsMultiRead() ? sawMulti : sawLegacy) = true;
        auto read = source.GetRead(w.read->read_id);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->Duration(), w.read->raw.size());
        EXPECT_EQ(read->RunId(), w.read->run_id);
        EXPECT_DOUBLE_EQ(read->SamplingRate(), 4000.0);
        EXPECT_EQ(read->GetRawData(), w.read->raw);
        EXPECT_EQ(read->Metadata().count("context_tags"), 1u);
        const auto& channel = read->Metadata().at("channel_id");
        EXPECT_EQ(DataAPI::GenericCast<double>(channel.at("offset")), dig.offset);
        EXPECT_EQ(DataAPI::GenericCast<double>(channel.at("range")), dig.range);
        runIds.insert(read->RunId());
    }
    EXPECT_TRUE(sawLegacy);
    EXPECT_TRUE(sawMulti);
    EXPECT_GE(runIds.size(), 2u);

    // The pairing rule over the reference index finds exactly the true pairs.
    const auto found = Marlo::FindReadPairs((dir / "reference_index.tsv").string(), (dir / "reads").string(), false,
                                            nullptr);
    EXPECT_EQ(IdPairs(found), IdPairs(pairs));

    // An ordinary HDF5 consumer sees the attribute kinds the reader requires.
    const std::string script = std::string(KVX_SOURCE_DIR) + "/tests/testbed/check_simulated_files.py";
    const std::string cmd = "/usr/bin/python3 " + script + " " + (dir / "reads").string();
    EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

namespace {
// What one read's signal shows when measured against its truth: the per-base events that base_starts
// mark out, and the pore table's levels.
struct Measured {
    SimulatedRead read;
    std::vector<double> pa;           // the signal in picoamperes, scaled with the read's own digitiser
    double eventSpread = 0;           // pooled spread of the samples around their own event's mean
    double gain = 0, shift = 0;       // least-squares line of the event means against the table's levels
    std::vector<double> residual;     // strand samples minus that line: drift and noise
    double driftRms = 0;              // spread of the residual averaged over blocks of 200 samples
    double meanDwell = 0, dwellVariance = 0;  // samples per base
    std::size_t openPore = 0;         // leading samples at the open-pore current
    std::size_t leader = 0;           // samples between the open pore and the strand
};

Measured Measure(const SimulatorOptions& options, const DigitiserSettings& dig, const PoreLevels& levels) {
    ReadSimulator sim(options, dig, levels, "");
    std::vector<SimulatedPair> pairs;
    Measured m;
    m.read = sim.Run(pairs).front();
    const SimulatedRead& r = m.read;
    for (auto v : r.raw) {
        m.pa.push_back((v + dig.offset) * dig.range / dig.digitisation);
    }
    m.openPore = std::find_if(m.pa.begin(), m.pa.end(), [](double x) { return x < 170.0; }) - m.pa.begin();
    m.leader = r.strand_start - m.openPore;

    const std::size_t n = r.sequence.size();
    auto eventEnd = [&](std::size_t j) { return j + 1 < n ? r.base_starts[j + 1] : m.pa.size(); };
    std::vector<double> means, table, dwells;
    double squares = 0, freedom = 0;
    for (std::size_t j = 5; j < n; ++j) {
        double sum = 0;
        for (auto s = r.base_starts[j]; s < eventEnd(j); ++s) {
            sum += m.pa[s];
        }
        const double count = double(eventEnd(j) - r.base_starts[j]);
        means.push_back(sum / count);
        for (auto s = r.base_starts[j]; s < eventEnd(j); ++s) {
            squares += (m.pa[s] - means.back()) * (m.pa[s] - means.back());
        }
        freedom += count - 1;
        table.push_back(levels.level_mean[KmerIndex(r.sequence, j)]);
        if (j + 1 < n) {
            dwells.push_back(count);
        }
    }
    m.eventSpread = std::sqrt(squares / freedom);
    auto mean = [](const std::vector<double>& v) { return std::accumulate(v.begin(), v.end(), 0.0) / v.size(); };
    auto covariance = [&](const std::vector<double>& x, const std::vector<double>& y) {
        const double mx = mean(x), my = mean(y);
        double s = 0;
        for (std::size_t i = 0; i < x.size(); ++i) {
            s += (x[i] - mx) * (y[i] - my);
        }
        return s / (x.size() - 1);
    };
    auto variance = [&](const std::vector<double>& v) { return covariance(v, v); };
    m.gain = covariance(table, means) / variance(table);
    m.shift = mean(means) - m.gain * mean(table);
    for (std::size_t j = 5; j < n; ++j) {
        for (auto s = r.base_starts[j]; s < eventEnd(j); ++s) {
            m.residual.push_back(m.pa[s] - m.gain * table[j - 5] - m.shift);
        }
    }
    std::vector<double> blocks;
    for (std::size_t b = 0; b + 200 <= m.residual.size(); b += 200) {
        blocks.push_back(std::accumulate(m.residual.begin() + b, m.residual.begin() + b + 200, 0.0) / 200);
    }
    m.driftRms = std::sqrt(variance(blocks));
    m.meanDwell = mean(dwells);
    m.dwellVariance = variance(dwells);
    return m;
}

// Amplitude of the sinusoid of the given period in the residual.
double AmplitudeAt(const std::vector<double>& residual, double period) {
    double a = 0, b = 0;
    for (std::size_t s = 0; s < residual.size(); ++s) {
        a += residual[s] * std::sin(6.283185307 * s / period);
        b += residual[s] * std::cos(6.283185307 * s / period);
    }
    return 2.0 * std::hypot(a, b) / residual.size();
}
}  // namespace

// Each signal setting, changed alone from its default with the same seed, changes the signal the way
// its name says and leaves the molecule, the read id and (where it does not touch timing) the base
// starts as they were.
TEST(ReadSimulator, EachSignalSettingChangesWhatItsNameSays) {
    enum Timing { kSameTiming, kNewTiming };
    struct Case {
        const char* name;
        std::function<void(SimulatorOptions&, DigitiserSettings&)> change;
        Timing timing;
        std::function<void(const Measured& before, const Measured& after)> expect;
    };
    auto samePicoamperes = [](const Measured& before, const Measured& after) {
        EXPECT_NE(before.read.raw, after.read.raw);
        double worst = 0;
        for (std::size_t s = 0; s < before.pa.size(); ++s) {
            worst = std::max(worst, std::abs(after.pa[s] - before.pa[s]));
        }
        EXPECT_LE(worst, 0.2) << "more than a digitisation step apart";  // steps are 0.17 and 0.22 pA
    };
    const std::vector<Case> cases = {
        {"noise_scale 2", [](auto& o, auto&) { o.noise_scale = 2.0; }, kSameTiming,
         [](const Measured& b, const Measured& a) { EXPECT_NEAR(a.eventSpread / b.eventSpread, 2.0, 0.1); }},
        {"mean_dwell 12", [](auto& o, auto&) { o.mean_dwell = 12.0; }, kNewTiming,
         [](const Measured& b, const Measured& a) {
             EXPECT_NEAR(b.meanDwell, 9.0, 0.4);
             EXPECT_NEAR(a.meanDwell, 12.0, 0.4);
         }},
        {"dwell_shape 12", [](auto& o, auto&) { o.dwell_shape = 12.0; }, kNewTiming,
         [](const Measured& b, const Measured& a) {
             // A gamma of shape k and mean 8 beyond the first sample varies by 64 / k.
             EXPECT_NEAR(b.dwellVariance / (64.0 / 3.0), 1.0, 0.2);
             EXPECT_NEAR(a.dwellVariance / (64.0 / 12.0), 1.0, 0.2);
             EXPECT_NEAR(a.meanDwell, 9.0, 0.4);
         }},
        {"drift_scale 2", [](auto& o, auto&) { o.drift_scale = 2.0; }, kSameTiming,
         [](const Measured& b, const Measured& a) {
             EXPECT_GT(b.driftRms, 0.5);
             EXPECT_NEAR(a.driftRms / b.driftRms, 2.0, 0.15);
         }},
        {"drift period 1500", [](auto& o, auto&) { o.drift_period_min = o.drift_period_max = 1500.0; }, kSameTiming,
         [](const Measured& b, const Measured& a) {
             EXPECT_LT(AmplitudeAt(b.residual, 1500.0), 0.5);
             EXPECT_NEAR(AmplitudeAt(a.residual, 1500.0), 1.5, 0.2);
         }},
        {"scale_spread 0", [](auto& o, auto&) { o.scale_spread = 0.0; }, kSameTiming,
         [](const Measured& b, const Measured& a) {
             EXPECT_GT(std::abs(b.gain - 1.0), 0.02) << "this seed's gain should be visibly off 1";
             EXPECT_NEAR(a.gain, 1.0, 0.006);
         }},
        {"offset_spread 0", [](auto& o, auto&) { o.offset_spread = 0.0; }, kSameTiming,
         [](const Measured& b, const Measured& a) {
             EXPECT_GT(std::abs(b.shift), 2.0) << "this seed's shift should be visibly off 0";
             EXPECT_NEAR(a.shift, 0.0, 0.7);
         }},
        {"digitisation_offset 40", [](auto&, auto& d) { d.offset = 40.0; }, kSameTiming, samePicoamperes},
        {"digitisation_range 1800", [](auto&, auto& d) { d.range = 1800.0; }, kSameTiming, samePicoamperes},
        // Every sample takes a noise draw, so a longer open pore or leader moves the strand's draws.
        {"open pore 2000", [](auto& o, auto&) { o.open_pore_min = o.open_pore_max = 2000; }, kNewTiming,
         [](const Measured& b, const Measured& a) {
             EXPECT_GE(b.openPore, 400u);
             EXPECT_LT(b.openPore, 1200u);
             EXPECT_EQ(a.openPore, 2000u);
         }},
        {"leader_dwell_factor 2", [](auto& o, auto&) { o.leader_dwell_factor = 2.0; }, kNewTiming,
         [](const Measured& b, const Measured& a) {
             EXPECT_EQ(a.openPore, b.openPore);
             // From half a base's dwell, rounded down, to twice it: about 4.25 to 18 samples a 6-mer. Over
             // some fifty adapter 6-mers each mean is good to about 7 %.
             EXPECT_NEAR(double(a.leader) / b.leader, 18.0 / 4.25, 1.2);
         }},
    };

    const PoreLevels levels = ShippedLevels();
    SimulatorOptions base;
    base.seed = 5;
    base.molecules = 1;
    base.min_length = base.max_length = 4000;
    base.pair_fraction = 0.0;
    base.genome_length = 8000;
    const Measured before = Measure(base, DigitiserSettings{}, levels);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SimulatorOptions options = base;
        DigitiserSettings dig;
        c.change(options, dig);
        const Measured after = Measure(options, dig, levels);
        EXPECT_EQ(after.read.sequence, before.read.sequence);
        EXPECT_EQ(after.read.read_id, before.read.read_id);
        if (c.timing == kSameTiming) {
            EXPECT_EQ(after.read.strand_start, before.read.strand_start);
            EXPECT_EQ(after.read.base_starts, before.read.base_starts);
        }
        c.expect(before, after);
    }
}
