// The in-memory model: head checks of the two block families and the readers that
// fill the surface mesh model from either. A packed block is untrusted bytes: its
// counts are checked against its length before any array is touched, and every
// index into it is checked before it is used, so a bad block ends with its message
// rather than a read past its end.
#include "input/MeshBlock.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "Check.h"
#include "hemiray/raytracing.h"
#include "input/SectionReader.h"

namespace hemiray {

namespace {

// The layout promised to hosts. The structs are read by copying bytes, so these
// checks are what keeps the header's offsets and the readers in agreement.
static_assert(std::endian::native == std::endian::little, "blocks are little-endian");
static_assert(sizeof(void*) == 8, "a direct block holds 8-byte pointers");
static_assert(sizeof(hemiray_parameters) == 64 && sizeof(HostParameterBlock) == 64);
static_assert(offsetof(hemiray_parameters, param4) == offsetof(HostParameterBlock, param4));
static_assert(offsetof(hemiray_parameters, param7) == offsetof(HostParameterBlock, param7));
static_assert(offsetof(hemiray_parameters, param10) == offsetof(HostParameterBlock, param10));
static_assert(offsetof(hemiray_parameters, param1) == offsetof(HostParameterBlock, param1));
static_assert(offsetof(hemiray_parameters, hemisphereResolution) ==
              offsetof(HostParameterBlock, hemisphereResolution));
static_assert(offsetof(hemiray_parameters, param3) == offsetof(HostParameterBlock, param3));
static_assert(offsetof(hemiray_parameters, param5) == offsetof(HostParameterBlock, param5));
static_assert(offsetof(hemiray_parameters, param6) == offsetof(HostParameterBlock, param6));
static_assert(offsetof(hemiray_parameters, param8) == offsetof(HostParameterBlock, param8));
static_assert(offsetof(hemiray_parameters, param9) == offsetof(HostParameterBlock, param9));
static_assert(offsetof(hemiray_parameters, param11) == offsetof(HostParameterBlock, param11));
static_assert(offsetof(hemiray_parameters, param13) == offsetof(HostParameterBlock, param13));
static_assert(offsetof(hemiray_parameters, param12) == offsetof(HostParameterBlock, param12));
static_assert(offsetof(hemiray_block_head, tag) == 20);
static_assert(offsetof(hemiray_block_head, parameters) == 24);
static_assert(offsetof(hemiray_block_head, totalBytes) == 88);
static_assert(offsetof(hemiray_block_head, nodeCount) == 96);
static_assert(offsetof(hemiray_block_head, reserved) == 116);
static_assert(sizeof(hemiray_block_head) == 120);
static_assert(sizeof(hemiray_face_zone) == 20);
static_assert(offsetof(hemiray_periodic_pair, angle) == 16);
static_assert(offsetof(hemiray_periodic_pair, axisPoint) == 24);
static_assert(offsetof(hemiray_periodic_pair, axisDirection) == 48);
static_assert(offsetof(hemiray_periodic_pair, shift) == 72);
static_assert(sizeof(hemiray_periodic_pair) == 96);
static_assert(offsetof(hemiray_direct_block, nodes) == 120);
static_assert(offsetof(hemiray_direct_block, faceGlobs) == 160);
static_assert(sizeof(hemiray_direct_block) == 168);
static_assert(HEMIRAY_PACKED_BYTES(1, 1, 1, 1, 1) == 120 + 24 + 96 + 20 + 8 + 4);

// Element index * element size stays far below 2^63 for int32 counts.
template <typename T>
T load(const std::byte* array, int64_t index) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, array + index * static_cast<int64_t>(sizeof(T)), sizeof(T));
    return value;
}

hemiray_block_head loadHead(const void* block) {
    hemiray_block_head head;
    std::memcpy(&head, block, sizeof head);
    return head;
}

