// Repair of view-factor rows: closed enclosures computed by the library come out
// exactly closed and reciprocal and closer to their exact factors; open domains are
// capped, never raised; rows without rays and globs without rows are handled.
#include <gtest/gtest.h>

#include "ErrorBands.h"
#include "Repair.h"
#include "accuracy/ExactFactors.h"
#include "support/RunHelpers.h"

namespace hemiray::repair {
namespace {

using hemiray::testing::ScratchDir;

double meanError(const CsrMatrix& F, const std::vector<std::vector<double>>& exact) {
    double sum = 0;
    size_t count = 0;
    for (int32_t i = 0; i < F.rowCount(); ++i) {
        std::vector<double> row(exact.size(), 0.0);
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k) row[F.columns[k]] = F.values[k];
        for (size_t j = 0; j < row.size(); ++j, ++count) sum += std::abs(row[j] - exact[i][j]);
    }
    return sum / double(count);
}

// Exact factors of a box (cube, empty room) whose globs are single axis-aligned
// quads, from the quads' corners.
std::vector<std::vector<double>> cubeFactors(const cli::ResultFile& r) {
    const FaceSet& faces = r.participatingFaces;
    std::vector<accuracy::Rectangle> rects(static_cast<size_t>(r.sizes.globCount));
    for (int32_t f = 0; f < faces.faceCount(); ++f) {
        accuracy::Rectangle& rect = rects[faces.faceGlob[f]];
        for (int a = 0; a < 3; ++a) {
            rect.lo[a] = 1e300;
            rect.hi[a] = -1e300;
        }
        for (int32_t k = faces.faceNodeStart[f]; k < faces.faceNodeStart[f + 1]; ++k)
            for (int a = 0; a < 3; ++a) {
                rect.lo[a] = std::min(rect.lo[a], r.nodes[faces.faceNodes[k]][a]);
                rect.hi[a] = std::max(rect.hi[a], r.nodes[faces.faceNodes[k]][a]);
            }
        for (int a = 0; a < 3; ++a)
            if (rect.lo[a] == rect.hi[a]) rect.axis = a, rect.level = rect.lo[a];
    }
    std::vector<std::vector<double>> exact;
    for (const auto& a : rects) {
        exact.emplace_back();
        for (const auto& b : rects) exact.back().push_back(accuracy::rectangleFactor(a, b));
    }
    return exact;
}

// A sphere's exact factors: F_ij = A_j / A, whatever the position of i.
std::vector<std::vector<double>> sphereFactors(const std::vector<double>& area) {
    double total = 0;
    for (const double a : area) total += a;
    std::vector<double> row;
    for (const double a : area) row.push_back(a / total);
    return std::vector<std::vector<double>>(area.size(), row);
}

struct ClosedCase {
    const char* model;
    int n;
    int resolution;
};

class ClosedEnclosure : public ::testing::TestWithParam<ClosedCase> {};

// Runs an example model through the library into an HDF5 result (full-precision
// rows) and reads it back.
void computeResult(const char* model, int n, int resolution, cli::ResultFile& result) {
    const ScratchDir dir;
    const std::string path = dir.file("model.h5");
    hemiray::testing::writeFile(path, hemiray::testing::exampleText(model, n, resolution));
    ASSERT_EQ(hemiray::testing::runLibrary(path).result, 1);
    std::string error;
    ASSERT_TRUE(cli::readResultFile(path, result, error)) << error;
}

TEST_P(ClosedEnclosure, BecomesExactlyClosedAndReciprocalAndCloserToTheExactFactors) {
    const ClosedCase c = GetParam();
    cli::ResultFile result;
    computeResult(c.model, c.n, c.resolution, result);
    std::string error;
    CsrMatrix F, repaired;
    std::vector<double> area;
    std::vector<uint8_t> active;
    ASSERT_TRUE(cli::resultMatrix(result, F, area, active, error)) << error;
    RepairReport report;
    ASSERT_TRUE(repairViewFactors(F, area, active, {}, repaired, report, error)) << error;

    EXPECT_TRUE(report.converged);
    EXPECT_GT(report.before.weightedReciprocity, 1e-3);  // there was something to repair
    const Residuals after = measureResiduals(repaired, area, active, Enclosure::closed);
    EXPECT_LT(after.worstClosure, 1e-12);
    EXPECT_LT(after.worstReciprocity, 1e-12);
    const auto exact = std::string(c.model) == "sphere" ? sphereFactors(area) : cubeFactors(result);
    EXPECT_LT(meanError(repaired, exact), meanError(F, exact));
}

INSTANTIATE_TEST_SUITE_P(Models, ClosedEnclosure,
                         ::testing::Values(ClosedCase{"cube", 3, 6}, ClosedCase{"cube", 2, 12},
                                           ClosedCase{"sphere", 2, 6},
                                           ClosedCase{"room-empty", 3, 8}));

// A doubled factor is a fault, not sampling: the band flags that pair and its row
// sum, and little else.
TEST(ErrorBands, FlagTheFaultAndLittleElse) {
    cli::ResultFile result;
    computeResult("room", 2, 12, result);
    cli::SparseRow& row = result.rows[5];
    const size_t largest =
        std::max_element(row.values.begin(), row.values.end()) - row.values.begin();
    row.values[largest] *= 2;
    cli::BandSummary bands;
    std::string error;
    ASSERT_TRUE(cli::checkBands(result, bands, error)) << error;
    EXPECT_GE(bands.rows[5].pairsBeyond, 1);
    EXPECT_EQ(bands.rows[5].worstPartner, row.columns[largest]);
    EXPECT_TRUE(bands.rows[5].sumAboveOne);
    EXPECT_EQ(bands.rowsAboveOne, 1);
    EXPECT_LT(bands.pairsBeyond, bands.pairs / 20);
}

CsrMatrix matrix(const std::vector<std::vector<std::pair<int32_t, double>>>& rows) {
    CsrMatrix F;
    for (const auto& row : rows) {
        for (const auto& [column, value] : row) {
            F.columns.push_back(column);
            F.values.push_back(value);
        }
        F.rowStart.push_back(static_cast<int64_t>(F.columns.size()));
    }
    return F;
}

double entry(const CsrMatrix& F, int32_t i, int32_t j) {
    for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k)
        if (F.columns[k] == j) return F.values[k];
    return -1;  // no entry
}

