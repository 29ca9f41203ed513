#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "async_caller/file_data_handler_md.h"
#include "async_caller/read_holder_md.h"
#include "log_capture.h"
#include "read_files.h"
#include "test_util.h"

using AsyncCaller::FileDataHandlerMD;
using AsyncCaller::PriorAligner;
using AsyncCaller::ReadHolderMD;
using TestSupport::ReadRecipe;

namespace {

std::vector<int> labelScores() {
    std::vector<int> m(64 * 64, -100);
    for (int i = 0; i < 64; ++i) {
        m[i * 64 + i] = 100;
    }
    return m;
}

struct Handler {
    std::vector<int> scores = labelScores();
    PriorAligner aligner{Common::MatView<const int>(scores.data(), 64, 64, 64, 1), 500, 300, 1000};
    std::unique_ptr<FileDataHandlerMD> handler;

    explicit Handler(std::uint32_t flags = 0, int workers = 2) {
        handler = std::make_unique<FileDataHandlerMD>(5, aligner, workers, nullptr, flags);
    }
    FileDataHandlerMD* operator->() { return handler.get(); }
};

std::string newFile(const std::string& stem) {
    static int serial = 0;
    return TestSupport::Scratch().File(stem + "_" + std::to_string(serial++) + ".rawh5");
}

ReadRecipe simpleRecipe(const std::string& sequence, std::vector<std::uint8_t> moves) {
    ReadRecipe recipe;
    recipe.id = "read";
    recipe.sequence = sequence;
    recipe.moves = std::move(moves);
    recipe.samples.assign(recipe.moves.size() * 10 + 20, 300);
    return recipe;
}

struct Loaded {
    bool ok = false;
    FileDataHandlerMD::PriorReadInfo info;
    std::vector<std::string> log;
};

// Writes the read alone to a file, and loads it as strand 1 or 2.
Loaded loadLabels(const ReadRecipe& recipe, bool second) {
    const std::string path = newFile("labels");
    {
        DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::CreateTruncate);
        TestSupport::writeRead(source, recipe);
    }
    Handler h;
    DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::ReadOnly);
    std::shared_ptr<DataAPI::ReadData> read = source.GetRead(recipe.id);
    AsyncCaller::FileDataHandler::RawRead raw;
    Loaded out;
    TestSupport::LogCapture log;
    out.ok = h->loadReadAndLabels(read, raw, out.info, second);
    out.log = log.Info();
    return out;
}

// The single logged line of a failed load.
std::string failure(const ReadRecipe& recipe) {
    const Loaded l = loadLabels(recipe, false);
    EXPECT_FALSE(l.ok);
    return l.log.size() == 1 ? l.log[0] : "<" + std::to_string(l.log.size()) + " lines>";
}

using TestSupport::ErrorOf;
using TestSupport::Eventually;

}  // namespace

TEST(PairLoading, LabelsFromMovesAndFastqForEachKmerLength) {
    struct Case {
        const char* sequence;
        std::vector<std::uint8_t> moves;
        std::vector<std::int32_t> strand1;
        std::vector<std::int32_t> strand2;
    };
    // ACG = 6, CGT = 27, GTT = 47, TGC = 57, GCA = 36, GTA = 44, TAC = 49, AAC = 1.
    const Case cases[] = {
        // k = 1: the 3-mer around each base, held inside the sequence at both ends; one label per block.
        {"ACGT", {1, 1, 1, 0, 1}, {6, 6, 27, 27, 27}, {6, 6, 6, 27, 27}},
        // k = 3: the k-mer itself; a stay repeats it, a skip jumps two bases.
        {"ACGTTGCA", {1, 1, 0, 1, 2, 1}, {6, 27, 27, 47, 57, 36}, {57, 36, 1, 6, 6, 27}},
        // k = 4: the first three bases of each 4-mer.
        {"ACGTAC", {1, 1, 1}, {6, 27, 44}, {49, 6, 27}},
        // k = 5: the central three.
        {"ACGTACGT", {1, 2, 1}, {27, 49, 6}, {27, 44, 6}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sequence);
        const ReadRecipe recipe = simpleRecipe(c.sequence, c.moves);
        const Loaded one = loadLabels(recipe, false);
        ASSERT_TRUE(one.ok);
        EXPECT_EQ(one.info.labels, c.strand1);
        EXPECT_EQ(one.info.stride, 10u);
        EXPECT_EQ(one.info.duration, c.moves.size() * 10);
        const Loaded two = loadLabels(recipe, true);
        ASSERT_TRUE(two.ok);
        EXPECT_EQ(two.info.labels, c.strand2);
    }
}

