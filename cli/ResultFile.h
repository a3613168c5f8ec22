// Reading a result back: the model it repeats and its rows, from a view-factor file
// (text or binary rows, plain or compressed) or from an HDF5 result. Used by
// `hemiray check`, `hemiray demo` and the tests.
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
    bool hasRows = false;         // a row section was read: a result rather than a model
    bool binaryRows = false;
    bool hdf5 = false;  // read from an HDF5 result

    ResultFile() = default;
    ResultFile(const ResultFile&) = delete;
    ResultFile& operator=(const ResultFile&) = delete;
};

// Reads the whole file, an HDF5 result or a view-factor file, told apart by their
// content. False with a message in `error` when it is not a complete result;
// malformed mesh sections of a view-factor file end the process like in the
// library.
[[nodiscard]] bool readResultFile(const std::string& path, ResultFile& result, std::string& error);

// Reads a model text or a text result with the library's section readers: the
// size section as the library reads it (modelHead) or with the laxer head of a
// result, and the rows when there are any. Every malformed input gives a message;
// sizes from the file are trusted only as far as the file holds data.
[[nodiscard]] bool readTextFile(const std::string& path, bool modelHead, ResultFile& result,
                                std::string& error);
[[nodiscard]] bool readTextStream(std::istream& input, bool modelHead, ResultFile& result,
                                  std::string& error);

// The checks without which a model or result cannot be measured: dimension, a glob
// count that fits the faces, and node numbers within the node array.
[[nodiscard]] bool checkModelBounds(const ResultFile& model, std::string& error);

// True when the file is an HDF5 file, whatever its name.
[[nodiscard]] bool isHdf5File(const std::string& path);

// Reads an HDF5 result (docs/hdf5-results.md). Every array is checked against the
// others before it is used, so a damaged file gives a message, never a crash.
[[nodiscard]] bool readHdf5ResultFile(const std::string& path, ResultFile& result,
                                      std::string& error);

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
