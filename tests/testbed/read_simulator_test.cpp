#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <numeric>
#include <set>
#include <string>

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

double Mean(const std::vector<double>& v) { return std::accumulate(v.begin(), v.end(), 0.0) / v.size(); }
double Covariance(const std::vector<double>& x, const std::vector<double>& y) {
    const double mx = Mean(x), my = Mean(y);
    double s = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        s += (x[i] - mx) * (y[i] - my);
    }
    return s / (x.size() - 1);
}

// How one read's signal follows its truth: the mean of each base's event (as base_starts mark them
// out) correlated with the pore table's level of its 6-mer, the samples per base, and the spread of
// the samples around their event's mean over the spread the table gives its 6-mer (pooled).
struct Measured {
    double correlation = 0;
    double meanDwell = 0;
    double noise = 0;
    double gain = 0, shift = 0;  // least-squares line of the event means against the table's levels
};

Measured Measure(const SimulatedRead& r, const DigitiserSettings& dig, const PoreLevels& levels) {
    const double scale = dig.range / dig.digitisation;
    std::vector<double> means, table, dwells;
    double squares = 0, expected = 0;
    for (std::size_t j = 5; j + 1 < r.sequence.size(); ++j) {
        EXPECT_LT(r.base_starts[j], r.base_starts[j + 1]) << "every base dwells at least one sample";
        double sum = 0;
        for (auto s = r.base_starts[j]; s < r.base_starts[j + 1]; ++s) {
            sum += (r.raw[s] + dig.offset) * scale;
        }
        dwells.push_back(double(r.base_starts[j + 1] - r.base_starts[j]));
        means.push_back(sum / dwells.back());
        int kmer = 0;
        for (std::size_t k = j - 5; k <= j; ++k) {
            kmer = kmer * 4 + static_cast<int>(std::string("ACGT").find(r.sequence[k]));
        }
        table.push_back(levels.level_mean[kmer]);
        for (auto s = r.base_starts[j]; s < r.base_starts[j + 1]; ++s) {
            squares += std::pow((r.raw[s] + dig.offset) * scale - means.back(), 2);
        }
        expected += (dwells.back() - 1) * std::pow(levels.level_stdv[kmer], 2);
    }
    return {Covariance(table, means) / std::sqrt(Covariance(table, table) * Covariance(means, means)), Mean(dwells),
            std::sqrt(squares / expected), Covariance(table, means) / Covariance(table, table),
            Mean(means) - Covariance(table, means) / Covariance(table, table) * Mean(table)};
}
}  // namespace

TEST(ReadSimulator, SignalFollowsThePoreModelAndTheTruth) {
    const PoreLevels levels = ShippedLevels();
    DigitiserSettings dig;
    std::vector<SimulatedPair> pairs;
    const auto reads = ReadSimulator(SmallOptions(3), dig, levels, "").Run(pairs);
    ASSERT_FALSE(reads.empty());
    std::map<std::string, const SimulatedRead*> byId;
    for (const auto& r : reads) {
        ASSERT_EQ(r.base_starts.size(), r.sequence.size());
        EXPECT_GT(r.strand_start, 0u) << "the adapter stretch comes first";
        const Measured m = Measure(r, dig, levels);
        EXPECT_GT(m.correlation, 0.9) << r.read_id;
        EXPECT_NEAR(m.meanDwell, 9.0, 1.5) << r.read_id;
        EXPECT_NEAR(m.noise, 1.0, 0.2) << r.read_id;
        byId[r.read_id] = &r;
    }
    // Pairs: strand 2 is the reverse complement, on the same pore, less than 0.5 s later.
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
    // With no spread of gain and offset, and a digitiser of its own, the levels are the table's.
    SimulatorOptions plain = SmallOptions(4);
    plain.scale_spread = plain.offset_spread = 0.0;
    DigitiserSettings own;
    own.offset = 40.0;
    own.range = 1800.0;
    for (const auto& r : ReadSimulator(plain, own, levels, "").Run(pairs)) {
        const Measured m = Measure(r, own, levels);
        EXPECT_NEAR(m.gain, 1.0, 0.01) << r.read_id;
        EXPECT_NEAR(m.shift, 0.0, 1.5) << r.read_id;
    }
    // Same seed, same data.
    std::vector<SimulatedPair> pairs2;
    const auto reads2 = ReadSimulator(SmallOptions(3), dig, levels, "").Run(pairs2);
    ASSERT_EQ(reads2.size(), reads.size());
    EXPECT_EQ(reads2.front().raw, reads.front().raw);
    EXPECT_EQ(reads2.back().read_id, reads.back().read_id);
}

TEST(ReadSimulator, WrittenFilesReadBackAndPairAsTheTruthSays) {
    const TestSupport::TempDir temp;
    const auto reads = temp.path / "reads";
    DigitiserSettings dig;
    dig.offset = 40.0;  // not the defaults, so that the files are seen to carry the simulator's own
    dig.range = 1800.0;
    ReadSimulator sim(SmallOptions(11), dig, ShippedLevels(), "");
    std::vector<SimulatedPair> pairs;
    const auto simulated = sim.Run(pairs);  // the placed reads point into it
    WriterOptions wo;
    wo.output_dir = temp.Str();
    wo.reads_per_file = 7;
    wo.legacy_fraction = 0.25;
    const auto placed = SimulationWriter(wo, dig, 4000.0, sim.RunIds()).Write(simulated, pairs);

    // Every read comes back through the project's reader with its signal and metadata.
    std::set<std::string> runIds;
    bool sawLegacy = false, sawMulti = false;
    for (const auto& w : placed) {
        DataAPI::Rawh5::ReadSource source((reads / w.filename).string(), DataAPI::H5Wrapper::H5Mode::ReadOnly);
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
    const std::string index = (temp.path / "reference_index.tsv").string();
    EXPECT_EQ(IdPairs(Marlo::FindReadPairs(index, reads.string(), false, nullptr)), IdPairs(pairs));

    // An ordinary HDF5 consumer sees the attribute kinds the reader requires.
    const std::string cmd = "/usr/bin/python3 " KVX_SOURCE_DIR "/tests/testbed/check_simulated_files.py " + reads.string();
    EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
}
