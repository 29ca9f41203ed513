#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "decoders/homopolymer_correction.h"

using BasecallCommon::homopolymerDwellCorrection;
using Dwells = std::vector<unsigned long>;

namespace {
// k = 3 states.
constexpr int AAA = 0, ACG = 6, CGT = 27, GTT = 47, TTT = 63, TTA = 60;

template <typename T>
int correct(std::vector<int> states, const std::vector<T>& lengths, std::vector<signed char>& moves) {
    return homopolymerDwellCorrection(Common::VecView<int>(states), lengths, moves, 64);
}
}  // namespace

TEST(HomopolymerDwellCorrection, RunAtEventZeroKeepsFirstMoveOne) {
    // Mean dwell: (50 / 3 + 50) / 4 = 16.67 samples per base; the run of 30 samples wants 2 bases. Event
    // 0 stays at exactly 1, and the sweep gives the second base to the next event of the run.
    std::vector<signed char> moves{1, 0, 0, 1, 1};
    const int change = correct({AAA, AAA, AAA, ACG, CGT}, Dwells{10, 10, 10, 10, 10}, moves);
    EXPECT_EQ(moves, (std::vector<signed char>{1, 1, 0, 1, 1}));
    EXPECT_EQ(change, 1);
}

TEST(HomopolymerDwellCorrection, RunWithMeanDwellGetsOneBase) {
    // All steps: mean dwell (18 / 6 + 18) / 7 = 3, exactly the dwell of the TTT run, so the run's three
    // moves become one base.
    for (int form = 0; form < 2; ++form) {
        std::vector<signed char> moves{1, 1, 1, 1, 1, 1};
        const std::vector<int> states{ACG, CGT, GTT, TTT, TTT, TTT};
        const int change = form == 0 ? correct(states, std::vector<unsigned long>{5, 5, 5, 1, 1, 1}, moves)
                                     : correct(states, std::vector<float>{5, 5, 5, 1, 1, 1}, moves);
        EXPECT_EQ(moves, (std::vector<signed char>{1, 1, 1, 1, 0, 0})) << form;
        EXPECT_EQ(change, -2) << form;
    }
}

TEST(HomopolymerDwellCorrection, CapsAndShortfall) {
    // Mean dwell (112 / 4 + 8) / 3 = 12; the two-event TTT run lasts 104 samples and wants 9 bases, but
    // each event holds at most k = 3: 6 are written and the shortfall is dropped.
    std::vector<signed char> moves{1, 1, 2, 0};
    const int change = correct({ACG, CGT, TTT, TTT}, std::vector<unsigned long>{4, 4, 4, 100}, moves);
    EXPECT_EQ(moves, (std::vector<signed char>{1, 1, 3, 3}));
    EXPECT_EQ(change, 4);

    // Mean dwell (51 / 12 + 27) / 4 = 7.8; the run of 24 samples wants 3 bases. Each event starts at
    // 3 / 3 = 1, the first is raised to its old move capped at (k + 1) / 2 = 2, and the excess base is
    // taken from the run's end.
    std::vector<signed char> many{1, 1, 1, 3, 3, 3};
    const int fewer = correct({ACG, CGT, GTT, TTT, TTT, TTT}, Dwells{9, 9, 9, 8, 8, 8}, many);
    EXPECT_EQ(many, (std::vector<signed char>{1, 1, 1, 2, 1, 0}));
    EXPECT_EQ(fewer, -6);

    // Mean dwell (12 / 3 + 10) / 2 = 7; the TTT run of 2 samples wants no base. Its first event is
    // not the read's first, so the backward sweep takes both of its old bases too.
    std::vector<signed char> entered{1, 2, 0};
    EXPECT_EQ(correct({ACG, TTT, TTT}, std::vector<unsigned long>{10, 1, 1}, entered), -2);
    EXPECT_EQ(entered, (std::vector<signed char>{1, 0, 0}));

    // No homopolymer, no change; a run that ends at the next different state is a separate run.
    std::vector<signed char> plain{1, 1, 1};
    EXPECT_EQ(correct({ACG, CGT, TTA}, std::vector<unsigned long>{1, 1, 1}, plain), 0);
    EXPECT_EQ(plain, (std::vector<signed char>{1, 1, 1}));

    std::vector<signed char> bad{1, 1};
    EXPECT_THROW(correct({ACG}, std::vector<unsigned long>{1, 1}, bad), std::runtime_error);
    std::vector<int> st{0, 0};
    EXPECT_THROW(homopolymerDwellCorrection(Common::VecView<int>(st), Dwells{1, 1}, bad, 100),
                 std::runtime_error);
}
