// View-factor file reader and the closure and reciprocity statistics of its rows.
#include "ResultFile.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include "geometry/FaceGeometry.h"
#include "input/MeshSections.h"
#include "input/SectionReader.h"

namespace hemiray::cli {

namespace {

bool readRows(std::istream& in, bool binary, ResultFile& result, std::string& error) {
    char c = 0;
    int64_t count = -1;
    if (!(in >> c) || c != '(' || !(in >> count) || count < 0) {
        error = "malformed row section header";
        return false;
    }
    // The list of active globs is written before the rows, so its length is only
    // trusted as far as the file actually holds entries.
    for (int64_t k = 0; k < count; ++k) {
        int32_t glob = 0;
        if (!(in >> glob)) {
            error = "row section header lists fewer globs than announced";
            return false;
        }
        result.activeGlobs.push_back(glob);
    }
    if (!(in >> c) || c != ')' || !(in >> c) || c != '(') {
        error = "malformed row section header";
        return false;
    }
    const int64_t width = std::max<int64_t>(result.sizes.globCount, 0);
    for (size_t r = 0; r < result.activeGlobs.size(); ++r) {
        int64_t np = -1;
        if (!(in >> np) || np < 0 || np > width) {
            error = "row " + std::to_string(r) + " is malformed";
            return false;
        }
        SparseRow row;
        row.columns.resize(static_cast<size_t>(np));
        row.values.resize(static_cast<size_t>(np));
        if (binary) {
            std::vector<float> values(static_cast<size_t>(np));
            char space = 0, newline = 0;
            in.get(space).get(newline);
            in.read(reinterpret_cast<char*>(row.columns.data()), np * 4);
            in.read(reinterpret_cast<char*>(values.data()), np * 4);
            in.get(newline);
            std::copy(values.begin(), values.end(), row.values.begin());
        } else {
            for (auto& column : row.columns) in >> column;
            for (auto& value : row.values) in >> value;
        }
        if (!in) {
            error = "row " + std::to_string(r) + " is truncated";
            return false;
        }
        for (int32_t column : row.columns)
            if (column < 0 || column >= width) {
                error = "row " + std::to_string(r) + " names glob " + std::to_string(column) +
                        " outside the glob count";
                return false;
            }
        result.rows.push_back(std::move(row));
    }
    if (!(in >> c) || c != ')' || !(in >> c) || c != ')') {
        error = "the row section is not closed";
        return false;
    }
    return true;
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
    sizes.size1 = first;
    in >> sizes.size2 >> sizes.zoneCount >> sizes.globCount >> sizes.dimension;
    return in && skipExpression(in);
}

}  // namespace

bool readResultFile(const std::string& path, ResultFile& result, std::string& error) {
    if (isHdf5File(path)) return readHdf5ResultFile(path, result, error);
    auto input = openInputSource(path);
    if (input->fail()) {
        error = "cannot open " + path;
        return false;
    }
    std::istream& in = *input;
    if (!readResultHead(in, result.sizes)) {
        error = "malformed size section";
        return false;
    }
    if (!readParameterSection(in, result.parameters)) {
        error = "malformed parameter section";
        return false;
    }
    const int32_t dimension = result.sizes.dimension;
    result.allFaces.dimension = dimension;
    result.participatingFaces.dimension = dimension;
    bool rowsSeen = false;
    char c = 0;
    while (in >> c && c == '(') {
        int32_t id = -1;
        in >> id;
        if (id == 308 || id == 1308) {
            if (rowsSeen) {
                error = "more than one row section";
                return false;
            }
            result.binaryRows = id == 1308;
            if (!readRows(in, id == 1308, result, error)) return false;
            rowsSeen = true;
            continue;
        }
        switch (id) {
        case 10: readNodeSection(in, dimension == 3 ? 3 : 2, result.nodes); break;
        case 311: readFaceSection(in, result.allFaces, result.participatingFaces, result.zones); break;
        case 309: readGlobSection(in, result.allFaces, result.participatingFaces, result.zones); break;
        case 18: readPeriodicSection(in, result.allFaces, result.zones); break;
        case 0: break;  // a comment section
        default:
            error = "unknown section " + std::to_string(id);
            return false;
        }
        if (!skipExpression(in)) {  // the rest of the section up to its ")"
            error = "section " + std::to_string(id) + " is not closed";
            return false;
        }
    }
    if (!rowsSeen) {
        error = "no view-factor rows (not a result file, or an unfinished one)";
        return false;
    }
    FaceSet& part = result.participatingFaces;
    for (size_t i = 0; i < part.faceId.size(); ++i)
        part.faceGlob[i] = result.allFaces.faceGlob[part.faceId[i]];
    return true;
}

CheckSummary checkResult(ResultFile& result) {
    FaceSet& faces = result.participatingFaces;
    computeFaceGeometry(faces);
    const int32_t globCount = std::max(result.sizes.globCount, 0);
    const std::vector<double> area = globSurfaceAreas(faces, globCount);

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
        summary.minRowSum = std::min_element(summary.globs.begin(), summary.globs.end(), bySum)->rowSum;
        summary.maxRowSum = std::max_element(summary.globs.begin(), summary.globs.end(), bySum)->rowSum;
        summary.meanRowSum = sum / static_cast<double>(summary.globs.size());
        for (const auto& g : summary.globs)
            summary.worstReciprocity = std::max(summary.worstReciprocity, g.worstReciprocity);
    }
    if (exchanged > 0) summary.weightedReciprocity = unbalanced / exchanged;
    return summary;
}

}  // namespace hemiray::cli
