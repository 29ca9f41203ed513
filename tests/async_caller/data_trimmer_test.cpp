#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <vector>

#include "async_caller/data_trimmer.h"
#include "async_caller/signal_scaling.h"

using AsyncCaller::DataTrimmer;
using AsyncCaller::FileDataHandler;
using AsyncCaller::TrimSettings;

namespace {

constexpr float kScale = 0.25f;
constexpr std::int16_t kOffset = 8;

std::vector<std::int16_t> Noisy(std::size_t n, int level, int spread, std::mt19937& rng) {
    std::uniform_int_distribution<int> noise(-spread, spread);
    std::vector<std::int16_t> raw(n);
    for (auto& x : raw) {
        x = static_cast<std::int16_t>(level + noise(rng));
    }
    return raw;
}

// The expected output of a trim at `cut`: the kept samples in picoamperes, normalised by their own
// median and MAD.
std::vector<float> Expected(const std::vector<std::int16_t>& raw, std::uint64_t cut, float& median, float& mad) {
    std::vector<float> out(raw.size() - cut);
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] = static_cast<float>(raw[cut + i] + kOffset) * kScale;
    }
    AsyncCaller::MedianAndMad(out.data(), out.size(), median, mad);
    const float f = 1.0f / (mad * 1.4826f);
    for (auto& x : out) {
        x = (x - median) * f;
    }
    return out;
}

void ExpectTrim(DataTrimmer& trimmer, const std::vector<std::int16_t>& raw, std::uint64_t stride,
                std::uint64_t cut) {
    std::vector<float> out(raw.size(), -1.0f);
    const auto r = trimmer.Process(kScale, raw.data(), stride, out.data(), raw.size(), kOffset, 0);
    float median = 0.0f;
    float mad = 0.0f;
    const auto expected = Expected(raw, cut, median, mad);
    EXPECT_EQ(r.trim_start, cut);
    EXPECT_EQ(r.kept_samples, raw.size() - cut);
    EXPECT_FLOAT_EQ(r.median, median);
    EXPECT_FLOAT_EQ(r.mad, mad);
    EXPECT_FALSE(r.feature_found);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_FLOAT_EQ(out[i], expected[i]) << i;
    }
}

}  // namespace

TEST(DataTrimmerTest, NoneIsThePlainScalingAndUnknownStrategiesThrow) {
    std::mt19937 rng(5);
    // A leading high stretch that "dna" would cut is kept by "none".
    auto raw = Noisy(3000, 900, 20, rng);
    const auto tail = Noisy(9000, 400, 30, rng);
    raw.insert(raw.end(), tail.begin(), tail.end());

    DataTrimmer none(0.0f, 0.0f, true, "none", TrimSettings{});
    FileDataHandler::FileProcessor base(0.0f, 0.0f, true);
    std::vector<float> a(raw.size()), b(raw.size());
    const auto ra = none.Process(kScale, raw.data(), 10, a.data(), raw.size(), kOffset, 0);
    const auto rb = base.Process(kScale, raw.data(), 10, b.data(), raw.size(), kOffset, 0);
    EXPECT_EQ(a, b);
    EXPECT_EQ(ra.trim_start, 0u);
    EXPECT_EQ(ra.kept_samples, raw.size());
    EXPECT_EQ(ra.median, rb.median);
    EXPECT_EQ(ra.mad, rb.mad);
    EXPECT_EQ(DataTrimmer().trim_strategy, "none");

    DataTrimmer odd(0.0f, 0.0f, true, "protein");
    try {
        odd.Process(kScale, raw.data(), 10, a.data(), raw.size(), kOffset, 0);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "trim_strategy not recognised: protein");
    }
}

TEST(DataTrimmerTest, DnaCutsTheLeadingHighStretch) {
    std::mt19937 rng(11);
    auto raw = Noisy(300, 900, 20, rng);  // 30 blocks of stride 10 well above the tail's level
    const auto tail = Noisy(5000, 400, 30, rng);
    raw.insert(raw.end(), tail.begin(), tail.end());

    TrimSettings s;
    s.max_trim = 1000;
    s.threshold = 3.0f;
    s.search_param = 5;
    DataTrimmer dna(0.0f, 0.0f, true, "dna", s);
    ExpectTrim(dna, raw, 10, 300);

    // The cut never goes beyond max_trim blocks, even inside the high stretch.
    s.max_trim = 12;
    DataTrimmer short_reach(0.0f, 0.0f, true, "dna", s);
    ExpectTrim(short_reach, raw, 10, 120);

    // max_trim 0 switches trimming off, and so do reads of at most 100 blocks.
    s.max_trim = 0;
    DataTrimmer off(0.0f, 0.0f, true, "dna", s);
    ExpectTrim(off, raw, 10, 0);
    s.max_trim = 1000;
    DataTrimmer dna2(0.0f, 0.0f, true, "dna", s);
    const std::vector<std::int16_t> short_read(raw.begin(), raw.begin() + 1009);  // 100 blocks
    ExpectTrim(dna2, short_read, 10, 0);

    // A run of high blocks shorter than search_param does not count.
    s.search_param = 40;
    DataTrimmer strict(0.0f, 0.0f, true, "dna", s);
    ExpectTrim(strict, raw, 10, 0);
}