TEST(PairLoading, StrideFromTheSegmentationWhenTheCallHasNone) {
    ReadRecipe recipe = simpleRecipe("ACGTACGT", {1, 2, 1});
    recipe.duration_template = 37;
    recipe.block_stride = false;
    EXPECT_EQ(loadLabels(recipe, false).info.stride, 12u);  // 37 / 3 blocks
    recipe.block_stride = true;
    recipe.block_stride_value = 0;  // present but 0 is the same as absent
    EXPECT_EQ(loadLabels(recipe, false).info.stride, 12u);
}

TEST(PairLoading, LabelsFromAnEventsTable) {
    ReadRecipe recipe = simpleRecipe("", {});
    recipe.move = false;
    recipe.fastq = false;
    recipe.model_states = {"ACGTA", "CGTAC", "GTACG", "TACGT"};
    recipe.samples.assign(100, 300);
    const Loaded one = loadLabels(recipe, false);
    ASSERT_TRUE(one.ok);
    EXPECT_EQ(one.info.labels, (std::vector<std::int32_t>{27, 44, 49, 6}));  // CGT GTA TAC ACG
    const Loaded two = loadLabels(recipe, true);
    ASSERT_TRUE(two.ok);
    // Reversed and complemented: ACG->CGT, TAC->GTA, GTA->TAC, CGT->ACG, stored last first.
    EXPECT_EQ(two.info.labels, (std::vector<std::int32_t>{27, 44, 49, 6}));

    recipe.model_states = {"ACGTA", std::string(), "GTACG"};
    EXPECT_EQ(failure(recipe),
              "Exception thrown extracting 1d read data: Label lookup failed, model_state table possibly corrupt.");
}

TEST(PairLoading, EachFailureIsLoggedWithItsText) {
    const struct {
        std::function<void(ReadRecipe&)> damage;
        std::string text;
    } cases[] = {
        {[](ReadRecipe& r) { r.segmentation = false; }, "Missing information about segmentation in read file."},
        {[](ReadRecipe& r) { r.basecall = false; }, "Missing information about 1d basecall in read file."},
        {[](ReadRecipe& r) { r.move = false; }, "Missing 'Move' dataset for 1d basecall."},
        {[](ReadRecipe& r) { r.fastq = false; }, "Missing 'Fastq' dataset for 1d basecall."},
        // Moves that make k = 2 or k = 6, the k of no 1D model.
        {[](ReadRecipe& r) { r.moves.back() += 3; }, "Move dataset is inconsistent with Fastq dataset."},
        {[](ReadRecipe& r) { r.moves.back() -= 1; }, "Move dataset is inconsistent with Fastq dataset."},
        {[](ReadRecipe& r) { r.sequence = "ACGTNCGT"; }, "Exception thrown extracting 1d read data: map::at"},
        {[](ReadRecipe& r) { r.fastq_text = "@read ACGT"; }, "Invalid Fastq dataset."},  // no second line
    };
    for (const auto& c : cases) {
        ReadRecipe recipe = simpleRecipe("ACGTACGT", {1, 2, 1});
        c.damage(recipe);
        EXPECT_EQ(failure(recipe), c.text);
    }
    // A read with both forms, "Events" listed first: the events path runs over the "Move" data set.
    ReadRecipe both = simpleRecipe("ACGTACGT", {1, 2, 1});
    both.model_states = {"ACGTA", "CGTAC", "GTACG"};
    const std::string text = failure(both);
    EXPECT_EQ(text.rfind("Exception thrown extracting 1d read data: ", 0), 0u) << text;
}