double rowSum(const CsrMatrix& F, int32_t i) {
    double sum = 0;
    for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k) sum += F.values[k];
    return sum;
}

// Hand-made rows, with areas (1, 2, 1, 1): glob 0 sums to 1.2, the pair 1 -> 2 is
// seen from one side only, glob 3 is active without rays and seen by nobody.
const CsrMatrix handMade = matrix({{{1, 0.7}, {2, 0.5}}, {{0, 0.3}, {2, 0.1}}, {{0, 0.4}}, {}});
const std::vector<double> handAreas = {1, 2, 1, 1};

TEST(OpenDomain, CapsRowsAtOneAndKeepsEveryOtherPromise) {
    const std::vector<uint8_t> active(4, 1);
    CsrMatrix repaired;
    RepairReport report;
    std::string error;
    RepairOptions options;
    options.enclosure = Enclosure::open;
    ASSERT_TRUE(repairViewFactors(handMade, handAreas, active, options, repaired, report, error));
    for (const double value : repaired.values) EXPECT_GE(value, 0);
    for (int32_t i = 0; i < 3; ++i) EXPECT_LE(rowSum(repaired, i), 1 + 1e-14) << "row " << i;
    for (const auto& [i, j] : {std::pair{0, 1}, {0, 2}, {1, 2}})
        EXPECT_NEAR(handAreas[i] * entry(repaired, i, j), handAreas[j] * entry(repaired, j, i),
                    1e-15);
    // Zeros stay zeros: no pair that is missing both ways appears.
    EXPECT_EQ(entry(repaired, 0, 0), -1);
    EXPECT_EQ(entry(repaired, 1, 1), -1);
    EXPECT_EQ(repaired.rowStart[4] - repaired.rowStart[3], 0);
    EXPECT_EQ(report.addedEntries, 1);
    // Symmetrised energies: S01 = (0.7 + 0.6)/2, S02 = (0.5 + 0.4)/2, S12 = 0.2/2. Only
    // row 0 exceeds 1 (1.1); d0 = 1/1.1 brings it to 1 and the sum of all A_i F_ij
    // from 2.4 to 2 (1 + 0.1) = 2.2.
    EXPECT_NEAR(entry(repaired, 0, 1) + entry(repaired, 0, 2), 1, 1e-14);
    EXPECT_NEAR(report.energyBefore - report.energyAfter, 0.2, 1e-12);
    EXPECT_EQ(report.emptyRows, 1);
}

TEST(ClosedRepair, RowsWithoutRaysAndGlobsWithoutRows) {
    struct Case {
        CsrMatrix F;
        std::vector<double> area;
        std::vector<uint8_t> active;
        int32_t closedRows;  // rows 0 .. closedRows-1 must sum to 1 afterwards
        int32_t emptyRows;
    };
    const Case cases[] = {
        // Glob 3 has no rays and nobody sees it: it stays empty. (With areas 1, 2, 1
        // the three rows could only close with the pair 0-2 at zero.)
        {handMade, {1, 1, 1, 1}, {1, 1, 1, 1}, 3, 1},
        // Glob 2 is not active: the factors towards it scale with their rows alone.
        {matrix({{{1, 0.5}, {2, 0.5}}, {{0, 0.8}, {2, 0.2}}, {}}), {1, 1, 1}, {1, 1, 0}, 2, 0},
        // Glob 1 has no rays but glob 0 sees it: its row comes from reciprocity.
        {matrix({{{1, 1.0}}, {}}), {1, 1}, {1, 1}, 2, 0},
    };
    for (const Case& c : cases) {
        CsrMatrix repaired;
        RepairReport report;
        std::string error;
        ASSERT_TRUE(repairViewFactors(c.F, c.area, c.active, {}, repaired, report, error)) << error;
        EXPECT_TRUE(report.converged);
        EXPECT_EQ(report.emptyRows, c.emptyRows);
        for (int32_t i = 0; i < c.closedRows; ++i)
            EXPECT_NEAR(rowSum(repaired, i), 1, 1e-13) << "row " << i;
        EXPECT_NEAR(c.area[0] * entry(repaired, 0, 1), c.area[1] * entry(repaired, 1, 0), 1e-15);
    }
}

TEST(ClosedRepair, RefusesMatricesItCannotTrust) {
    struct Case {
        CsrMatrix F;
        std::vector<uint8_t> active;
        const char* message;
    };
    const Case cases[] = {
        {matrix({{{1, 0.5}, {1, 0.5}}, {}}), {1, 1}, "names a glob twice"},
        {matrix({{{2, 0.5}}, {}}), {1, 1}, "outside the glob count"},
        {matrix({{{1, -0.5}}, {}}), {1, 1}, "negative"},
        {matrix({{}, {{0, 0.5}}}), {1, 0}, "not active but has a row"},
    };
    for (const Case& c : cases) {
        CsrMatrix repaired;
        RepairReport report;
        std::string error;
        EXPECT_FALSE(repairViewFactors(c.F, {1, 1}, c.active, {}, repaired, report, error));
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
    }
}

}  // namespace
}  // namespace hemiray::repair