// The checks both families share: tag, reserved field, counts; fills the view's
// values. Arrays are located by the caller.
MeshBlockView checkHead(const hemiray_block_head& head, uint32_t expectedTag) {
    if (head.tag != expectedTag) {
        if (head.tag == HEMIRAY_PACKED_TAG || head.tag == HEMIRAY_DIRECT_TAG)
            reportInputError("mesh block family does not match directFields");
        reportInputError("mesh block tag is unknown");
    }
    if (head.reserved != 0) reportInputError("mesh block reserved field is not 0");
    if (head.nodeCount < 0 || head.faceZoneCount < 0 || head.faceCount < 0 ||
        head.faceNodeCount < 0 || head.periodicCount < 0)
        reportInputError("mesh block has a negative count");

    MeshBlockView view;
    view.size1 = head.size1;
    view.size2 = head.size2;
    view.zoneCount = head.zoneCount;
    view.globCount = head.globCount;
    view.dimension = head.dimension;
    view.nodeCount = head.nodeCount;
    view.faceZoneCount = head.faceZoneCount;
    view.faceCount = head.faceCount;
    view.faceNodeCount = head.faceNodeCount;
    view.periodicCount = head.periodicCount;
    return view;
}

// Reports a length that disagrees with what the counts need.
void checkLength(uint64_t totalBytes, uint64_t needed) {
    if (totalBytes < needed) reportInputError("mesh block counts overrun its length");
    if (totalBytes > needed) reportInputError("mesh block is longer than its counts need");
}

void checkElementType(int32_t elementType) {
    switch (elementType) {
        case 0:
        case 2:
        case 3:
        case 4:
        case 5:
            return;
        default:
            reportInputError("element type not supported");
    }
}

// Face numbers are 32-bit fields and wrap like them, as in the text readers.
int32_t wrapToInt32(int64_t value) {
    return static_cast<int32_t>(static_cast<uint32_t>(value));
}

Vec3 loadVec3(const double (&components)[3]) {
    return Vec3(components[0], components[1], components[2]);
}

}  // namespace

MeshBlockView openPackedBlock(const void* block) {
    const hemiray_block_head head = loadHead(block);
    MeshBlockView view = checkHead(head, HEMIRAY_PACKED_TAG);
    checkLength(head.totalBytes,
                HEMIRAY_PACKED_BYTES(head.nodeCount, head.periodicCount, head.faceZoneCount,
                                     head.faceCount, head.faceNodeCount));

    // The arrays follow the head in this order, 8-byte values first, so none needs
    // padding.
    const auto* bytes = static_cast<const std::byte*>(block);
    const std::byte* next = bytes + sizeof(hemiray_block_head);
    auto take = [&next](int32_t count, size_t elementBytes) {
        const std::byte* start = next;
        next += static_cast<size_t>(count) * elementBytes;
        return start;
    };
    view.parameters = bytes + offsetof(hemiray_block_head, parameters);
    view.nodes = take(head.nodeCount, 3 * sizeof(double));
    view.periodic = take(head.periodicCount, sizeof(hemiray_periodic_pair));
    view.zones = take(head.faceZoneCount, sizeof(hemiray_face_zone));
    view.faceNodeCounts = take(head.faceCount, sizeof(int32_t));
    view.faceNodes = take(head.faceNodeCount, sizeof(int32_t));
    view.faceGlobs = take(head.faceCount, sizeof(int32_t));
    return view;
}

MeshBlockView openDirectBlock(const void* block) {
    const hemiray_block_head head = loadHead(block);
    MeshBlockView view = checkHead(head, HEMIRAY_DIRECT_TAG);
    checkLength(head.totalBytes, sizeof(hemiray_direct_block));

    hemiray_direct_block direct;
    std::memcpy(&direct, block, sizeof direct);
    auto take = [](const void* array, int32_t count) {
        if (count > 0 && array == nullptr) reportInputError("mesh block array pointer is null");
        return static_cast<const std::byte*>(array);
    };
    view.parameters =
        static_cast<const std::byte*>(block) + offsetof(hemiray_block_head, parameters);
    view.nodes = take(direct.nodes, head.nodeCount);
    view.periodic = take(direct.periodic, head.periodicCount);
    view.zones = take(direct.zones, head.faceZoneCount);
    view.faceNodeCounts = take(direct.faceNodeCounts, head.faceCount);
    view.faceNodes = take(direct.faceNodes, head.faceNodeCount);
    view.faceGlobs = take(direct.faceGlobs, head.faceCount);
    return view;
}

