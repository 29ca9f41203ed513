#include "async_caller/file_data_handler_md.h"
#include "async_caller/read_holder_md.h"
#include "async_caller/signal_scaling.h"
#include "log_capture.h"
#include "read_files.h"
#include "test_util.h"

using namespace AsyncCaller;
using namespace TestSupport;
using BasecallCommon::KernelIsa;

namespace {

struct Handler : LabelAligner {
    std::unique_ptr<FileDataHandlerMD> handler;
    explicit Handler(std::uint32_t flags = 0) : handler(new FileDataHandlerMD(5, aligner, 2, nullptr, flags)) {}
    FileDataHandlerMD* operator->() { return handler.get(); }
};

std::string newFile(const std::string& stem) {
    static int serial = 0;
    return ScratchFile(stem + "_" + std::to_string(serial++) + ".rawh5");
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
    FileDataHandler::RawRead raw;
    FileDataHandlerMD::PriorReadInfo info;
    std::vector<std::string> log;
};

// Writes the read alone to a file, and loads it as strand 1 or 2.
Loaded loadLabels(const ReadRecipe& recipe, bool second, Handler* h = nullptr) {
    const std::string path = newFile("labels");
    {
        DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::CreateTruncate);
        writeRead(source, recipe);
    }
    Handler own;
    DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::ReadOnly);
    std::shared_ptr<DataAPI::ReadData> read = source.GetRead(recipe.id);
    Loaded out;
    LogCapture log;
    out.ok = (h ? *h : own)->loadReadAndLabels(read, out.raw, out.info, second);
    out.log = log.Info();
    return out;
}

// The single logged line of a failed load.
std::string failure(const ReadRecipe& recipe) {
    const Loaded l = loadLabels(recipe, false);
    EXPECT_FALSE(l.ok);
    return l.log.size() == 1 ? l.log[0] : "<" + std::to_string(l.log.size()) + " lines>";
}

bool sameBits(float a, float b) { return std::memcmp(&a, &b, sizeof(float)) == 0; }

}  // namespace

TEST(SignalScaling, EveryBuildMatchesTheScalarReference) {
    std::mt19937 random(5);
    std::uniform_int_distribution<int> sample(-32768, 32767);
    std::uniform_real_distribution<float> value(-300.0f, 300.0f);
    const auto reference = detail::GetScalingKernels(KernelIsa::Scalar);
    int variants = 0;
    for (const KernelIsa isa : {KernelIsa::Scalar, KernelIsa::Sse2, KernelIsa::Avx2, KernelIsa::Avx512}) {
        const auto kernels = detail::GetScalingKernels(isa);
        if (kernels.toPicoamps == nullptr) continue;  // this processor cannot run that build
        ++variants;
        SCOPED_TRACE(BasecallCommon::IsaName(isa));
        // Lengths around each vector width, so that every tail loop runs.
        for (const std::size_t n : {0, 1, 7, 8, 9, 15, 16, 17, 31, 1000, 4099}) {
            std::vector<std::int16_t> raw(n);
            std::vector<float> x(n), expect(n), got(n);
            std::generate(raw.begin(), raw.end(), [&] { return static_cast<std::int16_t>(sample(random)); });
            std::generate(x.begin(), x.end(), [&] { return value(random); });
            reference.toPicoamps(raw.data(), n, -241, 0.170898f, expect.data());
            kernels.toPicoamps(raw.data(), n, -241, 0.170898f, got.data());
            std::vector<float> expectNorm = x, gotNorm = x;
            reference.shiftAndScale(expectNorm.data(), n, 93.25f, 0.0717f);
            kernels.shiftAndScale(gotNorm.data(), n, 93.25f, 0.0717f);
            for (std::size_t i = 0; i < n; ++i) {
                ASSERT_TRUE(sameBits(expect[i], got[i]) && sameBits(expectNorm[i], gotNorm[i])) << i;
            }
        }
    }
    EXPECT_GE(variants, 2);
    // The sum is taken in 32-bit integers before the conversion.
    std::int16_t extreme = 32767;
    float out = 0.0f;
    reference.toPicoamps(&extreme, 1, 32767, 1.0f, &out);
    EXPECT_EQ(out, 65534.0f);
}

