#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>

#include <boost/filesystem.hpp>

#include "../data_api/test_files.h"
#include "async_caller/file_data_handler_md.h"
#include "async_caller/prior_aligner.h"
#include "common/kmer_table.h"
#include "common/table_reader.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"
#include "decoders/fast_align.h"
#include "decoders/mismatch_table.h"
#include "mismatch_estimator.h"
#include "pair_list.h"
#include "read_annotator.h"
#include "read_simulator.h"
#include "simulation_writer.h"
#include "single_strand_run.h"
#include "stored_call.h"
#include "strand_segmenter.h"
#include "testbed_util.h"

using namespace TestBed;
namespace fs = boost::filesystem;

namespace {

using TestSupport::TempDir;

// A small raw transducer model in the file format the loader reads: the shipped model's convolution
// shape (window 11, stride 3) and a softmax over 1024 5-mers and the stay column, with seeded random
// weights. It calls nonsense, but every kind of move, and runs in milliseconds.
void WriteTinyModel(const std::string& path, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    const int conv = 4;
    std::ostringstream out;
    out.precision(7);
    out << R"({"type":"serial","meta":{"feature_function":"raw","transducer":true,"kmer_length":5,"stride":3},)"
        << R"("sublayers":[{"type":"convolution","insize":1,"size":)" << conv
        << R"(,"winlen":11,"stride":3,"padding":[4,6],"activation":"tanh","params":{"W":[)";
    for (int o = 0; o < conv; ++o) {
        out << (o ? ",[" : "[");
        for (int w = 0; w < 11; ++w) {
            out << (w ? "," : "") << normal(rng);
        }
        out << "]";
    }
    out << R"(],"b":[)";
    for (int o = 0; o < conv; ++o) {
        out << (o ? "," : "") << 0.0f;
    }
    out << R"(]}},{"type":"softmax","insize":)" << conv << R"(,"size":1025,"params":{"W":[)";
    for (int s = 0; s < 1025; ++s) {
        out << (s ? ",[" : "[");
        for (int i = 0; i < conv; ++i) {
            out << (i ? "," : "") << 2.0f * normal(rng);
        }
        out << "]";
    }
    // The stay column comes first in the file; a strong bias makes most rows stays, as in real data.
    out << R"(],"b":[)" << 6.0f;
    for (int s = 1; s < 1025; ++s) {
        out << "," << 0.0f;
    }
    out << "]}}]}";
    std::ofstream(path) << out.str();
}

// A simulated data set of a few short molecules, every one with both strands.
struct SmallDataSet {
    TempDir dir;
    std::vector<SimulatedRead> reads;
    std::vector<SimulatedPair> pairs;
    std::vector<WrittenRead> placed;

    explicit SmallDataSet(std::uint64_t seed, std::uint32_t molecules = 5) {
        SimulatorOptions o;
        o.seed = seed;
        o.molecules = molecules;
        o.min_length = 250;
        o.max_length = 500;
        o.pair_fraction = 1.0;
        o.channels = 3;
        o.genome_length = 5000;
        ReadSimulator sim(o, DigitiserSettings{}, ShippedLevels(), "");
        reads = sim.Run(pairs);
        WriterOptions w;
        w.output_dir = dir.path.string();
        w.reads_per_file = 4;
        w.legacy_fraction = 0.3;
        w.seed = seed;
        SimulationWriter writer(w, DigitiserSettings{}, o.sampling_rate, sim.RunIds());
        placed = writer.Write(reads, pairs);
    }
    std::string Reads() const { return (dir.path / "reads").string(); }
};

SingleStrandOptions RunOptions(const std::string& input, const std::string& save, const std::string& model) {
    SingleStrandOptions o;
    o.input_path = input;
    o.save_path = save;
    o.model_file = model;
    o.workers = 2;
    o.progress = false;
    return o;
}

std::string Slurp(const fs::path& path) { return TestSupport::ReadText(path.string()); }

int LabelOf(const std::string& bases) {
    int label = 0;
    for (char b : bases) {
        label = label * 4 + static_cast<int>(std::string("ACGT").find(b));
    }
    return label;
}

std::string ReverseComplement(const std::string& s) { return ReadSimulator::ReverseComplement(s); }

// The pair run's loader, for reading labels back as the pair run will.
struct PairLoader {
    std::vector<int> scores = std::vector<int>(64 * 64, 0);
    AsyncCaller::PriorAligner aligner{PairAlignment::FastAlign(Common::MatView<const int>(scores.data(), 64, 64, 64, 1),
                                                               {300, 300, 500, 300, 300, 500}, 1001)};
    AsyncCaller::FileDataHandlerMD handler{3, aligner, 1, nullptr, 0};
};

}  // namespace

