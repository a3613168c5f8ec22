// Readers of the node (10), face (311), glob (309) and periodic (18) sections. Each
// is called just after the section identifier and leaves the rest of the section,
// up to its closing ")", to the section reader. Failures go through reportInputError.
#pragma once

#include <cstdint>
#include <istream>

#include "input/MeshModel.h"

namespace hemiray {

void readNodeSection(std::istream& input, int32_t dimension, NodeArray& nodes);
void readFaceSection(std::istream& input, FaceSet& allFaces, FaceSet& participatingFaces,
                     ZoneTable& zones);
void readGlobSection(std::istream& input, FaceSet& allFaces, FaceSet& participatingFaces,
                     ZoneTable& zones);
void readPeriodicSection(std::istream& input, FaceSet& allFaces, ZoneTable& zones);

}  // namespace hemiray