TEST(FileProcessor, ScalesToPicoampsThenNormalises) {
    float median = 0.0f, mad = 0.0f;
    const float even[] = {4.0f, 1.0f, 3.0f, 10.0f};  // deviations 0.5, 2.5, 0.5, 6.5
    MedianAndMad(even, 4, median, mad);
    EXPECT_EQ(median, 3.5f);
    EXPECT_EQ(mad, 1.5f);

    const std::vector<std::int16_t> raw = {0, 10, 20, 30, 40};
    std::vector<float> out(raw.size());
    FileDataHandler::FileProcessor automatic;
    // Picoamperes 5, 10, 15, 20, 25: median 15, MAD 5.
    const auto r = automatic.Process(0.5f, raw.data(), 5, out.data(), raw.size(), 10, 0);
    EXPECT_EQ(r.trim_start, 0u);
    EXPECT_EQ(r.kept_samples, 5u);
    EXPECT_EQ(r.median, 15.0f);
    EXPECT_EQ(r.mad, 5.0f);
    EXPECT_FLOAT_EQ(out[4], 10.0f / (5.0f * 1.4826f));
    EXPECT_FLOAT_EQ(out[2], 0.0f);
    EXPECT_EQ(automatic.Process(0.5f, nullptr, 5, nullptr, 0, 10, 0).kept_samples, 0u);

    // Fixed scaling normalises by the given values, and still reports what it measured.
    FileDataHandler::FileProcessor fixed(5.0f, 2.0f, false);
    EXPECT_EQ(fixed.Process(0.5f, raw.data(), 5, out.data(), raw.size(), 10, 0).mad, 5.0f);
    EXPECT_FLOAT_EQ(out[0], 0.0f);
    EXPECT_FLOAT_EQ(out[4], 20.0f * (1.0f / (2.0f * 1.4826f)));
}

TEST(FileDataHandler, LoadingConvertsMetadataAndScales) {
    setenv("TZ", "UTC", 1);  // the start time is read as local time
    tzset();
    ReadRecipe recipe = simpleRecipe("ACGTAC", {1, 1, 1});
    for (std::size_t i = 0; i < recipe.samples.size(); ++i) recipe.samples[i] = static_cast<std::int16_t>(i + 1);
    for (const bool numeric : {false, true}) {
        if (numeric) recipe.channel_number = 345;
        Handler h;
        Loaded l = loadLabels(recipe, false, &h);
        ASSERT_TRUE(l.ok);
        const auto& m = l.raw.read;
        EXPECT_EQ(Fields(m.channel, m.read_id, m.read_number, m.start_time, m.duration, m.sampling_rate, m.run_id,
                         m.sample_id, l.raw.offset, l.raw.stride, m.start_time_text),
                  (numeric ? "345" : "12") + std::string(" read 17 4000 50 4000 run-1 sample-1 10 5 ") +
                      "2017-06-01T10:00:01Z");
        EXPECT_FLOAT_EQ(l.raw.scale, 1400.0f / 8192.0f);
        l.raw.scaleRaw(h->Processor(), 0);
        EXPECT_TRUE(l.raw.owns_raw);
        EXPECT_FLOAT_EQ(l.raw.read.median, 35.5f * (1400.0f / 8192.0f));  // samples 11 to 60 in picoamperes
    }
    EXPECT_EQ(ReadStartTimeText("2017-06-01T23:59:59Z", 8000 * 3, 8000.0f), "2017-06-02T00:00:02Z");
    EXPECT_EQ(ReadStartTimeText("not a time", 0, 4000.0f), "");
}

