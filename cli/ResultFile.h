// Reading a view-factor file back: the model it repeats and its rows, in text or
// binary form, plain or compressed. Used by `hemiray check` and `hemiray demo`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "input/MeshModel.h"
#include "input/ParameterSection.h"
#include "run/InputSource.h"

namespace hemiray::cli {

struct SparseRow {
    std::vector<int32_t> columns;
    std::vector<double> values;
};

struct ResultFile {
    SizeSection sizes;
    RunParameters parameters;
    NodeArray nodes;
    FaceSet allFaces{0, nodes};
    FaceSet participatingFaces{0, nodes};
    ZoneTable zones{0};
    std::vector<int32_t> activeGlobs;
    std::vector<SparseRow> rows;  // one per active glob, in the same order
    bool binaryRows = false;

    ResultFile() = default;
    ResultFile(const ResultFile&) = delete;
    ResultFile& operator=(const ResultFile&) = delete;
};

// Reads the whole file. False with a message in `error` when it is not a complete
// view-factor file; malformed mesh sections end the process like in the library.
[[nodiscard]] bool readResultFile(const std::string& path, ResultFile& result, std::string& error);

// Closure and reciprocity of a result. Areas are face areas in 3D, segment lengths
// in planar mode, and the areas of the revolved surfaces in axisymmetric mode.
struct GlobCheck {
    int32_t glob = 0;
    double area = 0;
    double rowSum = 0;
    double worstReciprocity = 0;  // max over j of |A_i F_ij - A_j F_ji| / (A_i F_ij)
    int32_t worstPartner = -1;
};

struct CheckSummary {
    std::vector<GlobCheck> globs;
    double minRowSum = 0;
    double maxRowSum = 0;
    double meanRowSum = 0;
    double worstReciprocity = 0;
    // sum |A_i F_ij - A_j F_ji| / sum A_i F_ij over the pairs of rows: the share of
    // exchanged energy that is not reciprocal. The worst pair above is dominated by
    // small factors that few rays reach; this one is not.
    double weightedReciprocity = 0;
};

CheckSummary checkResult(ResultFile& result);

}  // namespace hemiray::cli
