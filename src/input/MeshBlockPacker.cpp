// Packed and direct blocks from a model: the inverse of the block readers, so
// that a model read from text can be handed over in memory and read back alike.
#include "input/MeshBlockPacker.h"

#include <algorithm>
#include <cstring>

#include "Check.h"
#include "input/MeshBlock.h"

namespace hemiray {

namespace {

// Writes values one after the other into a block sized in advance.
class BlockWriter {
public:
    explicit BlockWriter(std::vector<std::byte>& block) : block_(block) {}

    template <typename T>
    void append(const T& value) {
        HEMIRAY_CHECK(block_.size() - used_ >= sizeof value,
                      "block_.size() - used_ >= sizeof value");
        std::memcpy(block_.data() + used_, &value, sizeof value);
        used_ += sizeof value;
    }
    size_t used() const { return used_; }

private:
    std::vector<std::byte>& block_;
    size_t used_ = 0;
};

void storeVec3(double (&components)[3], const Vec3& v) {
    for (int i = 0; i < 3; ++i) components[i] = v[i];
}

hemiray_parameters hostParameters(const RunParameters& p) {
    hemiray_parameters host{};
    host.param4 = p.param4;
    host.param7 = p.param7;
    host.param10 = p.param10;
    host.param1 = p.param1;
    host.hemisphereResolution = p.hemisphereResolution;
    host.param3 = p.param3;
    host.param5 = p.param5;
    host.param6 = p.param6;
    host.param8 = p.param8;
    host.param9 = p.param9;
    host.param11 = p.param11;
    host.param13 = p.param13;
    host.param12 = p.param12;
    return host;
}

}  // namespace

std::vector<std::byte> packMeshBlock(const BlockSizes& sizes, const RunParameters& parameters,
                                     const NodeArray& nodes, const FaceSet& allFaces,
                                     const ZoneTable& zones) {
    // The readers hand zone k the next max(0, last - first + 1) faces; a model from
    // them always adds up, so a mismatch means the model was built some other way.
    int64_t zoneFaceTotal = 0;
    for (int32_t z = 0; z < zones.zoneCount(); ++z)
        zoneFaceTotal += std::max<int64_t>(int64_t{zones.zoneLast[z]} - zones.zoneFirst[z] + 1, 0);
    HEMIRAY_CHECK(zoneFaceTotal == allFaces.faceCount(), "zoneFaceTotal == allFaces.faceCount()");

    std::vector<int32_t> pairZones;
    for (int32_t z = 0; z < zones.zoneCount(); ++z)
        if (zones.periodicShadow[z] >= 0) pairZones.push_back(z);

    hemiray_block_head head{};
    head.size1 = sizes.size1;
    head.size2 = sizes.size2;
    head.zoneCount = sizes.zoneCount;
    head.globCount = sizes.globCount;
    head.dimension = sizes.dimension;
    head.tag = HEMIRAY_PACKED_TAG;
    head.parameters = hostParameters(parameters);
    head.nodeCount = static_cast<int32_t>(nodes.size());
    head.faceZoneCount = zones.zoneCount();
    head.faceCount = allFaces.faceCount();
    head.faceNodeCount = static_cast<int32_t>(allFaces.faceNodes.size());
    head.periodicCount = static_cast<int32_t>(pairZones.size());
    head.reserved = 0;
    head.totalBytes = HEMIRAY_PACKED_BYTES(head.nodeCount, head.periodicCount, head.faceZoneCount,
                                           head.faceCount, head.faceNodeCount);

    std::vector<std::byte> block(static_cast<size_t>(head.totalBytes));
    BlockWriter out(block);
    out.append(head);
    for (const Vec3& node : nodes)
        for (int k = 0; k < 3; ++k) out.append(node[k]);
    for (const int32_t z : pairZones) {
        hemiray_periodic_pair pair{};
        pair.zoneId = zones.zoneId[z];
        pair.shadowZoneId = zones.zoneId[zones.periodicShadow[z]];
        pair.periodicType = zones.periodicType[z];
        // The block carries the pair as the text states it; the reader negates it
        // for the shadow. A zone that is its own shadow was already negated by
        // that step when the model was read, so its stored value is turned back.
        const double sign = zones.periodicShadow[z] == z ? -1.0 : 1.0;
        pair.angle = sign * zones.periodicAngle[z];
        storeVec3(pair.axisPoint, zones.periodicAxisA[z]);
        storeVec3(pair.axisDirection, zones.periodicAxisB[z]);
        storeVec3(pair.shift, sign * zones.periodicShift[z]);
        out.append(pair);
    }
    for (int32_t z = 0; z < zones.zoneCount(); ++z) {
        const hemiray_face_zone zone{zones.zoneId[z], zones.zoneFirst[z], zones.zoneLast[z],
                                     zones.zoneType[z], zones.zoneElementType[z]};
        out.append(zone);
    }
    for (int32_t f = 0; f < allFaces.faceCount(); ++f)
        out.append(allFaces.faceNodeStart[f + 1] - allFaces.faceNodeStart[f]);
    for (const int32_t nodeIndex : allFaces.faceNodes) out.append(nodeIndex);
    for (const int32_t glob : allFaces.faceGlob) out.append(glob);

    HEMIRAY_CHECK(out.used() == block.size(), "out.used() == block.size()");
    return block;
}

hemiray_direct_block directBlockFor(const std::vector<std::byte>& packed) {
    HEMIRAY_CHECK(packed.size() >= sizeof(hemiray_block_head),
                  "packed.size() >= sizeof(hemiray_block_head)");
    hemiray_direct_block direct{};
    std::memcpy(&direct.head, packed.data(), sizeof direct.head);
    HEMIRAY_CHECK(direct.head.totalBytes == packed.size(),
                  "direct.head.totalBytes == packed.size()");
    const MeshBlockView view = openPackedBlock(packed.data());
    direct.head.tag = HEMIRAY_DIRECT_TAG;
    direct.head.totalBytes = sizeof(hemiray_direct_block);
    // The library reads every array with unaligned loads, so these pointers are
    // only ever used as addresses.
    direct.nodes = reinterpret_cast<const double*>(view.nodes);
    direct.periodic = reinterpret_cast<const hemiray_periodic_pair*>(view.periodic);
    direct.zones = reinterpret_cast<const hemiray_face_zone*>(view.zones);
    direct.faceNodeCounts = reinterpret_cast<const int32_t*>(view.faceNodeCounts);
    direct.faceNodes = reinterpret_cast<const int32_t*>(view.faceNodes);
    direct.faceGlobs = reinterpret_cast<const int32_t*>(view.faceGlobs);
    return direct;
}

}  // namespace hemiray