TEST(StrandSegmenter, SkipsOpenPoreAndLeader) {
    std::mt19937 rng(5);
    std::normal_distribution<float> noise(0.0f, 2.5f);
    std::uniform_real_distribution<float> level(60.0f, 130.0f);
    std::vector<float> signal;
    for (int i = 0; i < 700; ++i) {
        // A single dip inside the open pore must not end it.
        signal.push_back(i == 300 ? 90.0f : 215.0f + noise(rng));
    }
    for (int e = 0; e < 800; ++e) {
        const float l = level(rng);
        for (int s = 0; s < 5; ++s) {
            signal.push_back(l + noise(rng));
        }
    }
    SegmenterSettings settings;
    const StrandSegmenter segmenter(settings);
    const Segmentation seg = segmenter.Find(signal.data(), signal.size());
    EXPECT_TRUE(seg.open_pore_found);
    EXPECT_EQ(seg.open_pore_end, 700u);
    EXPECT_EQ(seg.first_sample, 700u + settings.adapter_samples);
    EXPECT_EQ(seg.first_sample + seg.duration, signal.size());

    // Without an open pore the strand starts at once.
    const std::vector<float> strand(signal.begin() + 700, signal.end());
    const Segmentation plain = segmenter.Find(strand.data(), strand.size());
    EXPECT_FALSE(plain.open_pore_found);
    EXPECT_EQ(plain.first_sample, 0u);
    EXPECT_EQ(plain.duration, strand.size());

    // An open pore with hardly anything behind it is no strand.
    const std::vector<float> empty(signal.begin(), signal.begin() + 800);
    EXPECT_THROW(segmenter.Find(empty.data(), empty.size()), std::runtime_error);
}

TEST(StrandSegmenter, FindsTheSimulatedStrandStart) {
    SimulatorOptions o;
    o.seed = 11;
    o.molecules = 30;
    o.min_length = 200;
    o.max_length = 300;
    o.genome_length = 5000;
    DigitiserSettings dig;
    ReadSimulator sim(o, dig, ShippedLevels(), "");
    std::vector<SimulatedPair> pairs;
    const auto reads = sim.Run(pairs);
    const StrandSegmenter segmenter;
    const float scale = static_cast<float>(dig.range / dig.digitisation);
    double sumError = 0.0;
    for (const auto& r : reads) {
        std::vector<float> pa;
        for (auto x : r.raw) {
            pa.push_back((static_cast<float>(x) + static_cast<float>(dig.offset)) * scale);
        }
        const Segmentation seg = segmenter.Find(pa.data(), pa.size());
        const double error = static_cast<double>(seg.first_sample) - static_cast<double>(r.strand_start);
        // The leader's length varies by about 17 samples; 80 would be nine bases off.
        EXPECT_LT(std::fabs(error), 80.0) << r.read_id;
        sumError += std::fabs(error);
    }
    EXPECT_LT(sumError / reads.size(), 25.0);
}