TEST(PairLoading, DamagedSegmentationOrStrideRefusesTheRead) {
    // 50 samples, 3 blocks of 10 from sample 0: every value below is refused before it can size an
    // allocation or a copy.
    const std::string prefix = "Exception thrown extracting 1d read data: ";
    struct Case {
        std::int64_t first_sample, duration, stride;  // duration 0: 30; stride -1: no "block_stride"
        std::string text;
    };
    const Case cases[] = {
        {-3000, 0, 10, prefix + "Attribute 'first_sample_template' is out of range: -3000 is not in [0, 50]."},
        {40, 0, 10, prefix + "Attribute 'duration_template' is out of range: 30 is not in [0, 10]."},
        {0, -5, -1, prefix + "Attribute 'duration_template' is out of range: -5 is not in [0, 50]."},
        {0, 0, 1000000000000, prefix + "Attribute 'block_stride' is out of range: 1e+12 is not in [0, 30]."},
        {0, 0, 20, "1d basecall of 3 blocks of 20 samples does not fit the segmented signal of 30 samples."},
        {0, 2, -1, "1d basecall of 3 blocks of 0 samples does not fit the segmented signal of 2 samples."},
    };
    for (const Case& c : cases) {
        ReadRecipe recipe = simpleRecipe("ACGTACGT", {1, 2, 1});
        recipe.first_sample = c.first_sample;
        recipe.duration_template = c.duration;
        recipe.block_stride = c.stride >= 0;
        recipe.block_stride_value = c.stride;
        EXPECT_EQ(failure(recipe), c.text);
    }
    // The last block may end past the segmentation: 3 blocks of 10 over 21 samples load.
    ReadRecipe partial = simpleRecipe("ACGTACGT", {1, 2, 1});
    partial.duration_template = 21;
    EXPECT_TRUE(loadLabels(partial, false).ok);

    std::vector<std::int32_t> labels;
    EXPECT_EQ(ErrorOf([&] { AsyncCaller::LabelsFromMoves({}, "@r\nAC\n+\n!!\n", false, labels); }),
              "Move dataset is empty.");
    DataAPI::DataTable events;
    events.AddField("model_state", DataAPI::DataType::FixedString, 5);
    events.Resize(0);
    EXPECT_EQ(ErrorOf([&] { AsyncCaller::LabelsFromEvents(events, true, labels); }),
              "Events dataset is empty.");
    Handler h;
    EXPECT_EQ(ErrorOf([&] { FileDataHandlerMD(0, h.aligner, 1, nullptr, 0); }),
              "The model's stride must be at least 1.");
}

namespace {

// A file of pairs as the pipeline sees them.
std::vector<AsyncCaller::ReadPair> writePairs(const std::string& path, int count, std::uint32_t seed,
                                              std::size_t bases = 120) {
    std::mt19937 random(seed);
    std::vector<AsyncCaller::ReadPair> pairs;
    DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::CreateTruncate);
    for (int i = 0; i < count; ++i) {
        ReadRecipe one, two;
        TestSupport::pairSpecs("p" + std::to_string(i), TestSupport::randomBases(bases, random), random, one, two);
        TestSupport::writeRead(source, one);
        TestSupport::writeRead(source, two);
        pairs.push_back({path, path, one.id, two.id});
    }
    return pairs;
}

}  // namespace

