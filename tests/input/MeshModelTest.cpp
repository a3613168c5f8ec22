// The mesh model's append and lookup operations: compressed-row bookkeeping of the
// face sets and the header-trusting running total of the zone table.
#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "input/MeshModel.h"

namespace hemiray {
namespace {

using IntVector = std::vector<int32_t>;

TEST(FaceSet, AddFaceClosesTheFaceJustAppended) {
    NodeArray nodes(3);
    FaceSet faces(2, nodes);
    EXPECT_EQ(faces.dimension, 2);
    EXPECT_EQ(faces.nodes, &nodes);
    EXPECT_EQ(faces.faceNodeStart, IntVector{0});
    EXPECT_EQ(faces.faceCount(), 0);

    faces.faceId.push_back(0);
    faces.faceNodes.insert(faces.faceNodes.end(), {0, 1});
    addFace(faces, 3, 0);
    faces.faceId.push_back(1);  // a face without nodes still exists
    addFace(faces, 2010, 4);
    faces.faceId.push_back(2);
    faces.faceNodes.insert(faces.faceNodes.end(), {1, 2, 0});
    addFace(faces, -7, 1);

    EXPECT_EQ(faces.faceCount(), 3);
    EXPECT_EQ(faces.faceNodeStart, (IntVector{0, 2, 2, 5}));
    EXPECT_EQ(faces.faceGlob, (IntVector{-1, -1, -1}));
    EXPECT_EQ(faces.faceZoneType, (IntVector{3, 2010, -7}));
    EXPECT_EQ(faces.faceZoneIndex, (IntVector{0, 4, 1}));
}

TEST(ZoneTable, AddZoneKeepsTheHeaderAndARunningTotal) {
    ZoneTable zones(2);
    EXPECT_EQ(zones.zoneFaceStart, IntVector{0});
    EXPECT_EQ(zones.zoneCount(), 0);
    addZone(zones, 11, 1, 4, 3, 3);
    addZone(zones, 12, 10, 8, 2010, 2);  // reversed: 8 - 10 + 1 = -1
    addZone(zones, 13, 5, 5, 2012, 0);
    EXPECT_EQ(zones.zoneCount(), 3);
    EXPECT_EQ(zones.zoneFaceStart, (IntVector{0, 4, 3, 4}));
    EXPECT_EQ(zones.zoneId, (IntVector{11, 12, 13}));
    EXPECT_EQ(zones.zoneType, (IntVector{3, 2010, 2012}));
    EXPECT_EQ(zones.zoneElementType, (IntVector{3, 2, 0}));
    EXPECT_EQ(zones.zoneFirst, (IntVector{1, 10, 5}));
    EXPECT_EQ(zones.zoneLast, (IntVector{4, 8, 5}));
    EXPECT_EQ(zones.periodicType, (IntVector{0, 0, 0}));
    EXPECT_EQ(zones.periodicShadow, (IntVector{-1, -1, -1}));
    EXPECT_EQ(zones.periodicAngle, (std::vector<double>{0, 0, 0}));
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(zones.periodicAxisA[k], Vec3());
        EXPECT_EQ(zones.periodicAxisB[k], Vec3());
        EXPECT_EQ(zones.periodicShift[k], Vec3());
    }
}

TEST(ZoneTable, ExtremeHeadersWrapLikeTheField) {
    ZoneTable zones(0);
    // INT_MIN..INT_MAX spans 2^32 faces: the 32-bit total comes back to 0.
    addZone(zones, 1, INT_MIN, INT_MAX, 3, 3);
    EXPECT_EQ(zones.zoneFaceStart.back(), 0);
    addZone(zones, 2, 0, INT_MAX, 3, 3);  // 2^31 faces: one past INT_MAX
    EXPECT_EQ(zones.zoneFaceStart.back(), INT_MIN);
}

TEST(ZoneTable, WildExpectedCountsCostNoReservation) {
    for (int32_t count : {INT_MAX, -5, 0}) {
        ZoneTable zones(count);
        EXPECT_LE(zones.zoneId.capacity(), size_t{1} << 17) << count;
        addZone(zones, 1, 1, 1, 3, 3);
        EXPECT_EQ(zones.zoneCount(), 1);
    }
}

TEST(ZoneTable, FindZoneReturnsTheFirstMatchOrMinusOne) {
    ZoneTable zones(4);
    EXPECT_EQ(findZone(zones, 1), -1);
    addZone(zones, 7, 1, 1, 3, 2);
    addZone(zones, 9, 1, 1, 3, 2);
    addZone(zones, 7, 1, 1, 3, 2);
    EXPECT_EQ(findZone(zones, 7), 0);
    EXPECT_EQ(findZone(zones, 9), 1);
    EXPECT_EQ(findZone(zones, 8), -1);
}

TEST(ParticipatingZoneType, WallsAndRaySteeringZonesOnly) {
    for (int32_t t : {INT_MIN, -1, 0, 1, 1999, 2007, 2008, 2012})
        EXPECT_TRUE(isParticipatingZoneType(t)) << t;
    for (int32_t t : {2000, 2001, 2005, 2006, 2009, 2010, 2011, 2013, 3000, INT_MAX})
        EXPECT_FALSE(isParticipatingZoneType(t)) << t;
}

}  // namespace
}  // namespace hemiray