TEST(MeanQscore, AveragesErrorProbabilities) {
    EXPECT_FLOAT_EQ(MeanQscore(""), 0.0f);
    EXPECT_NEAR(MeanQscore("++++"), 10.0f, 1e-4);  // '+' is q 10
    // q 10 and q 30: errors 0.1 and 0.001 average to 0.0505, q 12.97.
    EXPECT_NEAR(MeanQscore("+?"), 12.967f, 1e-3);
}

TEST(SingleStrandRun, AnnotatesEveryReadForThePairRun) {
    SmallDataSet data(21);
    TempDir work;
    const std::string model = (work.path / "tiny.json").string();
    WriteTinyModel(model, 3);
    const fs::path save = work.path / "out";

    const auto summary = SingleStrandRun(RunOptions(data.Reads(), save.string(), model)).Run();
    EXPECT_EQ(summary.reads, data.reads.size());
    EXPECT_EQ(summary.annotated, data.reads.size());
    EXPECT_EQ(summary.failed, 0u);

    // The index: one row per read, the columns the pair run requires, times from the read's own clock.
    Common::TableReader index;
    index.Read((save / SingleStrandRun::kIndexName).string());
    for (const char* name : {"filename", "read_id", "run_id", "channel", "start_time", "duration",
                             "sequence_length_template", "mean_qscore_template"}) {
        ASSERT_GE(index.ColumnIndex(name), 0) << name;
    }
    std::vector<std::string> ids, files;
    std::vector<double> starts, durations, lengths;
    index.GetColumn(index.ColumnIndex("read_id"), ids, std::string());
    index.GetColumn(index.ColumnIndex("filename"), files, std::string());
    index.GetColumn(index.ColumnIndex("start_time"), starts, 0.0);
    index.GetColumn(index.ColumnIndex("duration"), durations, 0.0);
    index.GetColumn(index.ColumnIndex("sequence_length_template"), lengths, 0.0);
    ASSERT_EQ(ids.size(), data.reads.size());
    std::map<std::string, const WrittenRead*> byId;
    for (const auto& w : data.placed) {
        byId[w.read->read_id] = &w;
    }
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const WrittenRead& w = *byId.at(ids[i]);
        EXPECT_EQ(files[i], w.filename);
        EXPECT_NEAR(starts[i], w.read->start_sample / 4000.0, 1e-6);
        EXPECT_NEAR(durations[i], w.read->raw.size() / 4000.0, 1e-6);
        EXPECT_GT(lengths[i], 5.0) << "the tiny model still calls more than one k-mer";
    }

    // Pairing over this index finds exactly the true pairs.
    const auto found = Marlo::FindReadPairs((save / SingleStrandRun::kIndexName).string(), data.Reads(), false, nullptr);
    EXPECT_EQ(IdPairs(found), IdPairs(data.pairs));

    // In every read: the stored moves and FASTQ agree (k = L + 1 - sum of moves), the blocks cover the
    // strand, and the pair run's loader turns them into the labels of the called 3-mers.
    const std::string fastq = Slurp(save / SingleStrandRun::kFastqName);
    PairLoader loader;
    std::set<int> moveKinds;
    for (const auto& w : data.placed) {
        const SimulatedRead& truthRead = *w.read;
        DataAPI::Rawh5::ReadSource source((fs::path(data.Reads()) / w.filename).string(),
                                          DataAPI::H5Wrapper::H5Mode::ReadOnly);
        auto read = source.GetRead(truthRead.read_id);
        const StoredCall call = ReadStoredCall(*read);
        EXPECT_EQ(call.segmentation_analysis, "Segmentation_000");
        EXPECT_EQ(call.basecall_analysis, "Basecall_1D_000");
        EXPECT_EQ(call.KmerLength(), 5) << truthRead.read_id;
        EXPECT_EQ(call.block_stride, 3u);
        EXPECT_EQ(call.first_sample + call.duration, truthRead.raw.size());
        ASSERT_EQ(call.moves.size(), call.duration / 3);
        EXPECT_EQ(call.moves[0], 1);
        EXPECT_EQ(call.fastq.rfind("@" + truthRead.read_id + " runid=" + truthRead.run_id, 0), 0u);
        EXPECT_NE(fastq.find(call.fastq), std::string::npos) << "the FASTQ output holds the stored record";
        for (auto m : call.moves) {
            moveKinds.insert(m);
        }

        for (bool second : {false, true}) {
            AsyncCaller::FileDataHandler::RawRead raw;
            AsyncCaller::FileDataHandlerMD::PriorReadInfo info;
            ASSERT_TRUE(loader.handler.loadReadAndLabels(read, raw, info, second)) << truthRead.read_id;
            EXPECT_EQ(info.first_sample, call.first_sample);
            EXPECT_EQ(info.duration, call.duration);
            EXPECT_EQ(info.stride, 3u);
            ASSERT_EQ(info.labels.size(), call.moves.size());
            // Block e shows the central 3-mer of its 5-mer: bases from 1 + the moves after the first.
            std::size_t position = 1;
            const std::size_t blocks = call.moves.size();
            for (std::size_t e = 0; e < blocks; ++e) {
                position += e > 0 ? call.moves[e] : 0;
                const std::string bases = call.sequence.substr(position, 3);
                const int expected = second ? LabelOf(ReverseComplement(bases)) : LabelOf(bases);
                ASSERT_EQ(info.labels[second ? blocks - 1 - e : e], expected) << truthRead.read_id << " block " << e;
            }
        }
    }
    EXPECT_EQ(moveKinds, (std::set<int>{0, 1, 2})) << "stays, steps and skips are all stored";

    // The mismatch estimate can use every true pair of the run.
    const TruthEstimate estimate =
        EstimateFromTruth(data.dir.path.string(), (save / SingleStrandRun::kIndexName).string(), data.Reads());
    EXPECT_TRUE(estimate.skipped.empty()) << estimate.skipped.front();
    EXPECT_EQ(estimate.counts.Pairs(), data.pairs.size());
    EXPECT_GT(estimate.counts.TotalWeight(), 100.0);

    // A second run adds newer analyses, and those are the ones read back.
    SingleStrandRun(RunOptions(data.Reads(), (work.path / "again").string(), model)).Run();
    const WrittenRead& w = data.placed.front();
    DataAPI::Rawh5::ReadSource source((fs::path(data.Reads()) / w.filename).string(),
                                      DataAPI::H5Wrapper::H5Mode::ReadOnly);
    auto read = source.GetRead(w.read->read_id);
    const StoredCall again = ReadStoredCall(*read);
    EXPECT_EQ(again.segmentation_analysis, "Segmentation_001");
    EXPECT_EQ(again.basecall_analysis, "Basecall_1D_001");
}