TEST(DataTrimmerTest, TrimSearchFindsTheEndOfTheLastLongRun) {
    const std::vector<float> means = {5, 5, 1, 5, 5, 5, 1, 5, 1, 1, 5, 5};
    std::vector<std::uint64_t> positions(means.size());
    for (std::size_t b = 0; b < positions.size(); ++b) {
        positions[b] = b * 4;
    }
    EXPECT_EQ(DataTrimmer::TrimSearch(means, positions, 2.0f, 2, 12), 48);  // the run at the very end
    EXPECT_EQ(DataTrimmer::TrimSearch(means, positions, 2.0f, 2, 9), 24);   // behind blocks 3-5
    EXPECT_EQ(DataTrimmer::TrimSearch(means, positions, 2.0f, 1, 9), 32);   // block 7 alone now counts
    EXPECT_EQ(DataTrimmer::TrimSearch(means, positions, 2.0f, 2, 5), 20);   // run cut off by the reach
    EXPECT_EQ(DataTrimmer::TrimSearch(means, positions, 2.0f, 4, 12), -1);
    EXPECT_EQ(DataTrimmer::TrimSearch(means, positions, 9.0f, 1, 12), -1);
}

TEST(DataTrimmerTest, RnaCutsAtTheFirstStepUp) {
    std::mt19937 rng(3);
    auto raw = Noisy(400, 300, 4, rng);  // low stretch, then a step up of about a third of the level
    const auto body = Noisy(3600, 420, 4, rng);
    raw.insert(raw.end(), body.begin(), body.end());

    TrimSettings s;
    s.max_trim = 1000;
    s.rna_window = 50.0f;
    s.rna_factor = 0.2f;
    DataTrimmer rna(0.0f, 0.0f, true, "rna", s);
    ExpectTrim(rna, raw, 10, 400);

    // A cut at or beyond min(max_trim, count / 2) counts as none.
    s.max_trim = 400;
    DataTrimmer capped(0.0f, 0.0f, true, "rna", s);
    ExpectTrim(capped, raw, 10, 0);
    // Too large a step is never found.
    s.max_trim = 1000;
    s.rna_factor = 0.5f;
    DataTrimmer flat(0.0f, 0.0f, true, "rna", s);
    ExpectTrim(flat, raw, 10, 0);
    // Only the first rna_events events are looked at.
    s.rna_factor = 0.2f;
    s.rna_events = 8;
    DataTrimmer early(0.0f, 0.0f, true, "rna", s);
    ExpectTrim(early, raw, 10, 0);
}

TEST(DataTrimmerTest, FeatureGivesTheScaling) {
    // 30 samples at 50 pA, then a dip to 60 and 61 inside a 100 pA level.
    std::vector<float> x(30, 50.0f);
    x.push_back(60.0f);
    x.push_back(61.0f);
    x.insert(x.end(), 20, 100.0f);
    x.push_back(250.0f);  // saturated: not a peak
    FileDataHandler::ScaleResult r;
    ASSERT_TRUE(DataTrimmer::FindFeature(x.data(), x.size(), 20.0f, r));
    EXPECT_FLOAT_EQ(r.before_mean, 50.0f);
    EXPECT_FLOAT_EQ(r.before_spread, 0.0f);
    EXPECT_FLOAT_EQ(r.after_mean, (60.0f + 61.0f + 2000.0f + 250.0f) / 23.0f);
    // The drop must exceed feature_drop.
    FileDataHandler::ScaleResult none;
    EXPECT_FALSE(DataTrimmer::FindFeature(x.data(), x.size(), 40.0f, none));
    EXPECT_FALSE(none.feature_found);
    // Fewer than 10 samples on a side ends the search.
    const std::vector<float> early(x.begin() + 25, x.end());
    EXPECT_FALSE(DataTrimmer::FindFeature(early.data(), early.size(), 20.0f, none));

    // In "dna" the feature is looked for in the cut stretch and replaces the median and MAD.
    std::mt19937 rng(1);
    std::vector<std::int16_t> raw(300);
    for (std::size_t i = 0; i < raw.size(); ++i) {
        // 152 pA with a dip at samples 200-201 that recovers by less than 2 pA per sample
        raw[i] = static_cast<std::int16_t>(i == 200 ? 500 : (i == 201 ? 504 : 600));
    }
    const auto tail = Noisy(5000, 200, 30, rng);
    raw.insert(raw.end(), tail.begin(), tail.end());
    TrimSettings s;
    s.max_trim = 1000;
    s.threshold = 3.0f;
    s.search_param = 5;
    s.use_feature = true;
    s.feature_shift = 5.0f;
    s.feature_scale = 2.0f;
    s.feature_drop = 10.0f;
    DataTrimmer dna(0.0f, 0.0f, true, "dna", s);
    std::vector<float> out(raw.size());
    const auto result = dna.Process(kScale, raw.data(), 10, out.data(), raw.size(), kOffset, 0);
    EXPECT_EQ(result.trim_start, 300u);
    ASSERT_TRUE(result.feature_found);
    const float before = (600 + kOffset) * kScale;
    EXPECT_FLOAT_EQ(result.before_mean, before);
    EXPECT_FLOAT_EQ(result.median, 5.0f + before);
    EXPECT_FLOAT_EQ(result.mad, (result.after_mean - before) / 2.0f);
    const float expected0 = ((raw[300] + kOffset) * kScale - result.median) / (result.mad * 1.4826f);
    EXPECT_FLOAT_EQ(out[0], expected0);
}
