#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <numeric>
#include <set>
#include <string>
#include <tuple>

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
    SimulatorOptions o = SmallSet(seed, 24, 300, 900, 20000);
    o.channels = 4;  // several molecules per pore, so unrelated neighbours are tried by the pairing rule
    return o;
}

double Mean(const std::vector<double>& v) { return std::accumulate(v.begin(), v.end(), 0.0) / v.size(); }
double Covariance(const std::vector<double>& x, const std::vector<double>& y) {
    const double mx = Mean(x), my = Mean(y);
    double s = 0;
    for (std::size_t i = 0; i < x.size(); ++i) s += (x[i] - mx) * (y[i] - my);
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
        for (auto s = r.base_starts[j]; s < r.base_starts[j + 1]; ++s) sum += (r.raw[s] + dig.offset) * scale;
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
    for (const auto& r : reads) {
        ASSERT_EQ(r.base_starts.size(), r.sequence.size());
        EXPECT_GT(r.strand_start, 0u) << "the adapter stretch comes first";
        const Measured m = Measure(r, dig, levels);
        EXPECT_GT(m.correlation, 0.9) << r.read_id;
        EXPECT_NEAR(m.meanDwell, 9.0, 1.5) << r.read_id;
        EXPECT_NEAR(m.noise, 1.0, 0.2) << r.read_id;
    }
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
    // With no spread of gain and offset, the levels are the table's whatever the digitiser.
    SimulatorOptions plain = SmallOptions(4);
    plain.scale_spread = plain.offset_spread = 0.0;
    const PoreLevels levels = ShippedLevels();
    ReadSimulator sim(plain, dig, levels, "");
    std::vector<SimulatedPair> pairs;
    const auto simulated = sim.Run(pairs);  // the placed reads point into it
    WriterOptions wo;
    std::tie(wo.output_dir, wo.reads_per_file, wo.legacy_fraction) = std::make_tuple(temp.Str(), 7, 0.25);
    const auto placed = SimulationWriter(wo, dig, 4000.0, sim.RunIds()).Write(simulated, pairs);

    // Every read comes back through the project's reader with its signal and metadata.
    std::set<std::string> runIds;
    bool sawLegacy = false, sawMulti = false;
    for (const auto& w : placed) {
        DataAPI::Rawh5::ReadSource source((reads / w.filename).string(), DataAPI::H5Wrapper::H5Mode::ReadOnly);
        (source.IsMultiRead() ? sawMulti : sawLegacy) = true;
        auto read = source.GetRead(w.read->read_id);
        ASSERT_TRUE(read);
        const Measured m = Measure(*w.read, dig, levels);
        EXPECT_NEAR(m.gain, 1.0, 0.01) << w.read->read_id;
        EXPECT_NEAR(m.shift, 0.0, 1.5) << w.read->read_id;
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
    EXPECT_TRUE(sawLegacy && sawMulti);
    EXPECT_GE(runIds.size(), 2u);

    const std::string index = (temp.path / "reference_index.tsv").string();
    EXPECT_EQ(IdPairs(Marlo::FindReadPairs(index, reads.string(), false, nullptr)), IdPairs(pairs));

    // An ordinary HDF5 consumer sees the attribute kinds the reader requires.
    const std::string cmd = "/usr/bin/python3 " KVX_SOURCE_DIR "/tests/testbed/check_simulated_files.py " + reads.string();
    EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
}
