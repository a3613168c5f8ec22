// SmallVector arithmetic and SparseRowVector bookkeeping, with the fixed texts of
// their always-on index checks.
#include <gtest/gtest.h>

#include "SmallVector"
#include "SparseRowVector"

namespace hemiray {
namespace {

TEST(SmallVector, StartsAtZeroAndDoesArithmetic) {
    EXPECT_EQ(Vec3(), Vec3(0, 0, 0));
    const Vec3 a(1, 2, 3), b(-4, 5, 0.5);
    EXPECT_EQ(a + b, Vec3(-3, 7, 3.5));
    EXPECT_EQ(a - b, Vec3(5, -3, 2.5));
    EXPECT_EQ(a * 2.0, Vec3(2, 4, 6));
    EXPECT_EQ(-a, Vec3(-1, -2, -3));
    EXPECT_DOUBLE_EQ(dot(a, b), -4 + 10 + 1.5);
    // Right-handed: x cross y = z, and the cross product is orthogonal to both.
    EXPECT_EQ(cross(Vec3(1, 0, 0), Vec3(0, 1, 0)), Vec3(0, 0, 1));
    EXPECT_DOUBLE_EQ(dot(cross(a, b), a), 0.0);
    EXPECT_DOUBLE_EQ(dot(cross(a, b), b), 0.0);
    EXPECT_DOUBLE_EQ(norm(Vec3(3, 4, 12)), 13.0);
}

TEST(SparseRowVector, SumsInFirstTouchOrderAndClearsOnlyWhatItTouched) {
    SparseRowVector row;
    EXPECT_EQ(row.np, 0);
    row.clear();  // on a row without scratch space: only np
    row.resize(10);
    EXPECT_EQ(row.w, std::vector<double>(10, 0.0));
    row.add(7, 0.25);
    row.add(2, 0.5);
    row.add(7, 0.125);
    ASSERT_EQ(row.np, 2);
    EXPECT_EQ(row.columnAt(0), 7);
    EXPECT_EQ(row.columnAt(1), 2);
    EXPECT_DOUBLE_EQ(row.valueAt(7), 0.375);
    EXPECT_DOUBLE_EQ(row.valueAt(2), 0.5);
    row.clear();
    EXPECT_EQ(row.np, 0);
    EXPECT_EQ(row.w, std::vector<double>(10, 0.0));
    EXPECT_EQ(row.m, std::vector<int32_t>(10, 0));
    row.add(3, 0.5);
    ASSERT_EQ(row.np, 1);
    EXPECT_EQ(row.columnAt(0), 3);
}

TEST(ContainersDeathTest, IndexChecksAbortWithTheirTexts) {
    Vec3 a;
    const Vec3& ca = a;
    int three = 3, minusOne = -1;
    EXPECT_DEATH(a[three] = 1, "src/SmallVector:25: Assertion 'i >= 0 && i < N' failed");
    EXPECT_DEATH((void)ca[minusOne], "src/SmallVector:26: Assertion 'i >= 0 && i < N' failed");

    SparseRowVector row;
    row.resize(4);
    row.add(1, 1.0);
    const char* add = "src/SparseRowVector:68: Assertion 'j >= 0 && j < w.size\\(\\)' failed";
    EXPECT_DEATH(row.add(4, 1.0), add);
    EXPECT_DEATH(row.add(-1, 1.0), add);
    // In range but never touched.
    EXPECT_DEATH(
        (void)row.valueAt(2),
        "src/SparseRowVector:53: Assertion 'i >= 0 && i < w.size\\(\\) && m\\[i\\]' failed");
    EXPECT_DEATH((void)row.valueAt(4), "src/SparseRowVector:53");
    EXPECT_DEATH((void)row.columnAt(4),
                 "src/SparseRowVector:49: Assertion 'np >= 0 && np < c.size\\(\\)' failed");
    EXPECT_DEATH((void)row.columnAt(-1), "src/SparseRowVector:49");
}

}  // namespace
}  // namespace hemiray
