#include "test_util.h"
#include "async_caller/event_detector.h"

using namespace AsyncCaller;

namespace {

std::vector<float> steps(const std::vector<float>& levels, std::size_t width, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::normal_distribution<float> noise(0.0f, 0.2f);
    std::vector<float> x;
    for (const float level : levels) {
        for (std::size_t i = 0; i < width; ++i) x.push_back(level + noise(random));
    }
    return x;
}

const EventDetectionSettings kSettings{5, 12, 3.0f, 6.0f, 0.5f};

}  // namespace

TEST(EventDetector, FindsEachChangeOfLevel) {
    const std::vector<float> levels = {0.0f, 3.0f, 1.0f, 4.0f, 2.0f, 5.0f, 0.5f, 3.5f};
    std::vector<float> x = steps(levels, 25);
    Common::EventData<Common::Deep> events;
    DetectEvents(Common::VecView<float>(x), kSettings, events);
    ASSERT_EQ(events.size(), levels.size());
    std::uint64_t next = 0;
    for (std::size_t e = 0; e < events.size(); ++e) {
        EXPECT_EQ(events.start[e], next) << e;
        EXPECT_NEAR(static_cast<double>(events.start[e]), 25.0 * e, 1.0);
        EXPECT_NEAR(events.mean[e], levels[e], 0.3);
        EXPECT_LT(events.stdv[e], 0.6f);
        next = events.start[e] + events.length[e];
    }
    EXPECT_EQ(next, x.size());

    // A step of 0.35 (under two noise widths) is too small for the short window's threshold but
    // stands out over the long one.
    x = steps({0.0f, 0.35f}, 200, 3);
    DetectEvents(Common::VecView<float>(x), EventDetectionSettings{5, 60, 100.0f, 6.0f, 0.5f}, events);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_NEAR(static_cast<double>(events.start[1]), 200.0, 10.0);

    // A flat signal is one event; an empty one, none.
    std::vector<float> flat(300, 1.0f);
    DetectEvents(Common::VecView<float>(flat), kSettings, events);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events.length[0], 300u);
    EXPECT_FLOAT_EQ(events.mean[0], 1.0f);
    DetectEvents(Common::VecView<float>(), kSettings, events);
    EXPECT_EQ(events.size(), 0u);
}
