// Sampling-error bands of a result's rows.
#include "ErrorBands.h"

#include <algorithm>
#include <cmath>
#include <iomanip>

#include "Repair.h"

namespace hemiray::cli {

ErrorLaw errorLaw(int32_t dimension) {
    // Least-squares fits over the decades of exact factors, resolutions 4 to 128 and
    // globs of 1 to 64 faces of docs/accuracy-data/bins.csv (printed by
    // scripts/accuracy_report.py). In 3D each face's hemicube is turned at random,
    // so the faces of a glob average their errors out (about n^-1/2) and a factor's
    // error grows as its square root; in the plane and in axisymmetric runs the
    // direction set is not turned and faces hardly average out.
    switch (dimension) {
        case 1:
            return {0.878, 0.476, 1.20, 0.148, 3};
        case 2:
            return {1.93, 0.790, 0.528, 0.964, 3};
        default:
            return {0.632, 0.521, 1.23, 0.559, 3};
    }
}

double expectedFactorError(int32_t dimension, double factor, int32_t resolution, int32_t faces) {
    const ErrorLaw law = errorLaw(dimension);
    return law.coefficient * std::pow(std::max(factor, 0.0), law.factorPower) *
           std::pow(std::max(resolution, 1), -law.resolutionPower) *
           std::pow(std::max(faces, 1), -law.facesPower);
}

namespace {

// What the stored form of a factor f can be off by.
double rounding(const ResultFile& r, double f) {
    if (r.hdf5) return 1e-15 * f;
    if (r.binaryRows) return 6e-8 * f;
    return 5e-7;  // six decimals
}

}  // namespace

std::vector<int32_t> globFaceCounts(const ResultFile& result) {
    std::vector<int32_t> faces(static_cast<size_t>(std::max(result.sizes.globCount, 0)), 0);
    for (const int32_t g : result.participatingFaces.faceGlob)
        if (g >= 0 && static_cast<size_t>(g) < faces.size()) ++faces[g];
    return faces;
}

std::vector<double> lawWeights(const ResultFile& result, const std::vector<double>& area) {
    const ErrorLaw law = errorLaw(result.sizes.dimension);
    return repair::estimateWeights(area, globFaceCounts(result), law.factorPower, law.facesPower);
}

bool checkBands(ResultFile& result, BandSummary& s, std::string& error) {
    repair::CsrMatrix F;
    std::vector<double> area;
    std::vector<uint8_t> active;
    if (!resultMatrix(result, F, area, active, error)) return false;
    const std::vector<int64_t> reverse = repair::reverseEntries(F);
    const std::vector<int32_t> faces = globFaceCounts(result);
    const int32_t dimension = result.sizes.dimension,
                  resolution = result.parameters.hemisphereResolution;
    const double scatter = errorLaw(dimension).scatter;
    auto expected = [&](int32_t g, double factor) {
        return expectedFactorError(dimension, factor, resolution, faces[g]);
    };

    s = BandSummary{};
    double exchanged = 0, band = 0;
    s.smallestExpectedError = 1e300;
    for (const int32_t i : result.activeGlobs) {
        RowBand row;
        row.glob = i;
        row.faces = faces[i];
        double sum = 0, sumRounding = 0;
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k) {
            const double f = F.values[k];
            sum += f;
            sumRounding += rounding(result, f);
            const int32_t j = F.columns[k];
            if (!active[j] || j == i || f <= 0 || area[i] <= 0) continue;
            const double back = reverse[k] < 0 ? 0.0 : F.values[reverse[k]];
            const double residual = std::abs(area[i] * f - area[j] * back);
            const double energy = 0.5 * (area[i] * f + area[j] * back);
            const double pairBand =
                area[i] * expected(i, energy / area[i]) + area[j] * expected(j, energy / area[j]);
            const double limit = scatter * pairBand + area[i] * rounding(result, f) +
                                 area[j] * rounding(result, back);
            exchanged += area[i] * f;
            band += pairBand;
            ++s.pairs;
            if (residual > limit) ++row.pairsBeyond;
            if (residual / limit > row.worstRatio) {
                row.worstRatio = residual / limit;
                row.worstPartner = j;
            }
        }
        row.sumAboveOne = sum > 1 + sumRounding + 1e-12;
        const int64_t entries = F.rowStart[i + 1] - F.rowStart[i];
        row.expectedError = entries > 0 ? expected(i, sum / double(entries)) : 0.0;
        s.smallestExpectedError = std::min(s.smallestExpectedError, row.expectedError);
        s.largestExpectedError = std::max(s.largestExpectedError, row.expectedError);
        s.pairsBeyond += row.pairsBeyond;
        s.rowsBeyond += row.pairsBeyond > 0;
        s.rowsAboveOne += row.sumAboveOne;
        s.rows.push_back(row);
    }
    if (s.rows.empty()) s.smallestExpectedError = 0;
    if (exchanged > 0) s.expectedWeightedReciprocity = band / exchanged;
    return true;
}

void printBands(std::ostream& out, const BandSummary& s, const ResultFile& r, bool perGlob) {
    const ErrorLaw law = errorLaw(r.sizes.dimension);
    out << std::scientific << std::setprecision(2);
    if (perGlob) {
        out << "  glob  faces  expected error  worst/band  (with glob)  pairs beyond\n";
        for (const RowBand& row : s.rows)
            out << std::setw(6) << row.glob << std::setw(7) << row.faces << std::setw(16)
                << row.expectedError << std::setw(12) << row.worstRatio << "  (" << row.worstPartner
                << ")" << std::setw(14) << row.pairsBeyond
                << (row.sumAboveOne ? "  row sum above 1" : "") << '\n';
    }
    out << "sampling band: a factor F is expected to be off by " << law.coefficient << " F^"
        << std::defaultfloat << std::setprecision(3) << law.factorPower << " R^-"
        << law.resolutionPower << " n^-" << law.facesPower << std::scientific
        << std::setprecision(2) << " (R = " << r.parameters.hemisphereResolution
        << ", n faces of its glob): " << s.smallestExpectedError << " .. " << s.largestExpectedError
        << " for factors of the rows' mean size\n"
        << "reciprocity expected from sampling: " << s.expectedWeightedReciprocity
        << " of the exchanged energy; pairs beyond " << std::defaultfloat << law.scatter
        << " times their band: " << s.pairsBeyond << " of " << s.pairs << " in " << s.rowsBeyond
        << " rows\n"
        << "rows summing above 1 beyond rounding (lost or doubled rays, never sampling): "
        << s.rowsAboveOne << std::endl;
}

void printBandsJson(std::ostream& out, const BandSummary& s) {
    out << std::setprecision(10) << "{\"smallestExpectedError\": " << s.smallestExpectedError
        << ", \"largestExpectedError\": " << s.largestExpectedError
        << ", \"expectedWeightedReciprocity\": " << s.expectedWeightedReciprocity
        << ", \"pairs\": " << s.pairs << ", \"pairsBeyond\": " << s.pairsBeyond
        << ", \"rowsBeyond\": " << s.rowsBeyond << ", \"rowsAboveOne\": " << s.rowsAboveOne << "}";
}

}  // namespace hemiray::cli