TEST(SingleStrandRun, ListsFailedReadsAndGoesOn) {
    SmallDataSet data(22, 2);
    TempDir work;
    const std::string model = (work.path / "tiny.json").string();
    WriteTinyModel(model, 4);
    // Not an HDF5 file at all, and a read too short to hold a strand.
    std::ofstream((fs::path(data.Reads()) / "broken.rawh5").string()) << "not a read file";
    {
        DataAPI::Rawh5::ReadSource source((fs::path(data.Reads()) / "short.rawh5").string(),
                                          DataAPI::H5Wrapper::H5Mode::CreateTruncate);
        SimulatedRead r = data.reads.front();
        r.read_id = "short-read";
        r.raw.resize(r.strand_start - 150);  // open pore and part of the leader only
        auto read = source.AddRead(r.read_id);
        read->SetMetadata(kvx_test::MetadataFor(r.read_id, static_cast<unsigned int>(r.raw.size()), 1));
        read->SetRawData(r.raw);
        source.Close();
    }
    const fs::path save = work.path / "out";
    const auto summary = SingleStrandRun(RunOptions(data.Reads(), save.string(), model)).Run();
    EXPECT_EQ(summary.annotated, data.reads.size());
    EXPECT_EQ(summary.failed, 2u);
    const std::string failed = Slurp(save / SingleStrandRun::kFailedName);
    EXPECT_NE(failed.find("broken.rawh5\t*\tCould not open the read file"), std::string::npos) << failed;
    EXPECT_NE(failed.find("short.rawh5\tshort-read\tNo strand found"), std::string::npos) << failed;
}

