// The test bed: the read simulator, the single-strand step with its resume, and the mismatch estimate.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include <boost/filesystem.hpp>

#include "../common/test_support.h"
#include "../data_api/test_files.h"
#include "async_caller/file_data_handler_md.h"
#include "async_caller/prior_aligner.h"
#include "common/kmer_table.h"
#include "common/table_reader.h"
#include "data_api/attribute_map.h"
#include "data_api/rawh5_read_source.h"
#include "decoders/fast_align.h"
#include "decoders/mismatch_table.h"
#include "mismatch_estimator.h"
#include "pair_list.h"
#include "previous_run.h"
#include "read_annotator.h"
#include "read_simulator.h"
#include "simulation_writer.h"
#include "single_strand_run.h"
#include "stored_call.h"
#include "strand_segmenter.h"

using namespace TestBed;
namespace fs = boost::filesystem;

namespace {

using TestSupport::ReadText;
using TestSupport::TempDir;

PoreLevels ShippedLevels() {
    Common::KmerTable table;
    table.Read(std::string(KVX_SOURCE_DIR) + "/data/pore_model_6mer.txt", 6);
    return {table.level_mean, table.level_stdv};
}

SimulatorOptions SmallSet(std::uint64_t seed, std::uint32_t molecules, std::uint32_t minLength,
                                 std::uint32_t maxLength, std::uint32_t genomeLength = 5000) {
    SimulatorOptions o;
    std::tie(o.seed, o.molecules, o.min_length, o.max_length, o.genome_length) =
        std::make_tuple(seed, molecules, minLength, maxLength, genomeLength);
    return o;
}

template <typename Pairs>
std::set<std::pair<std::string, std::string>> IdPairs(const Pairs& pairs) {
    std::set<std::pair<std::string, std::string>> ids;
    for (const auto& p : pairs) ids.insert({p.read_id1, p.read_id2});
    return ids;
}

double Mean(const std::vector<double>& v) { return std::accumulate(v.begin(), v.end(), 0.0) / v.size(); }
double Covariance(const std::vector<double>& x, const std::vector<double>& y) {
    const double mx = Mean(x), my = Mean(y);
    double s = 0;
    for (std::size_t i = 0; i < x.size(); ++i) s += (x[i] - mx) * (y[i] - my);
    return s / (x.size() - 1);
}

// How a read's signal follows its truth: each base's event mean against its 6-mer's table level (correlation
// and line), samples per base, and the pooled spread around event means over the table's spread.
struct Measured {
    double correlation, meanDwell, noise;
    double gain, shift;  // least-squares line of the event means against the table's levels
};

Measured Measure(const SimulatedRead& r, const DigitiserSettings& dig, const PoreLevels& levels) {
    const double scale = dig.range / dig.digitisation;
    std::vector<double> means, table, dwells;
    double squares = 0, expected = 0;
    for (std::size_t j = 5; j + 1 < r.sequence.size(); ++j) {
        EXPECT_LT(r.base_starts[j], r.base_starts[j + 1]) << "every base dwells at least one sample";
        const std::vector<double> pa(r.raw.begin() + r.base_starts[j], r.raw.begin() + r.base_starts[j + 1]);
        dwells.push_back(double(pa.size()));
        means.push_back((Mean(pa) + dig.offset) * scale);
        int kmer = 0;
        for (std::size_t k = j - 5; k <= j; ++k) {
            kmer = kmer * 4 + static_cast<int>(std::string("ACGT").find(r.sequence[k]));
        }
        table.push_back(levels.level_mean[kmer]);
        for (const double x : pa) squares += std::pow((x + dig.offset) * scale - means.back(), 2);
        expected += (dwells.back() - 1) * std::pow(levels.level_stdv[kmer], 2);
    }
    return {Covariance(table, means) / std::sqrt(Covariance(table, table) * Covariance(means, means)), Mean(dwells),
            std::sqrt(squares / expected), Covariance(table, means) / Covariance(table, table),
            Mean(means) - Covariance(table, means) / Covariance(table, table) * Mean(table)};
}

// A tiny raw transducer model with the shipped model's convolution shape (window 11, stride 3) and seeded
// random weights: it calls nonsense, but every kind of move, in milliseconds.
void WriteTinyModel(const std::string& path, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    const auto matrix = [](int rows, int cols, const std::function<float()>& value) {
        std::ostringstream m;
        m.precision(7);
        for (int r = 0; r < rows; ++r) {
            m << (r ? ",[" : "[");
            for (int c = 0; c < cols; ++c) m << (c ? "," : "") << value();
            m << "]";
        }
        return m.str();
    };
    const auto draw = [&] { return normal(rng); };
    // The stay column comes first in the file; a strong bias makes most rows stays, as in real data.
    const std::string bias = "6," + matrix(1, 1024, [] { return 0.0f; }).substr(1);
    std::ofstream(path) << R"({"type":"serial","meta":{"feature_function":"raw","transducer":true,"kmer_length":5,"stride":3},)"
                        << R"("sublayers":[{"type":"convolution","insize":1,"size":4,"winlen":11,"stride":3,"padding":[4,6],)"
                        << R"("activation":"tanh","params":{"W":[)" << matrix(4, 11, draw) << R"(],"b":[0,0,0,0])"
                        << R"(}},{"type":"softmax","insize":4,"size":1025,"params":{"W":[)"
                        << matrix(1025, 4, [&] { return 2.0f * draw(); }) << R"(],"b":[)" << bias << "}}]}";
}

struct SmallDataSet {
    TempDir dir;
    std::vector<SimulatedRead> reads;
    std::vector<SimulatedPair> pairs;
    std::vector<WrittenRead> placed;

