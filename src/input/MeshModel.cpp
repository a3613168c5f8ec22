// Append and lookup operations of the surface mesh model.
#include "input/MeshModel.h"

#include <algorithm>

namespace hemiray {

FaceSet::FaceSet(int32_t dimension_, const NodeArray& nodes_)
    : dimension(dimension_), nodes(&nodes_), faceNodeStart{0} {}

void addFace(FaceSet& faces, int32_t zoneType, int32_t zoneIndex) {
    faces.faceNodeStart.push_back(static_cast<int32_t>(faces.faceNodes.size()));
    faces.faceGlob.push_back(-1);
    faces.faceZoneType.push_back(zoneType);
    faces.faceZoneIndex.push_back(zoneIndex);
}

ZoneTable::ZoneTable(int32_t expectedZoneCount) : zoneFaceStart{0} {
    // The count only sizes a reservation; a file that lies about it must not cost
    // gigabytes up front, so anything beyond a generous bound grows on demand.
    constexpr int32_t reserveLimit = 1 << 16;
    const auto reserve = static_cast<size_t>(std::clamp(expectedZoneCount, 0, reserveLimit)) + 1;
    zoneFaceStart.reserve(reserve);
    zoneId.reserve(reserve);
    zoneType.reserve(reserve);
    zoneElementType.reserve(reserve);
    zoneFirst.reserve(reserve);
    zoneLast.reserve(reserve);
    periodicType.reserve(reserve);
    periodicShadow.reserve(reserve);
    periodicAngle.reserve(reserve);
    periodicAxisA.reserve(reserve);
    periodicAxisB.reserve(reserve);
    periodicShift.reserve(reserve);
}

void addZone(ZoneTable& zones, int32_t zoneId, int32_t firstIndex, int32_t lastIndex,
             int32_t zoneType, int32_t elementType) {
    // The table trusts the header: a reversed range lowers the running total. The
    // sum wraps like the 32-bit field it models instead of overflowing.
    const auto span = static_cast<int64_t>(lastIndex) - firstIndex + 1;
    zones.zoneFaceStart.push_back(
        static_cast<int32_t>(static_cast<uint32_t>(zones.zoneFaceStart.back() + span)));
    zones.zoneId.push_back(zoneId);
    zones.zoneType.push_back(zoneType);
    zones.zoneElementType.push_back(elementType);
    zones.zoneFirst.push_back(firstIndex);
    zones.zoneLast.push_back(lastIndex);
    zones.periodicType.push_back(0);
    zones.periodicShadow.push_back(-1);
    zones.periodicAngle.push_back(0.0);
    zones.periodicAxisA.push_back({});
    zones.periodicAxisB.push_back({});
    zones.periodicShift.push_back({});
}

int32_t findZone(const ZoneTable& zones, int32_t zoneId) {
    const auto it = std::find(zones.zoneId.begin(), zones.zoneId.end(), zoneId);
    return it == zones.zoneId.end() ? -1 : static_cast<int32_t>(it - zones.zoneId.begin());
}

}  // namespace hemiray
