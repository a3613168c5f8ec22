// Builds in-memory blocks from a model that has been read: a packed block to hand
// to raytracing_lib or to keep in a file, and a direct block whose pointers lead
// into a packed one. Used by the hemiray tool and the tests; hosts that hold their
// own arrays fill hemiray_direct_block themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "hemiray/raytracing.h"
#include "input/MeshModel.h"
#include "input/ParameterSection.h"

namespace hemiray {

// The five values of the size section, in their order.
struct BlockSizes {
    int32_t size1 = 0;
    int32_t size2 = 0;
    int32_t zoneCount = 0;
    int32_t globCount = 0;
    int32_t dimension = 0;
};

// Writes the model as a packed block that reads back into the same model. Zone k
// takes the next max(0, lastIndex - firstIndex + 1) faces of allFaces, as the
// readers count them; each periodic pair is the one its first zone (the zone with a
// shadow) holds after reading. A model whose zones disagree with allFaces (not one
// that the readers produced) is a caller bug and stops at a check.
[[nodiscard]] std::vector<std::byte> packMeshBlock(const BlockSizes& sizes,
                                                   const RunParameters& parameters,
                                                   const NodeArray& nodes, const FaceSet& allFaces,
                                                   const ZoneTable& zones);

// A direct block with the head of the packed block (re-tagged) and pointers into
// its arrays. The packed block must outlive the result and must be one that
// openPackedBlock accepts; a bad one ends the process like any bad block.
[[nodiscard]] hemiray_direct_block directBlockFor(const std::vector<std::byte>& packed);

}  // namespace hemiray
