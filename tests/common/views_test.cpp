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
    EXPECT_NO_THROW(VecView<float>(nullptr, 0, 1));
    EXPECT_EQ(ErrorOf([] { VecView<float>(nullptr, 1, 1); }), "Cannot view nullptr with size > 0");
    float x = 0;
    EXPECT_EQ(ErrorOf([&] { VecView<float>(&x, 1, 0); }), "Stride cannot be zero.");
    VecView<float> def;
    EXPECT_EQ(def.data, nullptr);
    EXPECT_EQ(def.size, 0u);
    EXPECT_EQ(def.stride, 1);
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
    auto revEvens = VecView<int>(v.data(), 8, 1).slice(7, 4, -1).slice(0, 2, 2);
    EXPECT_EQ(revEvens[0], 7);
    EXPECT_EQ(revEvens[1], 5);
}

TEST(MatView, RowsColumnsAndMessages) {
    std::vector<float> m(12);
    std::iota(m.begin(), m.end(), 0.f);
    MatView<float> view(m.data(), 3, 4, 4, 1);
    EXPECT_EQ(view.row(2)[1], 9.f);
    EXPECT_EQ(view.column(3)[2], 11.f);
    EXPECT_EQ(ErrorOf([&] { view.row(3); }), "row index out of bounds.");
    EXPECT_EQ(ErrorOf([&] { view.column(4); }), "column index out of bounds.");
    EXPECT_EQ(ErrorOf([&] { MatView<float>(m.data(), 3, 4, 0, 1); }), "Strides (0,1) cannot be zero.");
    EXPECT_EQ(ErrorOf([] { MatView<float>(nullptr, 1, 1, 1, 1); }), "Cannot view nullptr with size > 0");
}

TEST(MatView, SubmatrixBoundIsOnMemory) {
    std::vector<float> m(12);
    std::iota(m.begin(), m.end(), 0.f);
    MatView<float> view(m.data(), 3, 4, 4, 1);
    EXPECT_NO_THROW(view.submatrix(0, 0, 3, 4, 1, 1));
    // Runs past the end of row 0 but stays inside the parent's span.
    auto wide = view.submatrix(0, 2, 2, 4, 1, 1);
    EXPECT_EQ(wide(1, 3), 9.f);
    const std::string err = ErrorOf([&] { view.submatrix(1, 1, 2, 4, 1, 1); });
    EXPECT_EQ(err.rfind("MatView submatrix cannot access wider memory than parent matrix: full range is ", 0), 0u)
        << err;
    EXPECT_NE(err.find(", sub-range is "), std::string::npos);
    // Steps multiply the strides.
    auto every2 = view.submatrix(0, 0, 2, 2, 2, 2);
    EXPECT_EQ(every2(1, 1), 10.f);
}

TEST(MatView, CopyChecksShapeAndTransposes) {
    std::vector<float> a(6), b(6, -1.f);
    std::iota(a.begin(), a.end(), 0.f);
    MatView<float> src(a.data(), 2, 3, 3, 1);
    MatView<float> dstT(b.data(), 2, 3, 1, 2);  // column-major destination
    src.copyTo(dstT);
    for (int r = 0; r < 2; ++r) {
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(dstT(r, c), src(r, c));
        }
    }
    MatView<float> wrong(b.data(), 3, 2, 2, 1);
    EXPECT_EQ(ErrorOf([&] { src.copyTo(wrong); }), "MatView sizes don't match.");
}

TEST(Views, TextForm) {
    std::vector<float> v = {1.f, 2.5f, 3.f};
    EXPECT_EQ(Common::ToString(VecView<float>(v.data(), 3, 1)), "[type  float, size 3, stride 1] {1; 2.5; 3}");
    std::vector<int> big(102);
    std::iota(big.begin(), big.end(), 0);
    const std::string text = Common::ToString(VecView<int>(big.data(), 102, 1));
    EXPECT_NE(text.find("; 99; ...; 101}"), std::string::npos) << text;
    std::vector<int> exact(101);
    std::iota(exact.begin(), exact.end(), 0);
    const std::string whole = Common::ToString(VecView<int>(exact.data(), 101, 1));
    EXPECT_NE(whole.find("; 99; 100}"), std::string::npos);
    EXPECT_EQ(whole.find("..."), std::string::npos);
}

TEST(Allocator, AlignmentAndPaddedStride) {
    Common::AlignedVector64<float> w(13);
    Common::AlignedVector32<float> s(5);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(w.data()) % 64, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(s.data()) % 32, 0u);
    EXPECT_EQ(Common::PaddedStride(1), 1u);
    EXPECT_EQ(Common::PaddedStride(2), 8u);
    EXPECT_EQ(Common::PaddedStride(8), 8u);
    EXPECT_EQ(Common::PaddedStride(9), 16u);
    Common::Allocator<float, 32> alloc;
    EXPECT_THROW(alloc.allocate(0), std::bad_alloc);
}