    explicit SmallDataSet(std::uint64_t seed, std::uint32_t molecules = 5) {
        SimulatorOptions o = SmallSet(seed, molecules, 250, 500);
        o.pair_fraction = 1.0;
        o.channels = 3;
        ReadSimulator sim(o, DigitiserSettings{}, ShippedLevels(), "");
        reads = sim.Run(pairs);
        WriterOptions w;
        w.output_dir = dir.Str();
        std::tie(w.reads_per_file, w.legacy_fraction, w.seed) = std::make_tuple(4, 0.3, seed);
        placed = SimulationWriter(w, DigitiserSettings{}, o.sampling_rate, sim.RunIds()).Write(reads, pairs);
    }
    std::string Reads() const { return (dir.path / "reads").string(); }
    DataAPI::Rawh5::ReadSource Open(const WrittenRead& w, DataAPI::H5Wrapper::H5Mode mode) const {
        return DataAPI::Rawh5::ReadSource((fs::path(Reads()) / w.filename).string(), mode);
    }
};

SingleStrandSummary RunStep(const std::string& input, const fs::path& save, const std::string& model) {
    SingleStrandOptions o;
    o.input_path = input;
    o.save_path = save.string();
    o.model_file = model;
    o.progress = false;
    return SingleStrandRun(o).Run();
}

int LabelOf(const std::string& bases) {
    int label = 0;
    for (char b : bases) label = label * 4 + static_cast<int>(std::string("ACGT").find(b));
    return label;
}

}  // namespace

