// The sampling error a result's factors are expected to carry, from the laws measured
// by the accuracy study (docs/accuracy.md), and the reciprocity residuals and row
// sums that lie beyond it. `hemiray check` and the demo print these instead of a
// bare worst pair, which is usually a small factor that few rays reach.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "ResultFile.h"

namespace hemiray::cli {

// Mean absolute error of a factor F in the row of a glob of n faces at hemisphere
// resolution R: coefficient * F^factorPower * R^-resolutionPower * n^-facesPower.
// The measured errors scatter around the law by up to `scatter` times.
struct ErrorLaw {
    double coefficient = 0;
    double factorPower = 0;
    double resolutionPower = 0;
    double facesPower = 0;
    double scatter = 0;
};

ErrorLaw errorLaw(int32_t dimension);
double expectedFactorError(int32_t dimension, double factor, int32_t resolution, int32_t faces);

// The number of participating faces of every glob.
std::vector<int32_t> globFaceCounts(const ResultFile& result);

// Weights for repair::RepairOptions::estimateWeight: the inverse variances of the
// globs' energy estimates under the mode's error law.
std::vector<double> lawWeights(const ResultFile& result, const std::vector<double>& area);

// A pair is beyond the band when |A_i F_ij - A_j F_ji| exceeds the law's scatter
// times A_i e_ij + A_j e_ji (the expected errors of the two factors, both taken at
// the pair's mean energy) plus what the file's rounding of the factors explains.

struct RowBand {
    int32_t glob = 0;
    int32_t faces = 0;
    double expectedError = 0;  // of a factor of this row's mean size
    double worstRatio = 0;     // largest residual / band over the row's pairs
    int32_t worstPartner = -1;
    int32_t pairsBeyond = 0;
    bool sumAboveOne = false;  // beyond rounding: a fault, never sampling noise
};

struct BandSummary {
    std::vector<RowBand> rows;  // one per active glob, in the result's row order
    double smallestExpectedError = 0;
    double largestExpectedError = 0;
    // sum of the pairs' A_i e_ij + A_j e_ji over sum A_i F_ij: the share of the
    // exchanged energy that sampling alone leaves unbalanced, to set beside the
    // measured share of the check.
    double expectedWeightedReciprocity = 0;
    int64_t pairs = 0;
    int64_t pairsBeyond = 0;
    int32_t rowsBeyond = 0;
    int32_t rowsAboveOne = 0;
};

// Needs a result read by readResultFile; false with a message when its rows are not
// a valid matrix of the model (a glob with two rows, for instance).
[[nodiscard]] bool checkBands(ResultFile& result, BandSummary& summary, std::string& error);

// The summary as lines of `hemiray check`; with perGlob, one line per row too.
void printBands(std::ostream& out, const BandSummary& s, const ResultFile& r, bool perGlob);

// The summary as a JSON object.
void printBandsJson(std::ostream& out, const BandSummary& s);

}  // namespace hemiray::cli