TEST(PairLoading, GetReadFillsTheHolderAndPassCalledReadRestoresIt) {
    const std::string path = newFile("pairs");
    const auto pairs = writePairs(path, 2, 11);
    Handler h(/*flags=*/3);
    TestSupport::LogCapture log;
    for (const auto& p : pairs) {
        h->SubmitFilePair(p);
    }
    EXPECT_EQ(h->NoMoreData(), false);
    EXPECT_EQ(h->NoMoreData(), true);
    EXPECT_EQ(ErrorOf([&] { h->SubmitFilePair(pairs[0]); }),
              "Attempted to submit a file pair after calling NoMoreData().");
    ASSERT_TRUE(Eventually([&] { return h->LoadedCount() == 2; }));
    EXPECT_EQ(h->PendingCount(), 0u);
    EXPECT_TRUE(h->IsActive());

    ReadHolderMD holder;
    EXPECT_FALSE(h->GetRead(1, holder, 0));  // no high-priority reads here
    ASSERT_TRUE(h->GetRead(0, holder, 0));
    EXPECT_EQ(holder.stride, 5u);
    EXPECT_EQ(holder.read1.read_id, "p0_1");
    EXPECT_EQ(holder.read2.read_id, "p0_2");
    EXPECT_EQ(holder.read1.filename, path);
    EXPECT_EQ(holder.read1.read_index, holder.read2.read_index);
    // Identical labels (strand 2's stays aside): the stretches start at the segmentation.
    EXPECT_EQ(holder.read1.trimmed_start, 100u);
    EXPECT_EQ(holder.read1.trimmed_duration, 1160u);  // 116 blocks of 10
    EXPECT_EQ(holder.read2.trimmed_start, 100u);
    EXPECT_EQ(holder.raw1.size, holder.read1.trimmed_duration);
    EXPECT_EQ(holder.raw2.size, holder.read2.trimmed_duration);
    EXPECT_TRUE(holder.owns_raw);
    EXPECT_EQ(holder.priorStep, 10u);
    EXPECT_EQ(holder.priorSamples.size(), 116u);
    EXPECT_EQ(holder.priorSamples.front(), 0u);
    EXPECT_NEAR(static_cast<double>(holder.priorSamples[100]), 1000.0, 60.0);
    EXPECT_EQ(log.Count("File pair (\"" + path.substr(path.rfind('/') + 1) + "\" p0_1, \""), 1u);
    EXPECT_EQ(log.Count("has been loaded."), 1u);

    // Back from the callers with a sequence: reversed, T to U, metadata restored, one row processed.
    holder.sequence = "AACGTT";
    holder.qualities = "123456";
    holder.read1.read_id = "scribbled";
    h->PassCalledRead(holder, 1);
    EXPECT_EQ(holder.sequence, "UUGCAA");
    EXPECT_EQ(holder.qualities, "654321");
    EXPECT_EQ(holder.read1.read_id, "p0_1");
    EXPECT_EQ(h->ReadsDone(), 1u);
    EXPECT_EQ(h->EventsDone(), holder.GetDuration() / 5);
    EXPECT_EQ(h->Processor().Count(), 1u);
    EXPECT_EQ(log.Count("completed."), 1u);
    EXPECT_EQ(ErrorOf([&] { h->PassCalledRead(holder, 1); }), "Passed back called read from another data handler.");

    ReadHolderMD second;
    ASSERT_TRUE(h->GetRead(0, second, 1));
    EXPECT_NE(second.GetReadIndex(), holder.GetReadIndex());
    // Its chunks fail to join when the last one is back; passing it on does not try (and log) again.
    second.chunks.push_back(std::make_unique<AsyncCaller::ChunkDataMD>());
    second.Aggregate();
    h->PassCalledRead(second, 1);
    EXPECT_EQ(log.Count("Chunk aggregation failed for read pair ('p1_1', 'p1_2')."), 1u);
    EXPECT_EQ(h->Processor().Count(), 2u);
    second.SetPriority(1);
    EXPECT_EQ(ErrorOf([&] { h->PassCalledRead(second, 1); }),
              "FileDataHandler class does not support high priority reads.");
    // All loaded and taken: the handler's work is over.
    EXPECT_TRUE(Eventually([&] { return !h->IsActive(); }));
    EXPECT_THROW(h->GetRead(0, second, 5), std::out_of_range);
}