// The strand start is found within a few bases of the truth.
TEST(StrandSegmenter, FindsTheSimulatedStrandStart) {
    const DigitiserSettings dig;
    std::vector<SimulatedPair> pairs;
    const auto reads = ReadSimulator(SmallSet(11, 30, 200, 300), dig, ShippedLevels(), "").Run(pairs);
    const StrandSegmenter segmenter;
    double sumError = 0.0;
    for (const auto& r : reads) {
        std::vector<float> pa;
        for (auto x : r.raw) pa.push_back(float((x + dig.offset) * dig.range / dig.digitisation));
        const Segmentation seg = segmenter.Find(pa.data(), pa.size());
        EXPECT_TRUE(seg.open_pore_found);
        EXPECT_EQ(seg.first_sample + seg.duration, pa.size());
        const double error = std::fabs(static_cast<double>(seg.first_sample) - static_cast<double>(r.strand_start));
        // The leader's length varies by about 17 samples; 80 would be nine bases off.
        EXPECT_LT(error, 80.0) << r.read_id;
        sumError += error;
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
    const std::string indexPath = (save / SingleStrandRun::kIndexName).string();
    // Not an HDF5 file at all, and a read too short to hold a strand, are listed as failed.
    std::ofstream((fs::path(data.Reads()) / "broken.rawh5").string()) << "not a read file";
    {
        DataAPI::Rawh5::ReadSource source((fs::path(data.Reads()) / "short.rawh5").string(),
                                          DataAPI::H5Wrapper::H5Mode::CreateTruncate);
        SimulatedRead r = data.reads.front();
        r.raw.resize(r.strand_start - 150);  // open pore and part of the leader only
        auto read = source.AddRead("short-read");
        read->SetMetadata(kvx_test::MetadataFor("short-read", static_cast<unsigned int>(r.raw.size()), 1));
        read->SetRawData(r.raw);
    }
    const auto summary = RunStep(data.Reads(), save, model);
    EXPECT_EQ(std::tie(summary.reads, summary.annotated, summary.failed),
              std::make_tuple(data.reads.size() + 1, data.reads.size(), std::size_t{2}));
    const std::string failed = ReadText((save / SingleStrandRun::kFailedName).string());
    EXPECT_NE(failed.find("broken.rawh5\t*\tCould not open the read file"), std::string::npos) << failed;
    EXPECT_NE(failed.find("short.rawh5\tshort-read\tNo strand found"), std::string::npos) << failed;

    // The index: one row per read, the columns the pair run requires, times from the read's own clock.
    Common::TableReader index;
    index.Read(indexPath);
    const auto column = [&](const char* name, auto empty) {
        std::vector<decltype(empty)> values;
        EXPECT_GE(index.ColumnIndex(name), 0) << name;
        index.GetColumn(index.ColumnIndex(name), values, empty);
        return values;
    };
    const auto ids = column("read_id", std::string()), files = column("filename", std::string());
    const auto starts = column("start_time", 0.0), durations = column("duration", 0.0),
               lengths = column("sequence_length_template", 0.0);
    ASSERT_EQ(ids.size(), data.reads.size());
    std::map<std::string, const WrittenRead*> byId;
    for (const auto& w : data.placed) byId[w.read->read_id] = &w;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const WrittenRead& w = *byId.at(ids[i]);
        EXPECT_EQ(files[i], w.filename);
        EXPECT_NEAR(starts[i], w.read->start_sample / 4000.0, 1e-6);
        EXPECT_NEAR(durations[i], w.read->raw.size() / 4000.0, 1e-6);
        EXPECT_GT(lengths[i], 5.0) << "the tiny model still calls more than one k-mer";
    }

    // In every read: the stored moves and FASTQ agree (k = L + 1 - sum of moves), the blocks cover the
    // strand, and the pair run's loader turns them into the labels of the called 3-mers.
    const std::string fastq = ReadText((save / SingleStrandRun::kFastqName).string());
    std::vector<int> scores(64 * 64, 0);
    AsyncCaller::PriorAligner aligner{PairAlignment::FastAlign(Common::MatView<const int>(scores.data(), 64, 64, 64, 1),
                                                               {300, 300, 500, 300, 300, 500}, 1001)};
    AsyncCaller::FileDataHandlerMD loader{3, aligner, 1, nullptr, 0};
    std::set<int> moveKinds;
    for (const auto& w : data.placed) {
        const SimulatedRead& truthRead = *w.read;
        auto source = data.Open(w, DataAPI::H5Wrapper::H5Mode::ReadOnly);
        auto read = source.GetRead(truthRead.read_id);
        const StoredCall call = ReadStoredCall(*read);
        EXPECT_EQ(call.segmentation_analysis + call.basecall_analysis, "Segmentation_000Basecall_1D_000");
        ASSERT_EQ(call.moves.size(), call.duration / 3);
        EXPECT_EQ(std::make_tuple(call.KmerLength(), call.block_stride, call.moves[0]),
                  std::make_tuple(5, 3u, std::uint8_t{1}));
        EXPECT_EQ(call.first_sample + call.duration, truthRead.raw.size());
        EXPECT_EQ(call.fastq.rfind("@" + truthRead.read_id + " runid=" + truthRead.run_id, 0), 0u);
        EXPECT_NE(fastq.find(call.fastq), std::string::npos) << "the FASTQ output holds the stored record";
        moveKinds.insert(call.moves.begin(), call.moves.end());

        for (bool second : {false, true}) {
            AsyncCaller::FileDataHandler::RawRead raw;
            AsyncCaller::FileDataHandlerMD::PriorReadInfo info;
            ASSERT_TRUE(loader.loadReadAndLabels(read, raw, info, second)) << truthRead.read_id;
            EXPECT_EQ(std::tie(info.first_sample, info.duration), std::tie(call.first_sample, call.duration));
            EXPECT_EQ(info.stride, 3u);
            ASSERT_EQ(info.labels.size(), call.moves.size());
            // Block e shows the central 3-mer of its 5-mer: bases from 1 + the moves after the first;
            // strand 2 reads the reverse complement, blocks reversed.
            const std::size_t blocks = call.moves.size();
            for (std::size_t e = 0, position = 1; e < blocks; ++e) {
                position += e > 0 ? call.moves[e] : 0;
                const std::string bases = call.sequence.substr(position, 3);
                const int expected = LabelOf(second ? ReadSimulator::ReverseComplement(bases) : bases);
                ASSERT_EQ(info.labels[second ? blocks - 1 - e : e], expected) << truthRead.read_id << " block " << e;
            }
        }
    }
    EXPECT_EQ(moveKinds, (std::set<int>{0, 1, 2})) << "stays, steps and skips are all stored";

    // A second run adds newer analyses, and those are the ones read back.
    RunStep(data.Reads(), work.path / "again", model);
    auto source = data.Open(data.placed.front(), DataAPI::H5Wrapper::H5Mode::ReadOnly);
    const StoredCall again = ReadStoredCall(*source.GetRead(data.placed.front().read->read_id));
    EXPECT_EQ(again.segmentation_analysis + again.basecall_analysis, "Segmentation_001Basecall_1D_001");
}