TEST(MismatchCounts, ConditionalRowsWithoutZeros) {
    MismatchCounts counts;
    // Two strand-1 blocks at position 10 meet two strand-2 blocks there; one block each at 11.
    counts.AddPair({5, 5, 7, 9}, {10, 10, 11, -1}, {5, 6, 7}, {10, 10, 11});
    EXPECT_DOUBLE_EQ(counts.Weight(5, 5), 1.0);
    EXPECT_DOUBLE_EQ(counts.Weight(5, 6), 1.0);
    EXPECT_DOUBLE_EQ(counts.Weight(7, 7), 1.0);
    EXPECT_DOUBLE_EQ(counts.Weight(9, 9), 0.0) << "blocks without a position are left out";
    EXPECT_DOUBLE_EQ(counts.TotalWeight(), 3.0);
    EXPECT_THROW(counts.AddPair({1}, {}, {}, {}), std::runtime_error);

    const auto table = counts.ConditionalTable(0.5);
    ASSERT_EQ(table.size(), 4096u);
    for (int a = 0; a < 64; ++a) {
        double row = 0.0;
        for (int b = 0; b < 64; ++b) {
            EXPECT_GT(table[a * 64 + b], 0.0);
            row += table[a * 64 + b];
        }
        EXPECT_NEAR(row, 1.0, 1e-12);
    }
    EXPECT_NEAR(table[5 * 64 + 5], 1.5 / 34.0, 1e-12);
    EXPECT_NEAR(table[7 * 64 + 7], 1.5 / 33.0, 1e-12);
    EXPECT_NEAR(table[0], 1.0 / 64.0, 1e-12) << "an unseen row is uniform";
    EXPECT_THROW(counts.ConditionalTable(0.0), std::runtime_error);

    // Written and read back by the prior aligner's own reader.
    TempDir dir;
    const std::string path = (dir.path / "table.txt").string();
    {
        std::ofstream out(path);
        WriteMismatchTable(out, table);
    }
    const auto matrix = PairAlignment::LoadMismatchMatrix(path);
    ASSERT_EQ(matrix.values.size(), 4096u);
    EXPECT_EQ(matrix.values[5 * 64 + 5], static_cast<int>(std::log(static_cast<float>(1.5 / 34.0)) * 100.0f));
}

