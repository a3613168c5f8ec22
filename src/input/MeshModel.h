// The surface mesh model that the input readers fill and everything after them
// reads: node coordinates, face sets in compressed-row form, and the table of face
// zones with their periodic pairing. Indices are 0-based int32 throughout.
#pragma once

#include <cstdint>
#include <vector>

#include "SmallVector"

namespace hemiray {

// One entry per node, x, y, z; only the first `dimension` components come from the input.
using NodeArray = std::vector<Vec3>;

// Zone type codes. Below zoneTypeSpecial a zone is a wall that takes part and scores.
inline constexpr int32_t zoneTypeSpecial = 2000;
inline constexpr int32_t zoneTypeMirror = 2007;
inline constexpr int32_t zoneTypePeriodicShadow = 2008;
inline constexpr int32_t zoneTypePeriodic = 2012;

// Mappings from the model's dimension (1 axisymmetric, 2 planar, 3 three-dimensional),
// written once here so that readers, writers and front ends agree.
// Coordinates each node carries in the input: (x, r) or (x, y) below 3D.
constexpr int nodeCoordinateCount(int32_t dimension) {
    return dimension == 3 ? 3 : 2;
}
// Direction set of the hemisphere: a half circle in the plane (2), a hemisphere in
// 3D and axisymmetric runs (3), whose rays leave the meridian plane.
constexpr int hemisphereMode(int32_t dimension) {
    return dimension == 2 ? 2 : 3;
}

// A revolved face (a cone, cylinder or annulus) counts as hit only at least this far
// along the ray: a nearer root is the surface the ray leaves.
inline constexpr double minimumConeHitDistance = 1e-10;

// Walls and the three ray-steering zone types also go into the participating set.
constexpr bool isParticipatingZoneType(int32_t zoneType) {
    return zoneType < zoneTypeSpecial || zoneType == zoneTypeMirror ||
           zoneType == zoneTypePeriodicShadow || zoneType == zoneTypePeriodic;
}

struct FaceSet {
    int32_t dimension = 0;             // 1 axisymmetric, 2 planar, 3 three-dimensional
    const NodeArray* nodes = nullptr;  // not owned; shared by both face sets of a run
    std::vector<int32_t>
        faceNodeStart;  // face f owns faceNodes[faceNodeStart[f] .. faceNodeStart[f+1])
    std::vector<int32_t> faceNodes;      // 0-based node indices, face after face
    std::vector<int32_t> faceGlob;       // cluster of each face; -1 for none
    std::vector<int32_t> faceId;         // position of the face in allFaces
    std::vector<int32_t> faceZoneType;   // zone type of the face's zone
    std::vector<int32_t> faceZoneIndex;  // position of the face's zone in the ZoneTable
    std::vector<Vec3> faceNormal;        // area vector: length = area (3D) or segment length
    std::vector<Vec3> faceCentroid;      // centroid (3D: area-weighted fan; else midpoint)

    FaceSet(int32_t dimension, const NodeArray& nodes);

    int32_t faceCount() const { return static_cast<int32_t>(faceNodeStart.size()) - 1; }
};

// Closes the face whose node indices and number were just appended to faceNodes and faceId.
void addFace(FaceSet& faces, int32_t zoneType, int32_t zoneIndex);

struct ZoneTable {
    std::vector<int32_t> zoneFaceStart;  // running face total from the headers; starts with one 0
    std::vector<int32_t> zoneId;
    std::vector<int32_t> zoneType;
    std::vector<int32_t> zoneElementType;  // 0 mixed, 2 line, 3 triangle, 4 quad, 5 polygon
    std::vector<int32_t> zoneFirst;
    std::vector<int32_t> zoneLast;
    std::vector<int32_t> periodicType;    // 0 translational or not periodic; else rotational
    std::vector<int32_t> periodicShadow;  // set on the zone named first in a pair only; else -1
    std::vector<double> periodicAngle;
    std::vector<Vec3> periodicAxisA;  // rotational: a point on the axis
    std::vector<Vec3> periodicAxisB;  // rotational: the axis direction (unit)
    std::vector<Vec3> periodicShift;  // translational: the shift

    // Reserves room for the expected count plus one, clamped so that a wild count
    // from the size section cannot make the reservation itself fail.
    explicit ZoneTable(int32_t expectedZoneCount);

    int32_t zoneCount() const { return static_cast<int32_t>(zoneId.size()); }
};

void addZone(ZoneTable& zones, int32_t zoneId, int32_t firstIndex, int32_t lastIndex,
             int32_t zoneType, int32_t elementType);

// Position of the first zone with this identifier, or -1.
[[nodiscard]] int32_t findZone(const ZoneTable& zones, int32_t zoneId);

}  // namespace hemiray
