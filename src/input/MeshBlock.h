// Readers of the in-memory model a host hands over instead of a text file: the
// packed block (head and arrays in one buffer) and the direct block (head and
// pointers to the host's arrays). The layouts are declared in hemiray/raytracing.h.
// The two families differ only in where the arrays lie and how the parameters are
// taken; once a block is opened, the same readers fill the model from either.
// Every failure goes through reportInputError, like bad mesh text.
#pragma once

#include <cstddef>
#include <cstdint>

#include "input/MeshModel.h"
#include "input/ParameterSection.h"

namespace hemiray {

// A block whose head has been checked: the size values, the counts, and where each
// array starts. Every array is as long as its count says (for a packed block that
// is checked against the block's length; a direct block's host vouches for it).
// The arrays carry no alignment promise and are read with unaligned loads.
struct MeshBlockView {
    int32_t size1 = 0;
    int32_t size2 = 0;
    int32_t zoneCount = 0;  // size value 3
    int32_t globCount = 0;  // size value 4
    int32_t dimension = 0;  // size value 5, as the host wrote it
    int32_t nodeCount = 0;
    int32_t faceZoneCount = 0;
    int32_t faceCount = 0;
    int32_t faceNodeCount = 0;
    int32_t periodicCount = 0;
    const std::byte* parameters = nullptr;      // the 64-byte host parameter block
    const std::byte* nodes = nullptr;           // 3 doubles per node
    const std::byte* periodic = nullptr;        // 96-byte pair records
    const std::byte* zones = nullptr;           // 20-byte face zone records
    const std::byte* faceNodeCounts = nullptr;  // int32 per face
    const std::byte* faceNodes = nullptr;       // int32 per node reference, 0-based
    const std::byte* faceGlobs = nullptr;       // int32 per face, -1 for none
};

// Checks the head of a packed block (tag, reserved field, counts against
// totalBytes) and locates its arrays. Reads nothing beyond the head before the
// counts have been found to fit.
[[nodiscard]] MeshBlockView openPackedBlock(const void* block);

// Checks the head of a direct block (tag, reserved field, counts, totalBytes equal
// to the direct head's size, no null array with a nonzero count) and takes its
// array pointers.
[[nodiscard]] MeshBlockView openDirectBlock(const void* block);

// Fills nodes with the block's nodes: x, y, and z only when dimension is 3; the
// components not read stay 0, as after a text node section.
void readBlockNodes(const MeshBlockView& block, int32_t dimension, NodeArray& nodes);

// Adds the face zones in order with their faces, as face sections do: same zone
// registration, element-type check, zone lookup and participation rule. Also checks
// that the zones use exactly faceCount faces and faceNodeCount node references and
// that every node index lies below nodeCount.
void readBlockFaces(const MeshBlockView& block, FaceSet& allFaces, FaceSet& participatingFaces,
                    ZoneTable& zones);

// Sets allFaces.faceGlob of every face from the block; call after readBlockFaces.
// participatingFaces learns its globs from the final copy, as with text input.
void readBlockGlobs(const MeshBlockView& block, FaceSet& allFaces, FaceSet& participatingFaces,
                    ZoneTable& zones);

// Applies the periodic pairs in order, as periodic sections do.
void readBlockPeriodic(const MeshBlockView& block, FaceSet& allFaces, ZoneTable& zones);

// The whole mesh of an opened block, in the order of a run: nodes, faces, globs,
// the periodic pairs when there are any, and the final copy of glob ids into
// participatingFaces.
void readBlockMesh(const MeshBlockView& block, int32_t dimension, NodeArray& nodes,
                   FaceSet& allFaces, FaceSet& participatingFaces, ZoneTable& zones);

}  // namespace hemiray