TEST(PairLoading, BadPairsAreDroppedOrEndWithASummaryRow) {
    const std::string path = newFile("bad_pairs");
    std::mt19937 random(2);
    {
        DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::CreateTruncate);
        const auto write = [&](const std::string& id, const std::string& bases,
                               const std::function<void(ReadRecipe&, ReadRecipe&)>& damage) {
            ReadRecipe one, two;
            TestSupport::pairSpecs(id, bases, random, one, two);
            damage(one, two);
            TestSupport::writeRead(source, one);
            TestSupport::writeRead(source, two);
        };
        // Strand 2 has no 1D call.
        write("nocall", TestSupport::randomBases(60, random),
              [](ReadRecipe&, ReadRecipe& two) { two.basecall = false; });
        // The strands were called with different block strides.
        write("strides", TestSupport::randomBases(60, random),
              [](ReadRecipe&, ReadRecipe& two) { two.block_stride_value = 9; });
        // Strand 1's segmentation ends 5 samples into its last block, at the end of the signal: the
        // aligned stretch runs past the signal.
        write("outside", TestSupport::randomBases(60, random), [](ReadRecipe& one, ReadRecipe&) {
            one.duration_template = static_cast<std::int64_t>(one.moves.size() * 10 - 5);
            one.first_sample = static_cast<std::int64_t>(one.samples.size()) - one.duration_template;
        });
        // One block each: the path has a single aligned entry.
        write("tiny", "ACGTA", [](ReadRecipe&, ReadRecipe&) {});
    }
    Handler h;
    TestSupport::LogCapture log;
    h->SubmitFilePair({path, path, "nocall_1", "nocall_2"});
    h->SubmitFilePair({path, path, "strides_1", "strides_2"});
    h->SubmitFilePair({path, path, "outside_1", "outside_2"});
    h->SubmitFilePair({path, path, "tiny_1", "tiny_2"});
    h->SubmitFilePair({path, path, "missing_1", "nocall_1"});
    h->NoMoreData();
    // The last pair is looked at after the good ones are queued: wait for its line too.
    ASSERT_TRUE(Eventually([&] {
        return h->LoadedCount() == 3 && h->PendingCount() == 0 && log.Count("Error loading read pair") == 1;
    }));
    EXPECT_EQ(log.Count("Missing information about 1d basecall in read file."), 1u);
    EXPECT_EQ(log.Count("Could not load read pair (nocall_1, nocall_2)."), 1u);
    EXPECT_EQ(log.Count("Error loading read pair (missing_1, nocall_1): Read id 'missing_1' not found"), 1u);

    ReadHolderMD holder;
    EXPECT_FALSE(h->GetRead(0, holder, 0));
    EXPECT_EQ(log.Count("\" strides_1, \""), 1u);
    EXPECT_EQ(log.Count("have different event strides. Cannot continue."), 1u);
    EXPECT_EQ(h->Processor().Count(), 0u);  // no summary row for it

    EXPECT_FALSE(h->GetRead(0, holder, 0));
    EXPECT_EQ(log.Count("\" outside_1, \""), 1u);
    EXPECT_EQ(log.Count("has an aligned stretch outside its signal."), 1u);
    EXPECT_EQ(h->Processor().Count(), 1u);  // a summary row, and no sequence

    EXPECT_FALSE(h->GetRead(0, holder, 0));
    EXPECT_EQ(log.Count("did not produce a usable prior alignment."), 1u);
    EXPECT_EQ(h->Processor().Count(), 2u);
    EXPECT_TRUE(Eventually([&] { return !h->IsActive(); }));
}

TEST(PairLoading, AtMostAHundredPairsWaitLoaded) {
    const std::string path = newFile("many");
    const auto pairs = writePairs(path, 130, 5, 40);
    Handler h;
    for (const auto& p : pairs) {
        h->SubmitFilePair(p);
    }
    h->NoMoreData();
    ASSERT_TRUE(Eventually([&] { return h->LoadedCount() == FileDataHandlerMD::kMaxLoaded; }, 60));
    // Nobody takes them: loading stays stopped at the cap.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(h->LoadedCount(), FileDataHandlerMD::kMaxLoaded);
    EXPECT_EQ(h->PendingCount(), 30u);
    EXPECT_TRUE(h->IsActive());
    // Taking one lets one more in.
    ReadHolderMD holder;
    ASSERT_TRUE(h->GetRead(0, holder, 0));
    ASSERT_TRUE(Eventually([&] { return h->PendingCount() == 29; }));
    EXPECT_TRUE(Eventually([&] { return h->LoadedCount() == FileDataHandlerMD::kMaxLoaded; }));
}
