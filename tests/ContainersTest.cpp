// SparseRowVector bookkeeping, and the fixed texts of the always-on index checks of
// both containers. (SmallVector's arithmetic is what every geometry test computes
// with: a sign or a component wrong there fails the face geometry, glob point and
// traversal tests.)
#include <gtest/gtest.h>

#include "SmallVector"
#include "SparseRowVector"

namespace hemiray {
namespace {

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
