#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/allocator.h"
#include "common/views.h"

using Common::MatView;
using Common::VecView;

namespace {
template <typename F>
std::string ErrorOf(F f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no error>";
}
}  // namespace

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

TEST(VecView, SliceBoundsUseTheFullProduct) {
    std::vector<int> v(10);
    std::iota(v.begin(), v.end(), 0);
    VecView<int> view(v.data(), 5, 1);
    EXPECT_NO_THROW(view.slice(0, 5, 1));
    EXPECT_EQ(ErrorOf([&] { view.slice(1, 5, 1); }), "Slice out of bounds.");
    EXPECT_EQ(ErrorOf([&] { view.slice(0, 1, 0); }), "Slice cannot have zero stride.");

    auto rev = view.slice(4, 5, -1);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(rev[i], 4 - i);
    }
    EXPECT_EQ(ErrorOf([&] { view.slice(5, 1, -1); }), "Slice out of bounds.");
    EXPECT_EQ(ErrorOf([&] { view.slice(3, 5, -1); }), "Slice out of bounds.");

    VecView<int> ten(v.data(), 10, 1);
    auto evens = ten.slice(0, 5, 2);
    EXPECT_EQ(evens[4], 8);
    // The last element would lie inside, but 1 + 5 * 2 > 10.
    EXPECT_EQ(ErrorOf([&] { ten.slice(1, 5, 2); }), "Slice out of bounds.");

    // Slices compose strides: every second element of the reversed view.
    auto revEvens = ten.slice(9, 5, -1).slice(0, 2, 2);
    EXPECT_EQ(revEvens[0], 9);
    EXPECT_EQ(revEvens[1], 7);
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