TEST(MismatchCounts, ConditionalRowsWithoutZeros) {
    MismatchCounts counts;
    // Two strand-1 blocks at position 10 meet two strand-2 blocks there; one block each at 11; blocks
    // without a position (9) are left out.
    counts.AddPair({5, 5, 7, 9}, {10, 10, 11, -1}, {5, 6, 7}, {10, 10, 11});
    EXPECT_DOUBLE_EQ(counts.Weight(5, 5), 1.0);
    EXPECT_DOUBLE_EQ(counts.Weight(5, 6), 1.0);
    EXPECT_DOUBLE_EQ(counts.TotalWeight(), 3.0);
    EXPECT_THROW(counts.AddPair({1}, {}, {}, {}), std::runtime_error);
    EXPECT_THROW(counts.ConditionalTable(0.0), std::runtime_error);

    const auto table = counts.ConditionalTable(0.5);
    EXPECT_NEAR(table[5 * 64 + 5], 1.5 / 34.0, 1e-12);
    EXPECT_NEAR(table[7 * 64 + 7], 1.5 / 33.0, 1e-12);
    EXPECT_NEAR(table[0], 1.0 / 64.0, 1e-12) << "an unseen row is uniform";
    // Written and read back by the prior aligner's own reader, which checks rows like the shipped table.
    std::ostringstream text;
    WriteMismatchTable(text, table);
    const TempDir dir;
    const std::string path = dir.File("table.txt", text.str());
    const auto matrix = PairAlignment::LoadMismatchMatrix(path);
    ASSERT_EQ(matrix.values.size(), 4096u);
    EXPECT_EQ(matrix.values[5 * 64 + 5], static_cast<int>(std::log(static_cast<float>(1.5 / 34.0)) * 100.0f));
    for (const std::string& table : {path, std::string(KVX_SOURCE_DIR) + "/data/mismatch_table_r1.txt"}) {
        Common::TableReader reader;
        reader.Read(table);
        std::vector<double> p;
        reader.GetColumn(reader.ColumnIndex("prob"), p, 0.0);
        ASSERT_EQ(p.size(), 4096u) << table;
        for (int a = 0; a < 64; ++a) {
            EXPECT_NEAR(std::accumulate(&p[a * 64], &p[a * 64 + 64], 0.0), 1.0, 1e-6) << table << " row " << a;
            EXPECT_GT(*std::min_element(&p[a * 64], &p[a * 64 + 64]), 0.0) << table << " row " << a;
            // A label is most often read as itself on the other strand.
            EXPECT_TRUE(table == path || std::max_element(&p[a * 64], &p[a * 64 + 64]) == &p[a * 65]) << a;
        }
    }
}

