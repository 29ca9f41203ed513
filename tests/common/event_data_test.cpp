#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/event_data.h"
#include "common/kmer_table.h"
#include "test_support.h"

using Common::Deep;
using Common::EventData;
using Common::Shallow;
using TestSupport::ErrorOf;

namespace {

// Events numbered 0 .. n-1 in every field, so that moves and removals can be followed.
EventData<Deep> numbered(std::size_t n) {
    EventData<Deep> ev(n);
    for (std::size_t i = 0; i < n; ++i) {
        ev.mean[i] = static_cast<float>(i);
        ev.stdv[i] = static_cast<float>(i) + 0.5f;
        ev.start[i] = 10 * i;
        ev.length[i] = i + 1;
    }
    return ev;
}

template <typename Record>
std::vector<float> means(const Record& ev) {
    std::vector<float> out;
    for (std::size_t i = 0; i < ev.size(); ++i) out.push_back(ev.mean[i]);
    return out;
}

}  // namespace

// A deep record grows with zeros and cuts from the end in every field; a view only cuts, keeping
// its first events in view order (for a reversed view, the low-address end of its memory). Slices of
// every field are checked by the removal test below.
TEST(EventData, ResizeOfRecordsAndViews) {
    EventData<Deep> ev = numbered(4);
    ev.resize(6);
    EXPECT_EQ(means(ev), (std::vector<float>{0, 1, 2, 3, 0, 0}));
    EXPECT_EQ(ev.length[4], 0u);
    EXPECT_EQ(ev.start.size(), 6u);
    ev.resize(2);
    EXPECT_EQ(means(ev), (std::vector<float>{0, 1}));
    EXPECT_EQ(ev.stdv.size(), 2u);

    EventData<Deep> owner = numbered(5);
    EventData<Shallow> view(owner);
    view.resize(3);
    EXPECT_EQ(means(view), (std::vector<float>{0, 1, 2}));
    EXPECT_EQ(ErrorOf([&] { view.resize(4); }), "Cannot enlarge VecView");
    view.resize(0);
    EXPECT_EQ(view.mean.data, nullptr);
    EXPECT_EQ(view.length.stride, 1);
    EventData<Shallow> reversed = owner.slice(4, 5, -1);
    reversed.resize(2);
    EXPECT_EQ(means(reversed), (std::vector<float>{1, 0}));
    EXPECT_EQ(reversed.start[0], 10u);
}

// Every removal list of up to six events, on an owning record and on a reversed view of one, against
// a plain erase: the kept events close up in view order in all four fields, a view inside the memory
// it views.
TEST(EventData, RemovalOfEveryListMatchesAPlainErase) {
    const auto expectEvents = [](const auto& ev, const std::vector<float>& numbers) {
        ASSERT_EQ(means(ev), numbers);
        for (std::size_t j = 0; j < numbers.size(); ++j) {
            ASSERT_EQ(ev.stdv[j], numbers[j] + 0.5f);
            ASSERT_EQ(ev.start[j], static_cast<std::uint64_t>(10 * numbers[j]));
            ASSERT_EQ(ev.length[j], static_cast<std::uint64_t>(numbers[j] + 1));
        }
    };
    for (std::size_t n = 1; n <= 6; ++n) {
        for (unsigned mask = 0; mask < (1u << n); ++mask) {
            SCOPED_TRACE("n " + std::to_string(n) + ", removed mask " + std::to_string(mask));
            std::vector<int> indices;
            std::vector<float> kept, keptReversed;  // event numbers left, in view order
            for (std::size_t i = 0; i < n; ++i) {
                if (mask >> i & 1) {
                    indices.push_back(static_cast<int>(i));
                } else {
                    kept.push_back(static_cast<float>(i));
                    keptReversed.push_back(static_cast<float>(n - 1 - i));
                }
            }
            EventData<Deep> deep = numbered(n);
            deep = indices;
            expectEvents(deep, kept);

            EventData<Deep> owner = numbered(n);
            EventData<Shallow> reversed = owner.slice(n - 1, n, -1);
            reversed = indices;
            expectEvents(reversed, keptReversed);
            for (std::size_t j = 0; j < keptReversed.size(); ++j) {
                ASSERT_EQ(owner.mean[n - 1 - j], keptReversed[j]) << "the view's memory is its owner's";
            }
            if (kept.empty()) {
                EXPECT_EQ(reversed.stdv.data, nullptr);
            }
        }
    }
    EventData<Deep> ev = numbered(3);
    EXPECT_EQ(ErrorOf([&] { ev.removeIndices({2, 1}); }),
              "Event removal list must hold ascending event indices below 3, but has 1.");
    EXPECT_EQ(ErrorOf([&] { ev.removeIndices({3}); }),
              "Event removal list must hold ascending event indices below 3, but has 3.");
    EXPECT_EQ(means(ev), (std::vector<float>{0, 1, 2}));
}

TEST(EventData, StateCounts) {
    EXPECT_EQ(Common::KmerLengthFromStates(4), 1);
    EXPECT_EQ(Common::KmerLengthFromStates(1 << 20), 10);
    for (std::int64_t bad : {0, 1, 2, 8, 12, 1000, -4}) {
        EXPECT_EQ(ErrorOf([&] { Common::KmerLengthFromStates(bad); }),
                  "Unsupported number of states: " + std::to_string(bad) + ". State count should be a positive power of 4.");
    }
}

TEST(KmerTable, ReadsLevelsInKmerOrder) {
    TestSupport::TempDir dir;
    // Rows out of order on purpose: the "kmer" column places them.
    std::string text = "# 2-mer levels\nkmer\tlevel_mean\tlevel_stdv\tsd_mean\tsd_stdv\textra\n";
    for (int i = 15; i >= 0; --i) {
        text += std::string{"ACGT"[i / 4], "ACGT"[i % 4]} + "\t" + std::to_string(100 + i) + "\t1.5\t" + std::to_string(0.5 * i) + "\t2\tx\n";
    }
    const std::string path = dir.File("levels.txt", text);
    Common::KmerTable table;
    table.Read(path, 2);
    ASSERT_EQ(table.size(), 16u);
    EXPECT_EQ(table.level_mean[0], 100.0f);
    EXPECT_EQ(table.level_mean[15], 115.0f);
    EXPECT_EQ(table.sd_mean[6], 3.0f);
    EXPECT_EQ(table.level_stdv[3], 1.5f);
    EXPECT_EQ(table.sd_stdv[9], 2.0f);
    for (int k : {1, 3}) EXPECT_EQ(ErrorOf([&] { table.Read(path, k); }), "Invalid model length.");
    const std::string three = dir.File("three.txt", "level_mean\tlevel_stdv\tsd_mean\n1\t2\t3\n1\t2\t3\n1\t2\t3\n1\t2\t3\n");
    EXPECT_EQ(ErrorOf([&] { table.Read(three, 1); }), "Required column \"sd_stdv\" not found in k-mer table: " + three);
    // Without a "kmer" column the rows are taken as sorted.
    table.Read(dir.File("sorted.txt", "level_mean\tlevel_stdv\tsd_mean\tsd_stdv\n1\t2\t3\t4\n5\t6\t7\t8\n9\t10\t11\t12\n13\t14\t15\t16\n"), 1);
    EXPECT_EQ(table.level_mean, (std::vector<float>{1, 5, 9, 13}));
    EXPECT_EQ(table.sd_stdv, (std::vector<float>{4, 8, 12, 16}));
}
