// A complete surface mesh model as one run holds it, fed from a string, and the
// comparisons of whole models and parameter sets, for the reader tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <tuple>

#include "input/MeshModel.h"
#include "input/MeshSections.h"
#include "input/ParameterSection.h"
#include "input/SectionReader.h"

namespace hemiray::test {

struct Mesh {
    NodeArray nodes;
    FaceSet allFaces;
    FaceSet participatingFaces;
    ZoneTable zones;

    explicit Mesh(int32_t dimension = 3)
        : allFaces(dimension, nodes), participatingFaces(dimension, nodes), zones(4) {}
    Mesh(const Mesh&) = delete;  // the face sets point at this object's nodes
    Mesh& operator=(const Mesh&) = delete;

    // Reads a whole section sequence; returns what the reader left unread.
    std::string read(const std::string& text, int32_t dimension = 3) {
        std::istringstream input(text);
        readMeshSections(input, dimension, nodes, allFaces, participatingFaces, zones);
        input.clear();
        return std::string(std::istreambuf_iterator<char>(input), {});
    }
};

// What a reader left in the stream, from the current position on.
inline std::string rest(std::istringstream& input) {
    input.clear();
    return std::string(std::istreambuf_iterator<char>(input), {});
}

// The thirteen parameters as one value, so that a comparison prints every field.
inline auto fields(const RunParameters& p) {
    return std::tuple(p.param1, p.hemisphereResolution, p.param3, p.param4, p.param5, p.param6,
                      p.param7, p.param8, p.param9, p.param10, p.param11, p.param12, p.param13);
}

// Doubles compared by their bits, so that -0 and 0 differ as they do in a result file.
template <typename T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

inline void expectSameFaces(const FaceSet& a, const FaceSet& b) {
    EXPECT_EQ(a.dimension, b.dimension);
    EXPECT_EQ(a.faceNodeStart, b.faceNodeStart);
    EXPECT_EQ(a.faceNodes, b.faceNodes);
    EXPECT_EQ(a.faceGlob, b.faceGlob);
    EXPECT_EQ(a.faceId, b.faceId);
    EXPECT_EQ(a.faceZoneType, b.faceZoneType);
    EXPECT_EQ(a.faceZoneIndex, b.faceZoneIndex);
}

// Every field of two models, nodes and periodic data bit for bit.
inline void expectSameMesh(const Mesh& a, const Mesh& b) {
    EXPECT_TRUE(sameBits(a.nodes, b.nodes));
    expectSameFaces(a.allFaces, b.allFaces);
    expectSameFaces(a.participatingFaces, b.participatingFaces);
    const ZoneTable& x = a.zones;
    const ZoneTable& y = b.zones;
    EXPECT_EQ(std::tie(x.zoneFaceStart, x.zoneId, x.zoneType, x.zoneElementType, x.zoneFirst,
                       x.zoneLast, x.periodicType, x.periodicShadow),
              std::tie(y.zoneFaceStart, y.zoneId, y.zoneType, y.zoneElementType, y.zoneFirst,
                       y.zoneLast, y.periodicType, y.periodicShadow));
    EXPECT_TRUE(sameBits(x.periodicAngle, y.periodicAngle));
    EXPECT_TRUE(sameBits(x.periodicAxisA, y.periodicAxisA));
    EXPECT_TRUE(sameBits(x.periodicAxisB, y.periodicAxisB));
    EXPECT_TRUE(sameBits(x.periodicShift, y.periodicShift));
}

}  // namespace hemiray::test
