// Symmetric balancing of view-factor rows. The repaired energy matrix d_i S_ij d_j
// is the minimiser of the convex function 1/2 sum_ij S_ij e^(u_i + u_j) - sum_i A_i u_i
// (d = e^u), whose gradient vanishes exactly when every row sums to 1; open domains
// add the bound u_i <= 0. Coordinate descent solves each row's equation exactly in
// turn (a quadratic in d_i when the glob sees itself), which converges for any
// non-negative S and keeps every iterate positive.
#include "repair/ViewFactorRepair.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace hemiray::repair {

namespace {

// Each row's entries sorted by column, as positions local to the row, so that the
// reverse entry of (i, j) is a binary search in row j.
class SortedRows {
public:
    explicit SortedRows(const CsrMatrix& F) : F_(F), order_(F.columns.size()) {
        for (int32_t row = 0; row < F.rowCount(); ++row) {
            const int64_t begin = F.rowStart[row], end = F.rowStart[row + 1];
            auto first = order_.begin() + begin, last = order_.begin() + end;
            std::iota(first, last, uint32_t{0});
            const int32_t* columns = F.columns.data() + begin;
            std::sort(first, last,
                      [columns](uint32_t a, uint32_t b) { return columns[a] < columns[b]; });
        }
    }

    // Position of entry (row, column) in F, or -1 when the row does not hold it.
    int64_t find(int32_t row, int32_t column) const {
        const int64_t begin = F_.rowStart[row];
        const int32_t* columns = F_.columns.data() + begin;
        const auto first = order_.begin() + begin, last = order_.begin() + F_.rowStart[row + 1];
        const auto it = std::lower_bound(
            first, last, column, [columns](uint32_t a, int32_t c) { return columns[a] < c; });
        return it != last && columns[*it] == column ? begin + *it : -1;
    }

    // True when a row names a column twice.
    bool hasRepeatedColumn(int32_t row) const {
        const int64_t begin = F_.rowStart[row];
        const int32_t* columns = F_.columns.data() + begin;
        const auto first = order_.begin() + begin, last = order_.begin() + F_.rowStart[row + 1];
        return std::adjacent_find(first, last, [columns](uint32_t a, uint32_t b) {
                   return columns[a] == columns[b];
               }) != last;
    }

private:
    const CsrMatrix& F_;
    std::vector<uint32_t> order_;
};

std::vector<uint8_t> globsTakingPart(const std::vector<double>& area,
                                     const std::vector<uint8_t>& active) {
    std::vector<uint8_t> part(area.size());
    for (size_t g = 0; g < area.size(); ++g)
        part[g] = active[g] && area[g] > 0 && std::isfinite(area[g]);
    return part;
}

Residuals measure(const CsrMatrix& F, const SortedRows& sorted, const std::vector<double>& area,
                  const std::vector<uint8_t>& part, Enclosure enclosure) {
    const int32_t n = F.rowCount();
    std::vector<uint8_t> seen(static_cast<size_t>(n), 0);
    for (int32_t i = 0; i < n; ++i)
        if (part[i])
            for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k) seen[F.columns[k]] = 1;

    Residuals r;
    double closureSum = 0, areaSum = 0, exchanged = 0, unbalanced = 0;
    for (int32_t i = 0; i < n; ++i) {
        if (!part[i] || (F.rowStart[i] == F.rowStart[i + 1] && !seen[i])) continue;
        double rowSum = 0;
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k) {
            const double value = F.values[k];
            rowSum += value;
            const int32_t j = F.columns[k];
            if (!part[j] || j == i || value <= 0) continue;
            const int64_t back = sorted.find(j, i);
            const double forward = area[i] * value;
            const double backward = back < 0 ? 0.0 : area[j] * F.values[back];
            const double difference = std::abs(forward - backward);
            exchanged += forward;
            unbalanced += difference;
            r.worstReciprocity =
                std::max(r.worstReciprocity, difference / std::max(forward, backward));
        }
        const double closure =
            enclosure == Enclosure::closed ? std::abs(rowSum - 1) : std::max(0.0, rowSum - 1);
        r.worstClosure = std::max(r.worstClosure, closure);
        closureSum += area[i] * closure;
        areaSum += area[i];
    }
    if (areaSum > 0) r.weightedClosure = closureSum / areaSum;
    if (exchanged > 0) r.weightedReciprocity = unbalanced / exchanged;
    return r;
}

