#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "async_caller/data_trimmer.h"
#include "async_caller/file_data_handler.h"
#include "async_caller/read_holder_md.h"
#include "async_caller/signal_scaling.h"
#include "data_api/h5_object.h"
#include "read_files.h"

using AsyncCaller::FileDataHandler;
using BasecallCommon::KernelIsa;

namespace {

// The base handler with nothing to load, for its helpers.
class IdleHandler : public FileDataHandler {
public:
    IdleHandler() : FileDataHandler(5, nullptr, 1, 0, 20) { startWorker(); }
    ~IdleHandler() override { JoinWorkerThread(); }
    bool GetRead(int, AsyncCaller::ReadHolder&, int) override { return false; }
    void PassCalledRead(AsyncCaller::ReadHolder&, int) override {}
    bool NoMoreData() override { return false; }
    std::uint64_t PendingCount() override { return 0; }
    std::uint64_t ReadsDone() override { return 0; }
    std::uint64_t EventsDone() override { return 0; }
};

bool sameBits(float a, float b) { return std::memcmp(&a, &b, sizeof(float)) == 0; }

}  // namespace

TEST(SignalScaling, EveryBuildMatchesTheScalarReference) {
    std::mt19937 random(5);
    std::uniform_int_distribution<int> sample(-32768, 32767);
    std::uniform_real_distribution<float> value(-300.0f, 300.0f);
    const auto reference = AsyncCaller::detail::GetScalingKernels(KernelIsa::Scalar);
    int variants = 0;
    for (const KernelIsa isa : {KernelIsa::Scalar, KernelIsa::Sse2, KernelIsa::Avx2, KernelIsa::Avx512}) {
        const auto kernels = AsyncCaller::detail::GetScalingKernels(isa);
        if (kernels.toPicoamps == nullptr) {
            continue;  // this processor cannot run that build
        }
        ++variants;
        SCOPED_TRACE(BasecallCommon::IsaName(isa));
        for (const std::size_t n : {0, 1, 7, 8, 9, 15, 16, 17, 31, 1000, 4099}) {
            std::vector<std::int16_t> raw(n);
            std::vector<float> x(n);
            for (std::size_t i = 0; i < n; ++i) {
                raw[i] = static_cast<std::int16_t>(sample(random));
                x[i] = value(random);
            }
            std::vector<float> expect(n), got(n);
            reference.toPicoamps(raw.data(), n, -241, 0.170898f, expect.data());
            kernels.toPicoamps(raw.data(), n, -241, 0.170898f, got.data());
            std::vector<float> expectNorm = x, gotNorm = x;
            reference.shiftAndScale(expectNorm.data(), n, 93.25f, 0.0717f);
            kernels.shiftAndScale(gotNorm.data(), n, 93.25f, 0.0717f);
            for (std::size_t i = 0; i < n; ++i) {
                ASSERT_TRUE(sameBits(expect[i], got[i])) << i;
                ASSERT_TRUE(sameBits(expectNorm[i], gotNorm[i])) << i;
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

TEST(SignalScaling, MedianAndMad) {
    float median = 0.0f, mad = 0.0f;
    const float odd[] = {5.0f, 1.0f, 3.0f};
    AsyncCaller::MedianAndMad(odd, 3, median, mad);
    EXPECT_EQ(median, 3.0f);
    EXPECT_EQ(mad, 2.0f);
    const float even[] = {4.0f, 1.0f, 3.0f, 10.0f};
    AsyncCaller::MedianAndMad(even, 4, median, mad);
    EXPECT_EQ(median, 3.5f);
    EXPECT_EQ(mad, 1.5f);  // deviations 0.5, 2.5, 0.5, 6.5
}

TEST(FileProcessor, ScalesToPicoampsThenNormalises) {
    const std::vector<std::int16_t> raw = {0, 10, 20, 30, 40};
    std::vector<float> out(raw.size());
    FileDataHandler::FileProcessor automatic;
    const auto r = automatic.Process(0.5f, raw.data(), 5, out.data(), raw.size(), 10, 0);
    // Picoamperes 5, 10, 15, 20, 25: median 15, MAD 5.
    EXPECT_EQ(r.trim_start, 0u);
    EXPECT_EQ(r.kept_samples, 5u);
    EXPECT_EQ(r.median, 15.0f);
    EXPECT_EQ(r.mad, 5.0f);
    EXPECT_FLOAT_EQ(out[4], 10.0f / (5.0f * 1.4826f));
    EXPECT_FLOAT_EQ(out[2], 0.0f);

    // Fixed scaling normalises by the given values, and still reports what it measured.
    FileDataHandler::FileProcessor fixed(5.0f, 2.0f, false);
    const auto f = fixed.Process(0.5f, raw.data(), 5, out.data(), raw.size(), 10, 0);
    EXPECT_EQ(f.median, 15.0f);
    EXPECT_EQ(f.mad, 5.0f);
    EXPECT_FLOAT_EQ(out[0], 0.0f);
    EXPECT_FLOAT_EQ(out[4], 20.0f * (1.0f / (2.0f * 1.4826f)));

    // An empty read is left alone.
    const auto none = automatic.Process(0.5f, nullptr, 5, nullptr, 0, 10, 0);
    EXPECT_EQ(none.kept_samples, 0u);

    // The output stage's processor scales the same way, and knows no strategy that cuts.
    AsyncCaller::DataTrimmer trimmer(5.0f, 2.0f, false, "none");
    std::vector<float> trimmed(raw.size());
    const auto t = trimmer.Process(0.5f, raw.data(), 5, trimmed.data(), raw.size(), 10, 0);
    EXPECT_EQ(trimmed, out);
    EXPECT_EQ(t.kept_samples, 5u);
    EXPECT_EQ(t.median, 15.0f);
    AsyncCaller::DataTrimmer dna(0.0f, 0.0f, true, "dna");
    try {
        dna.Process(0.5f, raw.data(), 5, trimmed.data(), raw.size(), 10, 0);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "trim_strategy not recognised: dna");
    }
}

TEST(FileProcessor, PostProcessKeepsAClonePerDimension) {
    FileDataHandler::FileProcessor processor;
    AsyncCaller::ReadHolderMD pair;
    pair.SetRawData(new float[3](), 3, new float[3](), 3, true);
    pair.sequence = "ACGT";
    pair.read1.read_id = "x";
    processor.PostProcess(pair, 0);
    AsyncCaller::ReadHolder1D single;
    single.read.read_id = "y";
    processor.PostProcess(single, 1);
    EXPECT_EQ(processor.Count(), 2u);
    AsyncCaller::ReadList results = processor.Results();
    ASSERT_EQ(results.size(), 2u);
    const auto& clone = static_cast<const AsyncCaller::ReadHolderMD&>(*results.front());
    EXPECT_EQ(clone.sequence, "ACGT");
    EXPECT_EQ(clone.read1.read_id, "x");
    EXPECT_FALSE(clone.owns_raw);
    EXPECT_EQ(processor.Count(), 0u);

    struct OddHolder : AsyncCaller::ReadHolder1D {
        OddHolder() { dimension = 7; }
    } odd;
    try {
        processor.PostProcess(odd, 0);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Unrecognized read-holder dimension value.");
    }
}

TEST(FileDataHandler, KmerTablesAndIndex) {
    IdleHandler handler;
    const auto& kmers = handler.GetKmers(3);
    ASSERT_EQ(kmers.size(), 64u);
    EXPECT_EQ(kmers[0], "AAA");
    EXPECT_EQ(kmers[6], "ACG");  // 0*16 + 1*4 + 2: first base most significant
    EXPECT_EQ(kmers[63], "TTT");
    EXPECT_EQ(&handler.GetKmers(3), &kmers);  // built once
    const auto& index = handler.GetKmerIndex(3);
    EXPECT_EQ(index.at("GCA"), 36);
    EXPECT_EQ(handler.GetKmers(1), (std::vector<std::string>{"A", "C", "G", "T"}));
    EXPECT_TRUE(handler.IsActive());
}

TEST(FileDataHandler, StartTimeTextAddsTheReadStart) {
    const char* old = getenv("TZ");
    const std::string saved = old ? old : "";
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(AsyncCaller::ReadStartTimeText("2017-06-01T10:00:00Z", 4000, 4000.0f), "2017-06-01T10:00:01Z");
    EXPECT_EQ(AsyncCaller::ReadStartTimeText("2017-06-01T23:59:59Z", 8000 * 3, 8000.0f), "2017-06-02T00:00:02Z");
    EXPECT_EQ(AsyncCaller::ReadStartTimeText("not a time", 0, 4000.0f), "");
    if (old) {
        setenv("TZ", saved.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

TEST(FileDataHandler, LoadRawReadConvertsMetadata) {
    const std::string path = TestSupport::Scratch().File("raw_read.rawh5");
    {
        DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::CreateTruncate);
        TestSupport::ReadRecipe recipe;
        recipe.id = "r-string";
        recipe.samples = {1, 2, 3, 4};
        TestSupport::writeRead(source, recipe);
        recipe.id = "r-int";
        recipe.channel_number = 345;
        TestSupport::writeRead(source, recipe);
    }
    IdleHandler handler;
    DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::ReadOnly);
    FileDataHandler::RawRead raw;
    ASSERT_TRUE(handler.loadRawRead(source.GetRead("r-string"), raw));
    EXPECT_EQ(raw.read.read_id, "r-string");
    EXPECT_EQ(raw.read.channel, 12u);
    EXPECT_EQ(raw.read.read_number, 17u);
    EXPECT_EQ(raw.read.start_time, 4000u);
    EXPECT_EQ(raw.read.duration, 4u);
    EXPECT_EQ(raw.read.trimmed_duration, 4u);
    EXPECT_EQ(raw.read.sampling_rate, 4000.0f);
    EXPECT_EQ(raw.read.run_id, "run-1");
    EXPECT_EQ(raw.read.sample_id, "sample-1");
    EXPECT_EQ(raw.offset, 10);
    EXPECT_FLOAT_EQ(raw.scale, 1400.0f / 8192.0f);
    EXPECT_EQ(raw.raw_data, (std::vector<std::int16_t>{1, 2, 3, 4}));
    EXPECT_EQ(raw.stride, 5u);
    EXPECT_FALSE(raw.read.start_time_text.empty());

    FileDataHandler::RawRead second;
    ASSERT_TRUE(handler.loadRawRead(source.GetRead("r-int"), second));
    EXPECT_EQ(second.read.channel, 345u);

    // Scaling fills the metadata from the processor's results.
    raw.scaleRaw(handler.Processor(), 0);
    EXPECT_EQ(raw.raw.size, 4u);
    EXPECT_TRUE(raw.owns_raw);
    EXPECT_FLOAT_EQ(raw.read.median, 12.5f * (1400.0f / 8192.0f));  // samples 11 to 14 in picoamperes
}