TEST(MismatchEstimate, PerfectCallsGiveADiagonalTable) {
    // Calls made from the truth itself: every block shows the 5-mer ending at the last base that has
    // arrived. Both strands then agree on every label at every molecule position, so all the weight
    // must fall on the diagonal; a strand-2 label or position in the wrong orientation would scatter it.
    SmallDataSet data(23, 4);
    std::string index = IndexHeader();
    for (const auto& w : data.placed) {
        const SimulatedRead& r = *w.read;
        StrandCall call;
        call.segmentation.first_sample = r.strand_start;
        call.segmentation.duration = r.raw.size() - r.strand_start;
        call.block_stride = 3;
        call.kmer_length = 5;
        const std::size_t blocks = call.segmentation.duration / 3;
        std::size_t arrived = 0, firstLast = 0, previous = 0;
        for (std::size_t e = 0; e < blocks; ++e) {
            while (arrived < r.base_starts.size() && r.base_starts[arrived] <= r.strand_start + 3 * e + 2) {
                ++arrived;
            }
            const std::size_t last = arrived - 1;
            if (e == 0) {
                firstLast = last;
            }
            call.moves.push_back(static_cast<std::uint8_t>(e == 0 ? 1 : last - previous));
            previous = last;
        }
        call.sequence = r.sequence.substr(firstLast - 4, previous - firstLast + 5);
        call.qualities.assign(call.sequence.size(), 'I');
        DataAPI::Rawh5::ReadSource source((fs::path(data.Reads()) / w.filename).string(),
                                          DataAPI::H5Wrapper::H5Mode::ReadWrite);
        auto read = source.GetRead(r.read_id);
        ReadInfo info = ReadInfoOf(*read);
        info.filename = w.filename;
        WriteAnalyses(*read, call, FastqRecordText(info, call), AnnotationSource{"truth", "test"});
        index += IndexRow(info, call);
        read.reset();
        source.Close();
    }
    const std::string indexPath = (data.dir.path / "index_1d.tsv").string();
    std::ofstream(indexPath) << index;

    const TruthEstimate estimate = EstimateFromTruth(data.dir.path.string(), indexPath, data.Reads());
    EXPECT_TRUE(estimate.skipped.empty()) << estimate.skipped.front();
    EXPECT_EQ(estimate.counts.Pairs(), data.pairs.size());
    double diagonal = 0.0;
    for (int a = 0; a < 64; ++a) {
        diagonal += estimate.counts.Weight(a, a);
    }
    EXPECT_GT(estimate.counts.TotalWeight(), 1000.0);
    EXPECT_DOUBLE_EQ(diagonal, estimate.counts.TotalWeight());
}

TEST(BlockPositions, PlacesLabelsOnTheMolecule) {
    // Ten bases; the first five arrive with the sixth at sample 0, then one base every 3 samples.
    std::vector<std::uint64_t> starts{0, 0, 0, 0, 0, 0, 3, 6, 9, 12};
    // Blocks of 3 samples from sample 0: the last base arrived by block e is base 5 + e.
    const auto forward = BlockPositions(starts, 0, 3, 5, 5, false);
    EXPECT_EQ(forward, (std::vector<std::int64_t>{2, 3, 4, 5, 6}));
    // Strand 2 counts from the other end of the molecule, and its blocks are reversed.
    const auto backward = BlockPositions(starts, 0, 3, 5, 5, true);
    EXPECT_EQ(backward, (std::vector<std::int64_t>{1, 2, 3, 4, 5}));
    // A 3-mer model shows the newest three bases; blocks before the first k-mer is whole have no place.
    std::vector<std::uint64_t> late{3, 3, 3, 6, 9};
    EXPECT_EQ(BlockPositions(late, 0, 3, 4, 3, false), (std::vector<std::int64_t>{-1, 0, 1, 2}));
}

TEST(ShippedMismatchTable, IsAConditionalTableOfTheRightShape) {
    const std::string path = std::string(KVX_SOURCE_DIR) + "/data/mismatch_table_r1.txt";
    ASSERT_TRUE(fs::exists(path)) << "ship the table made by estimate_mismatch_table";
    Common::TableReader table;
    table.Read(path);
    const int column = table.ColumnIndex("prob");
    ASSERT_GE(column, 0);
    std::vector<double> p;
    table.GetColumn(column, p, 0.0);
    ASSERT_EQ(p.size(), 4096u);
    for (int a = 0; a < 64; ++a) {
        double row = 0.0;
        int best = 0;
        for (int b = 0; b < 64; ++b) {
            ASSERT_GT(p[a * 64 + b], 0.0) << a << ", " << b;
            row += p[a * 64 + b];
            best = p[a * 64 + b] > p[a * 64 + best] ? b : best;
        }
        EXPECT_NEAR(row, 1.0, 1e-6) << "row " << a;
        EXPECT_EQ(best, a) << "a label is most often read as itself on the other strand";
    }
    EXPECT_EQ(PairAlignment::LoadMismatchMatrix(path).values.size(), 4096u);
}