TEST(PairLoading, LabelsFromMovesAndFastqForEachKmerLength) {
    struct Case {
        const char* sequence;
        std::vector<std::uint8_t> moves;
        std::vector<std::int32_t> strand1, strand2;
    };
    // ACG = 6, CGT = 27, GTT = 47, TGC = 57, GCA = 36, GTA = 44, TAC = 49, AAC = 1.
    const Case cases[] = {
        // k = 1: the 3-mer around each base, held inside the sequence at both ends; one label per block.
        {"ACGT", {1, 1, 1, 0, 1}, {6, 6, 27, 27, 27}, {6, 6, 6, 27, 27}},
        // k = 3: the k-mer itself; a stay repeats it, a skip jumps two bases.
        {"ACGTTGCA", {1, 1, 0, 1, 2, 1}, {6, 27, 27, 47, 57, 36}, {57, 36, 1, 6, 6, 27}},
        {"ACGTAC", {1, 1, 1}, {6, 27, 44}, {49, 6, 27}},        // k = 4: the first three bases
        {"ACGTACGT", {1, 2, 1}, {27, 49, 6}, {27, 44, 6}},      // k = 5: the central three
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sequence);
        const ReadRecipe recipe = simpleRecipe(c.sequence, c.moves);
        const Loaded one = loadLabels(recipe, false), two = loadLabels(recipe, true);
        ASSERT_TRUE(one.ok && two.ok);
        EXPECT_EQ(one.info.labels, c.strand1);
        EXPECT_EQ(one.info.stride, 10u);
        EXPECT_EQ(one.info.duration, c.moves.size() * 10);
        EXPECT_EQ(two.info.labels, c.strand2);
    }
    // Without a stride in the call, the segmentation's length over the blocks; 0 counts as absent.
    ReadRecipe recipe = simpleRecipe("ACGTACGT", {1, 2, 1});
    recipe.duration_template = 37;
    recipe.block_stride_value = 0;
    EXPECT_EQ(loadLabels(recipe, false).info.stride, 12u);
    recipe.block_stride = false;
    EXPECT_EQ(loadLabels(recipe, false).info.stride, 12u);
    // An events table: CGT GTA TAC ACG; strand 2 reversed and complemented gives the same labels.
    recipe = simpleRecipe("", {});
    recipe.move = recipe.fastq = false;
    recipe.model_states = {"ACGTA", "CGTAC", "GTACG", "TACGT"};
    recipe.samples.assign(100, 300);
    for (const bool second : {false, true}) {
        EXPECT_EQ(loadLabels(recipe, second).info.labels, (std::vector<std::int32_t>{27, 44, 49, 6}));
    }
}

