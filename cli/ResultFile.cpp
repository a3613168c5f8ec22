// View-factor file reader and the closure and reciprocity statistics of its rows.
#include "ResultFile.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <stdexcept>
#include <unordered_map>

#include "geometry/FaceGeometry.h"
#include "input/MeshSections.h"
#include "input/SectionReader.h"

namespace hemiray::cli {

namespace {

// Thrown by the row reader; the section reader passes it through.
class ResultError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Entries are read in slices and the row grows as they arrive, so a row that
// announces a billion entries costs no more than the bytes the file really holds.
constexpr int64_t sliceEntries = 1 << 16;

void readRow(std::istream& in, bool binary, int64_t np, SparseRow& row) {
    if (binary) {
        char space = 0, newline = 0;
        in.get(space).get(newline);
        for (int64_t done = 0; done < np && in; done += sliceEntries) {
            const auto n = static_cast<size_t>(std::min(sliceEntries, np - done));
            row.columns.resize(row.columns.size() + n);
            in.read(reinterpret_cast<char*>(row.columns.data() + row.columns.size() - n),
                    static_cast<std::streamsize>(n * 4));
        }
        std::vector<float> values;
        for (int64_t done = 0; done < np && in; done += sliceEntries) {
            const auto n = static_cast<size_t>(std::min(sliceEntries, np - done));
            values.resize(values.size() + n);
            in.read(reinterpret_cast<char*>(values.data() + values.size() - n),
                    static_cast<std::streamsize>(n * 4));
        }
        in.get(newline);
        row.values.assign(values.begin(), values.end());
    } else {
        int32_t column = 0;
        for (int64_t k = 0; k < np && in >> column; ++k) row.columns.push_back(column);
        double value = 0;
        for (int64_t k = 0; k < np && in >> value; ++k) row.values.push_back(value);
    }
}

// The view-factor section after its id: the list of active globs, then one row
// each. Leaves the section's own ")" to the section reader.
void readRows(std::istream& in, bool binary, ResultFile& result) {
    char c = 0;
    int64_t count = -1;
    if (!(in >> c) || c != '(' || !(in >> count) || count < 0)
        throw ResultError("malformed row section header");
    // The list of active globs is written before the rows, so its length is only
    // trusted as far as the file actually holds entries.
    for (int64_t k = 0; k < count; ++k) {
        int32_t glob = 0;
        if (!(in >> glob)) throw ResultError("row section header lists fewer globs than announced");
        result.activeGlobs.push_back(glob);
    }
    if (!(in >> c) || c != ')' || !(in >> c) || c != '(')
        throw ResultError("malformed row section header");
    const int64_t width = std::max<int64_t>(result.sizes.globCount, 0);
    for (size_t r = 0; r < result.activeGlobs.size(); ++r) {
        int64_t np = -1;
        if (!(in >> np) || np < 0 || np > width)
            throw ResultError("row " + std::to_string(r) + " is malformed");
        SparseRow row;
        readRow(in, binary, np, row);
        if (!in) throw ResultError("row " + std::to_string(r) + " is truncated");
        for (int32_t column : row.columns)
            if (column < 0 || column >= width)
                throw ResultError("row " + std::to_string(r) + " names glob " +
                                  std::to_string(column) + " outside the glob count");
        result.rows.push_back(std::move(row));
    }
    if (!(in >> c) || c != ')') throw ResultError("the row section is not closed");
}

// The head of a result: its first line is (0 "text") or, with the host's flag,
// (-1 "text"), where the text may hold blanks; the size section follows. The
// library's own input reader takes only one-word comments, so this one is laxer.
bool readResultHead(std::istream& in, SizeSection& sizes) {
    char c = 0;
    int32_t first = 0;
    if (!(in >> c) || c != '(' || !(in >> first)) return false;
    if (first == 0 || first == -1) {
        if (!skipExpression(in) || !(in >> c) || c != '(' || !(in >> first)) return false;
    }
    return readSizeValues(in, first, sizes);
}

bool readText(std::istream& in, bool modelHead, ResultFile& result, std::string& error) {
    if (!(modelHead ? readSizeSection(in, result.sizes) : readResultHead(in, result.sizes))) {
        error = "malformed size section";
        return false;
    }
    if (!readParameterSection(in, result.parameters)) {
        error = "malformed parameter section";
        return false;
    }
    const int32_t dimension = result.sizes.dimension;
    if (dimension < 1 || dimension > 3) {
        error = "dimension " + std::to_string(dimension) + " is not 1, 2 or 3";
        return false;
    }
    result.allFaces.dimension = dimension;
    result.participatingFaces.dimension = dimension;
    bool rowsSeen = false;
    const auto rowsAndComments = [&](int32_t id, std::istream& input) {
        if (id == 0) return true;  // a comment section
        if (id != 308 && id != 1308) return false;
        // A model may repeat a text result (the library skips its rows), but no
        // model reader takes binary rows.
        if (modelHead && id == 1308)
            throw ResultError(
                "holds binary view-factor rows: it is a result, not a model "
                "(hemiray check reads results)");
        if (rowsSeen) throw ResultError("more than one row section");
        result.binaryRows = id == 1308;
        readRows(input, result.binaryRows, result);
        rowsSeen = true;
        return true;
    };
    readMeshSections(in, nodeCoordinateCount(dimension), result.nodes, result.allFaces,
                     result.participatingFaces, result.zones, rowsAndComments);
    result.hasRows = rowsSeen;
    return true;
}

}  // namespace

bool readTextFile(const std::string& path, bool modelHead, ResultFile& result, std::string& error) {
    auto input = openInputSource(path);
    if (input->fail()) {
        error = "cannot open " + path;
        return false;
    }
    return readTextStream(*input, modelHead, result, error);
}

bool readTextStream(std::istream& input, bool modelHead, ResultFile& result, std::string& error) {
    // Malformed sections end in a message here, not in the end of the process.
    const ScopedInputErrorsThrow throwing;
    try {
        return readText(input, modelHead, result, error);
    } catch (const ResultError& e) {
        error = e.what();
    } catch (const InputError& e) {
        error = std::string("file i/o error: ") + e.what();
    }
    return false;
}

bool readResultFile(const std::string& path, ResultFile& result, std::string& error) {
    if (isHdf5File(path)) {
        if (!readHdf5ResultFile(path, result, error)) return false;
    } else {
        if (!readTextFile(path, false, result, error)) return false;
        if (!result.hasRows) {
            error = "no view-factor rows (not a result file, or an unfinished one)";
            return false;
        }
    }
    return checkModelBounds(result, error);
}

CheckSummary checkResult(ResultFile& result) {
    const int32_t globCount = std::max(result.sizes.globCount, 0);
    computeFaceGeometry(result.participatingFaces);
    const std::vector<double> area = globSurfaceAreas(result.participatingFaces, globCount);

    std::unordered_map<int32_t, size_t> rowOf;
    for (size_t r = 0; r < result.activeGlobs.size(); ++r) rowOf[result.activeGlobs[r]] = r;
    // Rows sorted by column, so that each reverse factor is a binary search.
    std::vector<std::vector<std::pair<int32_t, double>>> sorted(result.rows.size());
    for (size_t r = 0; r < result.rows.size(); ++r) {
        const auto& row = result.rows[r];
        for (size_t k = 0; k < row.columns.size(); ++k)
            sorted[r].emplace_back(row.columns[k], row.values[k]);
        std::sort(sorted[r].begin(), sorted[r].end());
    }
    auto factor = [&](size_t r, int32_t column) {
        const auto& row = sorted[r];
        const auto it = std::lower_bound(row.begin(), row.end(), std::make_pair(column, -1e308));
        return it != row.end() && it->first == column ? it->second : 0.0;
    };

    CheckSummary summary;
    double sum = 0, exchanged = 0, unbalanced = 0;
    for (size_t r = 0; r < result.rows.size(); ++r) {
        GlobCheck check;
        check.glob = result.activeGlobs[r];
        check.area = check.glob >= 0 && check.glob < globCount ? area[check.glob] : 0;
        const auto& row = result.rows[r];
        for (size_t k = 0; k < row.columns.size(); ++k) {
            check.rowSum += row.values[k];
            const int32_t j = row.columns[k];
            const auto other = rowOf.find(j);
            if (other == rowOf.end() || row.values[k] <= 0) continue;
            const double forward = check.area * row.values[k];
            const double backward = area[j] * factor(other->second, check.glob);
            const double error = std::abs(forward - backward) / forward;
            exchanged += forward;
            unbalanced += std::abs(forward - backward);
            if (error > check.worstReciprocity) {
                check.worstReciprocity = error;
                check.worstPartner = j;
            }
        }
        summary.globs.push_back(check);
        sum += check.rowSum;
    }
    if (!summary.globs.empty()) {
        auto bySum = [](const GlobCheck& a, const GlobCheck& b) { return a.rowSum < b.rowSum; };
        summary.minRowSum =
            std::min_element(summary.globs.begin(), summary.globs.end(), bySum)->rowSum;
        summary.maxRowSum =
            std::max_element(summary.globs.begin(), summary.globs.end(), bySum)->rowSum;
        summary.meanRowSum = sum / static_cast<double>(summary.globs.size());
        for (const auto& g : summary.globs)
            summary.worstReciprocity = std::max(summary.worstReciprocity, g.worstReciprocity);
    }
    if (exchanged > 0) summary.weightedReciprocity = unbalanced / exchanged;
    return summary;
}

}  // namespace hemiray::cli