void readBlockNodes(const MeshBlockView& block, int32_t dimension, NodeArray& nodes) {
    // The run checks its dimension before the mesh is read; anything else here is a
    // caller bug, not a bad block.
    HEMIRAY_CHECK(dimension >= 1 && dimension <= 3, "dimension >= 1 && dimension <= 3");
    // Axisymmetric nodes carry x and y like planar ones; z only counts in 3D. Leaving
    // it at 0 otherwise gives the same model as the text form, which has no z there.
    const int coordinates = nodeCoordinateCount(dimension);
    nodes.assign(static_cast<size_t>(block.nodeCount), Vec3());
    for (int64_t nodeIndex = 0; nodeIndex < block.nodeCount; ++nodeIndex)
        for (int k = 0; k < coordinates; ++k) {
            // Text cannot spell an infinity or a NaN, a host's array can. One such
            // node would stretch the tree's root box to infinity or poison the
            // faces around it, so the block is refused like unreadable text.
            const double value = load<double>(block.nodes, 3 * nodeIndex + k);
            if (!std::isfinite(value)) reportInputError("node coordinate is not a finite number");
            nodes[static_cast<size_t>(nodeIndex)][k] = value;
        }
}

void readBlockFaces(const MeshBlockView& block, FaceSet& allFaces, FaceSet& participatingFaces,
                    ZoneTable& zones) {
    // The counts fit the block (or the host vouches for them), so reserving them is
    // proportional to data that really exists.
    allFaces.faceId.reserve(allFaces.faceId.size() + static_cast<size_t>(block.faceCount));
    allFaces.faceNodeStart.reserve(allFaces.faceNodeStart.size() +
                                   static_cast<size_t>(block.faceCount));
    allFaces.faceNodes.reserve(allFaces.faceNodes.size() +
                               static_cast<size_t>(block.faceNodeCount));

    int64_t face = 0;      // next entry of faceNodeCounts
    int64_t faceNode = 0;  // next entry of faceNodes
    for (int32_t z = 0; z < block.faceZoneCount; ++z) {
        const auto zone = load<hemiray_face_zone>(block.zones, z);
        // Face numbers continue the running total of the zone headers, and the zone
        // is registered before it is checked, exactly as a face section does.
        const int32_t firstFaceNumber = zones.zoneFaceStart.back();
        addZone(zones, zone.zoneId, zone.firstIndex, zone.lastIndex, zone.zoneType,
                zone.elementType);
        checkElementType(zone.elementType);
        // The first zone with this id wins, so a repeated id gives the later zone's
        // faces the index of the earlier one.
        const int32_t zoneIndex = findZone(zones, zone.zoneId);
        if (zoneIndex < 0) reportInputError("invalid id index");

        const bool countedFaces = zone.elementType == 0 || zone.elementType == 5;
        const int64_t zoneFaces =
            std::max<int64_t>(int64_t{zone.lastIndex} - zone.firstIndex + 1, 0);
        if (zoneFaces > block.faceCount - face)
            reportInputError("zone faces overrun the face count");

        const int32_t firstAllFace = allFaces.faceCount();
        for (int64_t k = 0; k < zoneFaces; ++k, ++face) {
            allFaces.faceId.push_back(wrapToInt32(firstFaceNumber + k));
            const int32_t n = load<int32_t>(block.faceNodeCounts, face);
            if (n < 0) reportInputError("face node count is negative");
            if (!countedFaces && n != zone.elementType)
                reportInputError("face node count does not match the element type");
            if (n > block.faceNodeCount - faceNode)
                reportInputError("face nodes overrun the face node count");
            for (int32_t j = 0; j < n; ++j, ++faceNode) {
                const int32_t nodeIndex = load<int32_t>(block.faceNodes, faceNode);
                if (nodeIndex < 0 || nodeIndex >= block.nodeCount)
                    reportInputError("node number out of range");
                allFaces.faceNodes.push_back(nodeIndex);
            }
            // A face without nodes still exists in allFaces.
            addFace(allFaces, zone.zoneType, zoneIndex);
        }

        // Participating zones copy their faces that have nodes, in order.
        if (isParticipatingZoneType(zone.zoneType)) {
            for (int32_t f = firstAllFace; f < allFaces.faceCount(); ++f) {
                const auto begin =
                    allFaces.faceNodes.begin() + allFaces.faceNodeStart[static_cast<size_t>(f)];
                const auto end =
                    allFaces.faceNodes.begin() + allFaces.faceNodeStart[static_cast<size_t>(f) + 1];
                if (begin == end) continue;
                participatingFaces.faceId.push_back(allFaces.faceId[static_cast<size_t>(f)]);
                participatingFaces.faceNodes.insert(participatingFaces.faceNodes.end(), begin, end);
                addFace(participatingFaces, zone.zoneType, zoneIndex);
            }
        }
    }
    if (face != block.faceCount) reportInputError("zone faces fall short of the face count");
    if (faceNode != block.faceNodeCount)
        reportInputError("face nodes fall short of the face node count");
}