TEST(PairLoading, EachRefusalIsLoggedWithItsText) {
    const std::string prefix = "Exception thrown extracting 1d read data: ";
    const struct {
        std::function<void(ReadRecipe&)> damage;
        std::string text;
    } cases[] = {
        {[](ReadRecipe& r) { r.segmentation = false; }, "Missing information about segmentation in read file."},
        {[](ReadRecipe& r) { r.basecall = false; }, "Missing information about 1d basecall in read file."},
        {[](ReadRecipe& r) { r.move = false; }, "Missing 'Move' dataset for 1d basecall."},
        {[](ReadRecipe& r) { r.fastq = false; }, "Missing 'Fastq' dataset for 1d basecall."},
        // Moves that make k = 6 or k = 2, the k of no 1D model.
        {[](ReadRecipe& r) { r.moves.back() += 3; }, "Move dataset is inconsistent with Fastq dataset."},
        {[](ReadRecipe& r) { r.moves.back() -= 1; }, "Move dataset is inconsistent with Fastq dataset."},
        {[](ReadRecipe& r) { r.sequence = "ACGTNCGT"; }, prefix + "map::at"},
        {[](ReadRecipe& r) { r.fastq_text = "@read ACGT"; }, "Invalid Fastq dataset."},
        {[](ReadRecipe& r) { r.move = r.fastq = false, r.model_states = {"ACGTA", "", "GTACG"}; },
         prefix + "Label lookup failed, model_state table possibly corrupt."},
        // Every value below is refused before it can size an allocation or a copy.
        {[](ReadRecipe& r) { r.first_sample = -3000; },
         prefix + "Attribute 'first_sample_template' is out of range: -3000 is not in [0, 50]."},
        {[](ReadRecipe& r) { r.first_sample = 40; },
         prefix + "Attribute 'duration_template' is out of range: 30 is not in [0, 10]."},
        {[](ReadRecipe& r) { r.duration_template = -5, r.block_stride = false; },
         prefix + "Attribute 'duration_template' is out of range: -5 is not in [0, 50]."},
        {[](ReadRecipe& r) { r.block_stride_value = 1000000000000; },
         prefix + "Attribute 'block_stride' is out of range: 1e+12 is not in [0, 30]."},
        {[](ReadRecipe& r) { r.block_stride_value = 20; },
         "1d basecall of 3 blocks of 20 samples does not fit the segmented signal of 30 samples."},
        {[](ReadRecipe& r) { r.duration_template = 2, r.block_stride = false; },
         "1d basecall of 3 blocks of 0 samples does not fit the segmented signal of 2 samples."},
    };
    for (const auto& c : cases) {
        ReadRecipe recipe = simpleRecipe("ACGTACGT", {1, 2, 1});
        c.damage(recipe);
        EXPECT_EQ(failure(recipe), c.text);
    }
    // A read with both forms, "Events" listed first: the events path runs over the "Move" data set.
    ReadRecipe both = simpleRecipe("ACGTACGT", {1, 2, 1});
    both.model_states = {"ACGTA", "CGTAC", "GTACG"};
    EXPECT_EQ(failure(both).rfind(prefix, 0), 0u);
    // The last block may end past the segmentation: 3 blocks of 10 over 21 samples load.
    ReadRecipe partial = simpleRecipe("ACGTACGT", {1, 2, 1});
    partial.duration_template = 21;
    EXPECT_TRUE(loadLabels(partial, false).ok);

    std::vector<std::int32_t> labels;
    EXPECT_EQ(ErrorOf([&] { LabelsFromMoves({}, "@r\nAC\n+\n!!\n", false, labels); }),
              "Move dataset is empty.");
    DataAPI::DataTable events;
    events.AddField("model_state", DataAPI::DataType::FixedString, 5);
    events.Resize(0);
    EXPECT_EQ(ErrorOf([&] { LabelsFromEvents(events, true, labels); }), "Events dataset is empty.");
    Handler h;
    EXPECT_EQ(ErrorOf([&] { FileDataHandlerMD(0, h.aligner, 1, nullptr, 0); }),
              "The model's stride must be at least 1.");
}

