// Writers of the view-factor file: the head sections that repeat the input model in
// the input syntax, then one sparse row per active glob in the section 308 (text
// rows) or 1308 (binary rows). Number formatting is stream state and carries over
// from writer to writer: scientific with 8 digits from the parameter header on,
// fixed with 6 digits from the row section header on.
#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include "SparseRowVector"
#include "input/MeshModel.h"
#include "input/ParameterSection.h"

namespace hemiray {

void writeFileHeader(std::ostream& out, int32_t size1, int32_t size2, int32_t size3, int32_t size4,
                     int32_t dimension, const char* headerData, bool headerFlag);
void writeParameterHeader(std::ostream& out, const RunParameters& parameters);
void writeNodeSection(std::ostream& out, int32_t coordinateCount, const NodeArray& nodes);
void writeFaceSections(std::ostream& out, const ZoneTable& zones, const FaceSet& allFaces);
void writeGlobSections(std::ostream& out, const ZoneTable& zones, const FaceSet& allFaces);
void writePeriodicSections(std::ostream& out, const ZoneTable& zones);
void writeRowSectionHeader(std::ostream& out, bool binaryOutput,
                           const std::vector<int32_t>& activeGlobs);
void writeRow(std::ostream& out, bool binaryOutput, const SparseRowVector& row);

// Writes value at out as printf's "%.6f" does in the classic locale (the digits of
// the exact binary value rounded to six decimals, ties to even) and returns the end.
// out needs room for fixedSixRoom characters (the largest double has 309 digits).
inline constexpr int fixedSixRoom = 320;
char* formatFixedSix(char* out, double value);

}  // namespace hemiray