TEST(MismatchEstimate, PerfectCallsGiveADiagonalTable) {
    // Calls made from the truth (each block shows the 5-mer ending at the last base arrived) agree on both
    // strands: a strand-2 label or position in the wrong orientation would scatter weight off the diagonal.
    SmallDataSet data(23, 4);
    std::string index = IndexHeader();
    for (const auto& w : data.placed) {
        const SimulatedRead& r = *w.read;
        StrandCall call;
        call.segmentation.first_sample = r.strand_start;
        call.segmentation.duration = r.raw.size() - r.strand_start;
        std::tie(call.block_stride, call.kmer_length) = std::make_tuple(3, 5);
        std::size_t arrived = 0, firstLast = 0, previous = 0;
        for (std::size_t e = 0; e < call.segmentation.duration / 3; ++e) {
            while (arrived < r.base_starts.size() && r.base_starts[arrived] <= r.strand_start + 3 * e + 2) {
                ++arrived;
            }
            firstLast = e == 0 ? arrived - 1 : firstLast;
            call.moves.push_back(static_cast<std::uint8_t>(e == 0 ? 1 : arrived - 1 - previous));
            previous = arrived - 1;
        }
        call.sequence = r.sequence.substr(firstLast - 4, previous - firstLast + 5);
        call.qualities.assign(call.sequence.size(), 'I');
        auto source = data.Open(w, DataAPI::H5Wrapper::H5Mode::ReadWrite);
        auto read = source.GetRead(r.read_id);
        ReadInfo info = ReadInfoOf(*read);
        info.filename = w.filename;
        WriteAnalyses(*read, call, FastqRecordText(info, call), AnnotationSource{"truth", "test"});
        index += IndexRow(info, call);
    }
    const std::string indexPath = data.dir.File("index_1d.tsv", index);
    const TruthEstimate estimate = EstimateFromTruth(data.dir.Str(), indexPath, data.Reads());
    EXPECT_TRUE(estimate.skipped.empty()) << estimate.skipped.front();
    EXPECT_EQ(estimate.counts.Pairs(), data.pairs.size());
    double diagonal = 0.0;
    for (int a = 0; a < 64; ++a) diagonal += estimate.counts.Weight(a, a);
    EXPECT_GT(estimate.counts.TotalWeight(), 1000.0);
    EXPECT_DOUBLE_EQ(diagonal, estimate.counts.TotalWeight());
}

