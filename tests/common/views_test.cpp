#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/allocator.h"
#include "common/views.h"
#include "test_support.h"

using Common::MatView;
using Common::VecView;
using TestSupport::ErrorOf;


TEST(VecView, ConstructionChecks) {
    float x = 0;
    EXPECT_EQ(ErrorOf([] { VecView<float>(nullptr, 0, 1); }), "<no error>");
    EXPECT_EQ(ErrorOf([] { VecView<float>(nullptr, 1, 1); }), "Cannot view nullptr with size > 0");
    EXPECT_EQ(ErrorOf([&] { VecView<float>(&x, 1, 0); }), "Stride cannot be zero.");
}

// Every small slice against the rule read plainly: a forward slice needs start + count * step
// elements (the whole product, so a stride-2 slice of n needs 2n after its start), a backward one its
// first and last index inside; an accepted slice reads element start + i * step.
TEST(VecView, SlicesOfEverySmallShape) {
    std::vector<int> v(8);
    std::iota(v.begin(), v.end(), 0);
    for (std::uint64_t n = 0; n <= v.size(); ++n) {
        const VecView<int> view(n > 0 ? v.data() : nullptr, n, 1);
        for (std::uint64_t start = 0; start <= n + 1; ++start) {
            for (std::uint64_t count = 0; count <= 5; ++count) {
                for (std::int64_t step = -3; step <= 3; ++step) {
                    const std::int64_t first = static_cast<std::int64_t>(start);
                    const std::int64_t last = first + (static_cast<std::int64_t>(count) - 1) * step;
                    const bool fits = step > 0 ? first + static_cast<std::int64_t>(count) * step <= static_cast<std::int64_t>(n)
                                               : start < n && last >= 0;
                    const std::string error = ErrorOf([&] { view.slice(start, count, step); });
                    const std::string expected =
                        step == 0 ? "Slice cannot have zero stride." : fits ? "<no error>" : "Slice out of bounds.";
                    ASSERT_EQ(error, expected) << "n " << n << ", slice(" << start << ", " << count << ", " << step << ")";
                    if (error == "<no error>") {
                        const VecView<int> slice = view.slice(start, count, step);
                        ASSERT_EQ(slice.size, count);
                        for (std::uint64_t i = 0; i < count; ++i) {
                            ASSERT_EQ(slice[i], first + static_cast<std::int64_t>(i) * step);
                        }
                    }
                }
            }
        }
    }
    // Slices compose strides: every second element of the reversed view.
    EXPECT_EQ(VecView<int>(v.data(), 8, 1).slice(7, 4, -1).slice(0, 2, 2)[1], 5);
}

TEST(MatView, RowsColumnsSubmatricesAndMessages) {
    std::vector<float> m(12);
    std::iota(m.begin(), m.end(), 0.f);
    MatView<float> view(m.data(), 3, 4, 4, 1);
    EXPECT_EQ(view.row(2)[1], 9.f);
    EXPECT_EQ(view.column(3)[2], 11.f);
    EXPECT_EQ(ErrorOf([&] { view.row(3); }), "row index out of bounds.");
    EXPECT_EQ(ErrorOf([&] { view.column(4); }), "column index out of bounds.");
    EXPECT_EQ(ErrorOf([&] { MatView<float>(m.data(), 3, 4, 0, 1); }), "Strides (0,1) cannot be zero.");
    EXPECT_EQ(ErrorOf([] { MatView<float>(nullptr, 1, 1, 1, 1); }), "Cannot view nullptr with size > 0");
    // The submatrix bound is on memory: past the end of row 0 but inside the parent's span is fine.
    EXPECT_EQ(view.submatrix(0, 2, 2, 4, 1, 1)(1, 3), 9.f);
    EXPECT_EQ(ErrorOf([&] { view.submatrix(0, 0, 3, 4, 1, 1); }), "<no error>");
    EXPECT_EQ(ErrorOf([&] { view.submatrix(1, 1, 2, 4, 1, 1); }).rfind(
                  "MatView submatrix cannot access wider memory than parent matrix: full range is ", 0), 0u);
    EXPECT_EQ(view.submatrix(0, 0, 2, 2, 2, 2)(1, 1), 10.f);  // steps multiply the strides
}

TEST(Views, TextForm) {
    std::vector<float> v = {1.f, 2.5f, 3.f};
    EXPECT_EQ(Common::ToString(VecView<float>(v.data(), 3, 1)), "[type  float, size 3, stride 1] {1; 2.5; 3}");
    std::vector<int> big(102);
    std::iota(big.begin(), big.end(), 0);
    // Past 101 elements the text skips to the last one.
    EXPECT_NE(Common::ToString(VecView<int>(big.data(), 102, 1)).find("; 99; ...; 101}"), std::string::npos);
    const std::string whole = Common::ToString(VecView<int>(big.data(), 101, 1));
    EXPECT_EQ(whole.substr(whole.size() - 10), "; 99; 100}");
}

TEST(Allocator, AlignmentAndPaddedStride) {
    Common::AlignedVector64<float> w(13);
    Common::AlignedVector32<float> s(5);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(w.data()) % 64, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(s.data()) % 32, 0u);
    for (const auto& [n, padded] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{{1, 1}, {2, 8}, {8, 8}, {9, 16}})
        EXPECT_EQ(Common::PaddedStride(n), padded) << n;
    Common::Allocator<float, 32> alloc;
    EXPECT_THROW(alloc.allocate(0), std::bad_alloc);
}