// Symmetrises A_i F_ij into `S` (same entries and order as F, reverse entries of
// one-sided pairs appended to their rows). Rows of globs that do not take part are
// copied as factors.
int64_t symmetrise(const CsrMatrix& F, const SortedRows& sorted, const std::vector<double>& area,
                   const std::vector<uint8_t>& part, const std::vector<double>& weight,
                   CsrMatrix& S) {
    // The share of glob i's own estimate in S_ij.
    auto share = [&](int32_t i, int32_t j) {
        return weight.empty() ? 0.5 : weight[i] / (weight[i] + weight[j]);
    };
    const int32_t n = F.rowCount();
    auto oneSided = [&](int32_t i, int64_t k) {
        const int32_t j = F.columns[k];
        return part[i] && part[j] && j != i && F.values[k] > 0 && sorted.find(j, i) < 0;
    };
    std::vector<int64_t> fill(static_cast<size_t>(n) + 1, 0);
    for (int32_t i = 0; i < n; ++i)
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k)
            if (oneSided(i, k)) ++fill[F.columns[k] + 1];
    const int64_t added = std::accumulate(fill.begin(), fill.end(), int64_t{0});

    S.rowStart.assign(static_cast<size_t>(n) + 1, 0);
    for (int32_t i = 0; i < n; ++i)
        S.rowStart[i + 1] = S.rowStart[i] + (F.rowStart[i + 1] - F.rowStart[i]) + fill[i + 1];
    S.columns.resize(static_cast<size_t>(S.rowStart[n]));
    S.values.resize(S.columns.size());
    for (int32_t i = 0; i < n; ++i) {
        int64_t out = S.rowStart[i];
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k, ++out) {
            const int32_t j = F.columns[k];
            S.columns[out] = j;
            if (!part[i]) {
                S.values[out] = F.values[k];
                continue;
            }
            double energy = area[i] * F.values[k];
            if (part[j] && j != i) {
                const int64_t back = sorted.find(j, i);
                const double own = share(i, j);
                energy = own * energy + (1 - own) * (back < 0 ? 0.0 : area[j] * F.values[back]);
            }
            S.values[out] = energy;
        }
        fill[i] = out;  // where row i's appended entries go
    }
    for (int32_t i = 0; i < n; ++i)
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k)
            if (oneSided(i, k)) {
                const int64_t out = fill[F.columns[k]]++;
                S.columns[out] = i;
                S.values[out] = share(i, F.columns[k]) * area[i] * F.values[k];
            }
    return added;
}

// Coordinate descent on the row equations d_i (S_ii d_i + sum_j S_ij d_j) = A_i,
// d_j = 1 for globs that do not take part. Returns the sweeps used, or -1 when the
// tolerance was not reached.
int32_t balance(const CsrMatrix& S, const std::vector<double>& area,
                const std::vector<uint8_t>& rows, const std::vector<uint8_t>& part,
                const RepairOptions& options, std::vector<double>& d) {
    const int32_t n = S.rowCount();
    const bool capOnly = options.enclosure == Enclosure::open;
    for (int32_t sweep = 1; sweep <= options.maxSweeps; ++sweep) {
        double worst = 0;
        for (int32_t i = 0; i < n; ++i) {
            if (!rows[i]) continue;
            double self = 0, others = 0;
            for (int64_t k = S.rowStart[i]; k < S.rowStart[i + 1]; ++k) {
                const int32_t j = S.columns[k];
                if (j == i)
                    self += S.values[k];
                else
                    others += S.values[k] * (part[j] ? d[j] : 1.0);
            }
            const double target = area[i];
            const double excess = d[i] * (self * d[i] + others) / target - 1;
            // An open row below 1 at d_i = 1 is where it should be.
            worst =
                std::max(worst, capOnly && d[i] >= 1 ? std::max(excess, 0.0) : std::abs(excess));
            // The positive root of self d^2 + others d - target, in the form that
            // does not cancel when self is small.
            double next = 2 * target / (others + std::sqrt(others * others + 4 * self * target));
            if (capOnly) next = std::min(next, 1.0);
            d[i] = next;
        }
        if (worst <= options.tolerance) return sweep;
    }
    return -1;
}

}  // namespace

std::vector<double> estimateWeights(const std::vector<double>& area,
                                    const std::vector<int32_t>& faces, double factorPower,
                                    double facesPower) {
    std::vector<double> weight(area.size(), 1.0);
    for (size_t g = 0; g < area.size(); ++g)
        if (area[g] > 0 && faces[g] > 0)
            weight[g] =
                std::pow(area[g], 2 * factorPower - 2) * std::pow(double(faces[g]), 2 * facesPower);
    return weight;
}