TEST(PairLoading, GetReadFillsTheHolderOrDropsABadPair) {
    const std::string path = newFile("pairs");
    std::mt19937 random(11);
    std::vector<std::string> bases = randomMolecules(5, 120, 120, random);
    bases.push_back("ACGTA");  // one block each: the path has a single aligned entry
    const auto pairs = writePairs(path, "p", bases, random, [](std::size_t i, ReadRecipe& one, ReadRecipe& two) {
        if (i == 2) two.basecall = false;
        if (i == 3) two.block_stride_value = 9;  // strands called with different block strides
        if (i == 4) {
            // Strand 1's segmentation ends 5 samples into its last block, at the end of the signal.
            one.duration_template = static_cast<std::int64_t>(one.moves.size() * 10 - 5);
            one.first_sample = static_cast<std::int64_t>(one.samples.size()) - one.duration_template;
        }
    });
    Handler h(/*flags=*/3);
    LogCapture log;
    for (const auto& p : pairs) h->SubmitFilePair(p);
    h->SubmitFilePair({path, path, "missing_1", "p0_1"});
    EXPECT_FALSE(h->NoMoreData());
    EXPECT_TRUE(h->NoMoreData());
    // The last pair is looked at after the others are queued: wait for its line too.
    ASSERT_TRUE(Eventually([&] {
        return h->LoadedCount() == 5 && h->PendingCount() == 0 && log.Count("Error loading read pair") == 1;
    }));
    EXPECT_EQ(log.Count("Could not load read pair (p2_1, p2_2)."), 1u);
    EXPECT_EQ(log.Count("Error loading read pair (missing_1, p0_1): Read id 'missing_1' not found"), 1u);

    ReadHolderMD holder;
    EXPECT_FALSE(h->GetRead(1, holder, 0));  // no high-priority reads here
    ASSERT_TRUE(h->GetRead(0, holder, 0));
    EXPECT_EQ(holder.read1.filename, path);
    EXPECT_EQ(holder.read1.read_index, holder.read2.read_index);
    // Identical labels (strand 2's stays aside): the stretches start at the segmentation; 116 blocks of 10.
    EXPECT_EQ(Fields(holder.stride, holder.read2.read_id, holder.read1.trimmed_start, holder.read2.trimmed_start,
                     holder.read1.trimmed_duration, holder.raw1.size, holder.priorStep, holder.priorSamples.size()),
              "5 p0_2 100 100 1160 1160 10 116");
    EXPECT_EQ(holder.raw2.size, holder.read2.trimmed_duration);
    EXPECT_NEAR(static_cast<double>(holder.priorSamples[100]), 1000.0, 60.0);
    EXPECT_EQ(log.Count("File pair (\"" + path.substr(path.rfind('/') + 1) + "\" p0_1, \""), 1u);
    EXPECT_EQ(log.Count("has been loaded."), 1u);

    // Back from the callers with a sequence: reversed, T to U, metadata restored, one row processed.
    holder.sequence = "AACGTT";
    holder.qualities = "123456";
    holder.read1.read_id = "scribbled";
    h->PassCalledRead(holder, 1);
    EXPECT_EQ(Fields(holder.sequence, holder.qualities, holder.read1.read_id, h->ReadsDone()), "UUGCAA 654321 p0_1 1");
    EXPECT_EQ(h->EventsDone(), holder.GetDuration() / 5);
    EXPECT_EQ(log.Count("completed."), 1u);

    ReadHolderMD second;
    ASSERT_TRUE(h->GetRead(0, second, 1));
    // Its chunks fail to join when the last one is back; passing it on does not try (and log) again.
    second.chunks.push_back(std::make_unique<ChunkDataMD>());
    second.Aggregate();
    h->PassCalledRead(second, 1);
    EXPECT_EQ(log.Count("Chunk aggregation failed for read pair ('p1_1', 'p1_2')."), 1u);
    const struct {
        const char* text;
        std::uint64_t rows;  // summary rows after it: none for the refused strides
    } refused[] = {{"have different event strides. Cannot continue.", 2},
                   {"has an aligned stretch outside its signal.", 3},
                   {"did not produce a usable prior alignment.", 4}};
    for (const auto& r : refused) {
        EXPECT_FALSE(h->GetRead(0, holder, 0));
        EXPECT_EQ(log.Count(r.text), 1u);
        EXPECT_EQ(h->Processor().Count(), r.rows);
    }
    EXPECT_TRUE(Eventually([&] { return !h->IsActive(); }));  // all loaded and taken
}

TEST(PairLoading, AtMostAHundredPairsWaitLoaded) {
    std::mt19937 random(5);
    const auto pairs = writePairs(newFile("many"), "p", randomMolecules(102, 40, 40, random), random);
    Handler h;
    for (const auto& p : pairs) h->SubmitFilePair(p);
    h->NoMoreData();
    // Nobody takes them: loading stops at the cap. Taking one lets one more in.
    ASSERT_TRUE(Eventually([&] { return h->LoadedCount() == 100; }, 60));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(h->PendingCount(), 2u);
    ReadHolderMD holder;
    ASSERT_TRUE(h->GetRead(0, holder, 0));
    EXPECT_TRUE(Eventually([&] { return h->PendingCount() == 1 && h->LoadedCount() == 100; }));
}