// Whatever a stop leaves (index and FASTQ cut at any byte, a row missing in the middle), the repair
// keeps exactly the reads with a whole row and a whole record, in their order, and nothing else.
TEST(PreviousRun, KeepsExactlyTheReadsWithRowAndRecord) {
    const TestSupport::TempDir dir;
    const std::size_t reads = 3;
    std::vector<std::string> rows, records;
    std::string fullFastq;
    for (std::size_t i = 0; i < reads; ++i) {
        rows.push_back("f.rawh5\tr" + std::to_string(i));
        for (std::size_t c = 2; c < IndexColumns().size(); ++c) rows.back() += "\t" + std::to_string(i * c);
        rows.back() += "\n";
        const std::string bases(3 + i, "ACGT"[i]);
        records.push_back("@r" + std::to_string(i) + " runid=x\n" + bases + "\n+\n" + std::string(3 + i, '5') + "\n");
        fullFastq += records.back();
    }
    const std::string failedText = FailedReadsHeader() + "f.rawh5\tr9\tNo strand found\nbad.rawh5\t*\tCould not open\n";
    // Cuts at every line's end and one byte before it: a whole line, or one cut short (the header, a
    // row, or any of a record's four lines).
    const auto cutsOf = [](const std::string& text) {
        std::set<std::size_t> cuts{0};
        for (auto at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
            cuts.insert({at, at + 1});
        }
        return cuts;
    };
    for (bool withoutRow1 : {false, true}) {
        std::string fullIndex = IndexHeader();
        std::vector<std::size_t> rowEnds{fullIndex.size()};
        for (std::size_t i = 0; i < reads; ++i) {
            fullIndex += withoutRow1 && i == 1 ? "" : rows[i];
            rowEnds.push_back(fullIndex.size());
        }
        for (std::size_t indexCut : cutsOf(fullIndex)) {
            for (std::size_t fastqCut : cutsOf(fullFastq)) {
                const std::string index = dir.File("index.tsv", fullIndex.substr(0, indexCut));
                const std::string fastq = dir.File("calls.fastq", fullFastq.substr(0, fastqCut));
                const std::string failed = dir.File("failed.tsv", failedText);
                const PreviousRun previous = RepairPreviousRun(index, fastq, failed);

                // The obvious reference: read i survives when its row and its record are whole.
                std::string expectIndex = indexCut >= IndexHeader().size() ? IndexHeader() : "";
                std::string expectFastq;
                std::set<std::string> expectDone{"r9"};
                std::size_t recordEnd = 0;
                for (std::size_t i = 0; i < reads; ++i) {
                    recordEnd += records[i].size();
                    if (!(withoutRow1 && i == 1) && rowEnds[i + 1] <= indexCut && recordEnd <= fastqCut) {
                        expectIndex += rows[i];
                        expectFastq += records[i];
                        expectDone.insert("r" + std::to_string(i));
                    }
                }
                const std::string where = "index cut " + std::to_string(indexCut) + ", FASTQ cut " +
                                          std::to_string(fastqCut) + (withoutRow1 ? ", no row 1" : "");
                ASSERT_EQ(ReadText(index), expectIndex) << where;
                ASSERT_EQ(ReadText(fastq), expectFastq) << where;
                ASSERT_EQ(previous.done_reads, expectDone) << where;
                ASSERT_EQ(previous.annotated, expectDone.size() - 1) << where;
                ASSERT_EQ(previous.failed_files, std::set<std::string>{"bad.rawh5"}) << where;
                ASSERT_EQ(ReadText(failed), failedText) << where;
            }
        }
    }

    // A damaged failed-reads file loses its cut line only; an index of another program is refused.
    const std::string failed = dir.File("failed.tsv", failedText + "f.rawh5\tr7\tNo str");
    RepairPreviousRun(dir.File("index.tsv", IndexHeader()), dir.File("calls.fastq", ""), failed);
    EXPECT_EQ(ReadText(failed), failedText);
    EXPECT_THROW(RepairPreviousRun(dir.File("index.tsv", "read_id\tfilename\n"), dir.File("calls.fastq", ""), failed),
                 std::runtime_error);
}

TEST(ReadSimulator, SignalFollowsThePoreModelAndFilesReadBack) {
    const TestSupport::TempDir temp;
    const auto reads = temp.path / "reads";
    DigitiserSettings dig;
    dig.offset = 40.0;  // not the defaults, so that the files are seen to carry the simulator's own
    dig.range = 1800.0;
    // With no spread of gain and offset, the levels are the table's whatever the digitiser.
    SimulatorOptions plain = SmallSet(4, 24, 300, 900, 20000);
    plain.scale_spread = plain.offset_spread = 0.0;
    plain.channels = 4;  // several molecules per pore, so unrelated neighbours are tried by the pairing rule
    const PoreLevels levels = ShippedLevels();
    ReadSimulator sim(plain, dig, levels, "");
    std::vector<SimulatedPair> pairs;
    const auto simulated = sim.Run(pairs);  // the placed reads point into it
    std::vector<SimulatedPair> again;
    const auto rerun = ReadSimulator(plain, dig, levels, "").Run(again);
    EXPECT_EQ(rerun.back().raw, simulated.back().raw) << "same seed, same data";
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
        ASSERT_EQ(w.read->base_starts.size(), w.read->sequence.size());
        EXPECT_GT(w.read->strand_start, 0u) << "the adapter stretch comes first";
        const Measured m = Measure(*w.read, dig, levels);
        EXPECT_GT(m.correlation, 0.9) << w.read->read_id;
        EXPECT_NEAR(m.meanDwell, 9.0, 1.5) << w.read->read_id;
        EXPECT_NEAR(m.noise, 1.0, 0.2) << w.read->read_id;
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