bool validateMatrix(const CsrMatrix& F, const std::vector<double>& area,
                    const std::vector<uint8_t>& active, std::string& error) {
    const size_t n = area.size();
    if (active.size() != n || F.rowStart.size() != n + 1) {
        error = "the matrix, the areas and the active flags disagree on the glob count";
        return false;
    }
    if (n > size_t(INT32_MAX) - 1 || F.rowStart.front() != 0 ||
        F.rowStart.back() != static_cast<int64_t>(F.columns.size()) ||
        F.values.size() != F.columns.size() ||
        !std::is_sorted(F.rowStart.begin(), F.rowStart.end())) {
        error = "row offsets do not run from 0 to the number of entries";
        return false;
    }
    for (size_t g = 0; g < n; ++g)
        if (!active[g] && F.rowStart[g + 1] > F.rowStart[g]) {
            error = "glob " + std::to_string(g) + " is not active but has a row";
            return false;
        }
    for (const int32_t column : F.columns)
        if (column < 0 || static_cast<size_t>(column) >= n) {
            error = "a row names glob " + std::to_string(column) + " outside the glob count";
            return false;
        }
    for (const double value : F.values)
        if (!(value >= 0) || !std::isfinite(value)) {
            error = "a view factor is negative or not a number";
            return false;
        }
    const SortedRows sorted(F);
    for (int32_t row = 0; row < F.rowCount(); ++row)
        if (sorted.hasRepeatedColumn(row)) {
            error = "row of glob " + std::to_string(row) + " names a glob twice";
            return false;
        }
    return true;
}

std::vector<int64_t> reverseEntries(const CsrMatrix& F) {
    const SortedRows sorted(F);
    std::vector<int64_t> reverse(F.columns.size());
    for (int32_t i = 0; i < F.rowCount(); ++i)
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k)
            reverse[k] = sorted.find(F.columns[k], i);
    return reverse;
}

Residuals measureResiduals(const CsrMatrix& F, const std::vector<double>& area,
                           const std::vector<uint8_t>& active, Enclosure enclosure) {
    return measure(F, SortedRows(F), area, globsTakingPart(area, active), enclosure);
}

bool repairViewFactors(const CsrMatrix& F, const std::vector<double>& area,
                       const std::vector<uint8_t>& active, const RepairOptions& options,
                       CsrMatrix& repaired, RepairReport& report, std::string& error) {
    if (!validateMatrix(F, area, active, error)) return false;
    if (!options.estimateWeight.empty() && options.estimateWeight.size() != area.size()) {
        error = "one estimate weight per glob is needed";
        return false;
    }
    for (const double w : options.estimateWeight)
        if (!(w > 0) || !std::isfinite(w)) {
            error = "estimate weights must be positive";
            return false;
        }
    report = RepairReport{};
    const int32_t n = F.rowCount();
    const std::vector<uint8_t> part = globsTakingPart(area, active);
    {
        const SortedRows sorted(F);
        report.before = measure(F, sorted, area, part, options.enclosure);
        report.addedEntries = symmetrise(F, sorted, area, part, options.estimateWeight, repaired);
    }

    // Rows that are balanced: taking part, with some energy either way.
    std::vector<uint8_t> rows(static_cast<size_t>(n), 0);
    for (int32_t i = 0; i < n; ++i) {
        if (active[i] && !part[i]) ++report.keptRows;
        if (!part[i]) continue;
        for (int64_t k = repaired.rowStart[i]; k < repaired.rowStart[i + 1]; ++k)
            if (repaired.values[k] > 0) rows[i] = 1;
        if (!rows[i]) ++report.emptyRows;
    }
    std::vector<double> d(static_cast<size_t>(n), 1.0);
    report.sweeps = balance(repaired, area, rows, part, options, d);
    report.converged = report.sweeps > 0;
    if (!report.converged) report.sweeps = options.maxSweeps;

    for (int32_t i = 0; i < n; ++i) {
        if (!part[i]) continue;
        const int64_t originalEnd = F.rowStart[i + 1] - F.rowStart[i] + repaired.rowStart[i];
        for (int64_t k = repaired.rowStart[i]; k < repaired.rowStart[i + 1]; ++k) {
            const int32_t j = repaired.columns[k];
            const double factor = d[i] * repaired.values[k] * (part[j] ? d[j] : 1.0) / area[i];
            // The row's first entries are F's own, in F's order; the rest were 0.
            const double original =
                k < originalEnd ? F.values[F.rowStart[i] + (k - repaired.rowStart[i])] : 0.0;
            repaired.values[k] = factor;
            report.energyBefore += area[i] * original;
            report.energyAfter += area[i] * factor;
            if (std::abs(factor - original) > report.largestChange) {
                report.largestChange = std::abs(factor - original);
                report.largestChangeRow = i;
                report.largestChangeColumn = j;
            }
        }
    }
    report.after = measure(repaired, SortedRows(repaired), area, part, options.enclosure);
    return true;
}

}  // namespace hemiray::repair