void readBlockGlobs(const MeshBlockView& block, FaceSet& allFaces, FaceSet& /*participatingFaces*/,
                    ZoneTable& /*zones*/) {
    // readBlockFaces has checked that the zones hold exactly faceCount faces, so the
    // block's glob array lines up with allFaces face for face.
    HEMIRAY_CHECK(static_cast<int64_t>(allFaces.faceGlob.size()) == block.faceCount,
                  "allFaces.faceGlob.size() == block.faceCount");
    for (int64_t f = 0; f < block.faceCount; ++f)
        allFaces.faceGlob[static_cast<size_t>(f)] = load<int32_t>(block.faceGlobs, f);
}

void readBlockPeriodic(const MeshBlockView& block, FaceSet& /*allFaces*/, ZoneTable& zones) {
    for (int32_t p = 0; p < block.periodicCount; ++p) {
        const auto pair = load<hemiray_periodic_pair>(block.periodic, p);
        const int32_t k = findZone(zones, pair.zoneId);
        const int32_t s = findZone(zones, pair.shadowZoneId);
        if (k < 0 || s < 0) reportInputError("invalid id index");
        const auto zone = static_cast<size_t>(k);
        const auto shadow = static_cast<size_t>(s);

        // Only the named zone points to its shadow; the shadow keeps -1.
        zones.periodicShadow[zone] = s;
        zones.periodicType[zone] = pair.periodicType;
        zones.periodicType[shadow] = pair.periodicType;
        if (pair.periodicType != 0) {
            // Rotational: the shadow turns the other way about the same axis.
            zones.periodicAngle[zone] = pair.angle;
            zones.periodicAxisA[zone] = loadVec3(pair.axisPoint);
            zones.periodicAxisB[zone] = loadVec3(pair.axisDirection);
            zones.periodicAngle[shadow] = -pair.angle;
            zones.periodicAxisA[shadow] = zones.periodicAxisA[zone];
            zones.periodicAxisB[shadow] = zones.periodicAxisB[zone];
        } else {
            // Translational: the shadow shifts back.
            zones.periodicShift[zone] = loadVec3(pair.shift);
            zones.periodicShift[shadow] = -zones.periodicShift[zone];
        }
    }
}

void readBlockMesh(const MeshBlockView& block, int32_t dimension, NodeArray& nodes,
                   FaceSet& allFaces, FaceSet& participatingFaces, ZoneTable& zones) {
    readBlockNodes(block, dimension, nodes);
    readBlockFaces(block, allFaces, participatingFaces, zones);
    readBlockGlobs(block, allFaces, participatingFaces, zones);
    if (block.periodicCount > 0) readBlockPeriodic(block, allFaces, zones);
    copyGlobsToParticipatingFaces(allFaces, participatingFaces);
}

}  // namespace hemiray
