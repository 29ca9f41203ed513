#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <string>

#include <boost/filesystem.hpp>

#include "common/kmer_table.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"
#include "data_api/read_data.h"
#include "pair_list.h"
#include "read_simulator.h"
#include "simulation_writer.h"

using namespace TestBed;

namespace {
PoreLevels ShippedLevels() {
    Common::KmerTable table;
    table.Read(std::string(KVX_SOURCE_DIR) + "/data/pore_model_6mer.txt", 6);
    return {table.level_mean, table.level_stdv};
}

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
    const auto dir = boost::filesystem::path(testing::TempDir()) / "kvx_sim_test";
    boost::filesystem::remove_all(dir);
    DigitiserSettings dig;
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
        runIds.insert(read->RunId());
    }
    EXPECT_TRUE(sawLegacy);
    EXPECT_TRUE(sawMulti);
    EXPECT_GE(runIds.size(), 2u);

    // The pairing rule over the reference index finds exactly the true pairs.
    const auto found = Marlo::FindReadPairs((dir / "reference_index.tsv").string(), (dir / "reads").string(), false,
                                            nullptr);
    std::set<std::pair<std::string, std::string>> truth, got;
    for (const auto& p : pairs) {
        truth.insert({p.read_id1, p.read_id2});
    }
    for (const auto& p : found) {
        got.insert({p.read_id1, p.read_id2});
    }
    EXPECT_EQ(got, truth);

    // An ordinary HDF5 consumer sees the attribute kinds the reader requires.
    const std::string script = std::string(KVX_SOURCE_DIR) + "/tests/testbed/check_simulated_files.py";
    const std::string cmd = "/usr/bin/python3 " + script + " " + (dir / "reads").string();
    EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
    boost::filesystem::remove_all(dir);
}
