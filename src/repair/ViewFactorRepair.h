// Repair of sampled view-factor rows for radiosity solvers: exact reciprocity
// A_i F_ij = A_j F_ji, and rows that sum to 1 in a closed enclosure or to at most 1
// in an open domain. Pure functions over a sparse matrix in compressed-row form, the
// glob areas and the active flags; nothing here reads or writes files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hemiray::repair {

// A square glob-by-glob matrix of view factors in compressed-row form: row g holds
// glob g's factors, columns[rowStart[g] .. rowStart[g+1]) with their values. Globs
// that are not active have empty rows. Columns within a row are in any order.
struct CsrMatrix {
    std::vector<int64_t> rowStart{0};
    std::vector<int32_t> columns;
    std::vector<double> values;

    int32_t rowCount() const { return static_cast<int32_t>(rowStart.size()) - 1; }
};

enum class Enclosure {
    closed,  // every ray lands on a wall: rows are balanced to sum exactly 1
    open,    // rays may leave: rows above 1 are capped at 1, rows below 1 stay below
};

// Closure and reciprocity of a matrix, over the globs that take part (active, with
// a positive area, and with at least one entry in their row or column).
struct Residuals {
    double worstClosure = 0;         // largest |row sum - 1| (open: largest excess above 1)
    double weightedClosure = 0;      // sum A_i |row sum - 1| / sum A_i (open: excess only)
    double worstReciprocity = 0;     // largest |A_i F_ij - A_j F_ji| / max(A_i F_ij, A_j F_ji)
    double weightedReciprocity = 0;  // sum |A_i F_ij - A_j F_ji| / sum A_i F_ij
};

struct RepairReport {
    Residuals before;
    Residuals after;
    double largestChange = 0;  // largest |F'_ij - F_ij| over every entry of either matrix
    int32_t largestChangeRow = -1;
    int32_t largestChangeColumn = -1;
    double energyBefore = 0;   // sum A_i F_ij over the rows that take part
    double energyAfter = 0;    // the same after repair; open domains lose what was capped
    int64_t addedEntries = 0;  // pairs seen from one side only get their reverse entry
    int32_t emptyRows = 0;     // rows that take part but have no entry either way: left empty
    int32_t keptRows = 0;      // active rows of globs without area: copied unchanged
    int32_t sweeps = 0;
    bool converged = false;
};

// How the two estimates of a pair's exchanged energy, A_i F_ij from glob i's row
// and A_j F_ji from glob j's, are averaged into S_ij: with equal shares, or with
// shares w_i / (w_i + w_j) from a weight per glob, the inverse of the variance of
// that glob's energy estimates (up to a common factor).
struct RepairOptions {
    Enclosure enclosure = Enclosure::closed;
    std::vector<double> estimateWeight;  // empty: equal shares; else one positive weight per glob
    double tolerance = 1e-13;            // largest |row sum - target| / target at which to stop
    int32_t maxSweeps = 20000;
};

// Weights for RepairOptions::estimateWeight when a factor F of a glob of n faces
// is off by about C F^factorPower n^-facesPower: the energy A F then varies as
// A^(2 - 2 factorPower) n^(-2 facesPower) at a given exchanged energy.
std::vector<double> estimateWeights(const std::vector<double>& area,
                                    const std::vector<int32_t>& faces, double factorPower,
                                    double facesPower);

// Checks that F is a square matrix over `area.size()` globs with offsets that run
// from 0 to the entry count, columns inside the matrix and not repeated within a
// row, finite non-negative values, and empty rows for globs that are not active.
// False with a message otherwise.
[[nodiscard]] bool validateMatrix(const CsrMatrix& F, const std::vector<double>& area,
                                  const std::vector<uint8_t>& active, std::string& error);

// For every entry (i, j) of a valid matrix, the position of entry (j, i), or -1
// when row j does not hold it.
std::vector<int64_t> reverseEntries(const CsrMatrix& F);

// Residuals of a valid matrix (validateMatrix).
Residuals measureResiduals(const CsrMatrix& F, const std::vector<double>& area,
                           const std::vector<uint8_t>& active, Enclosure enclosure);

// Repairs a valid matrix into `repaired`. The energy matrix A_i F_ij is symmetrised,
// S = (AF + (AF)^T) / 2 (or each side weighted by options.estimateWeight), and
// scaled symmetrically, F'_ij = d_i S_ij d_j / A_i, with
// positive d chosen so that every row sums to 1 (closed) or, with d_i <= 1, to at
// most 1 (open). Zeros of S stay zero and entries stay positive; reciprocity is
// exact by construction.
//
// Globs that do not take part (inactive, or without area) have no reverse row to
// balance against: their columns in other rows are scaled with the row alone
// (d_j = 1), and their own rows, if any, are copied unchanged. A row that takes part
// but has no entry and is seen by nobody (no ray landed anywhere) stays empty; a row
// without entries that other globs see gets its factors from reciprocity.
//
// Entries keep their order within a row; reverse entries of pairs seen from one side
// only are appended to their rows. When no positive d balances the rows exactly (a
// sparse pattern that would need some pairs at zero) the report says not converged
// and `repaired` holds the last sweep's factors. False with a message for an invalid
// matrix or weights.
[[nodiscard]] bool repairViewFactors(const CsrMatrix& F, const std::vector<double>& area,
                                     const std::vector<uint8_t>& active,
                                     const RepairOptions& options, CsrMatrix& repaired,
                                     RepairReport& report, std::string& error);

}  // namespace hemiray::repair
