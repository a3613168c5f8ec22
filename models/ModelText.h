// A mesh model as plain data and its text form, the input syntax that
// raytracing_lib reads: size section, parameter section, node, face, glob and
// periodic sections. Used to write example models and test models.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace hemiray::models {

struct ModelZone {
    int32_t id = 0;
    int32_t type = 1;         // below 2000 a wall; 2007 mirror; 2012/2008 periodic pair
    int32_t elementType = 0;  // 0 mixed (each face carries its node count), 2, 3, 4, 5
    std::vector<std::vector<int32_t>> faces;  // 0-based node indices
    std::vector<int32_t> globs;               // one per face; written unless the zone steers rays
};

struct ModelPeriodic {
    int32_t zoneId = 0;
    int32_t shadowZoneId = 0;
    int32_t type = 0;  // 0 translational, else rotational
    double angle = 0;  // rotational: radians
    std::array<double, 3> axisPoint{};
    std::array<double, 3> axisDirection{};
    std::array<double, 3> shift{};  // translational
};

struct Model {
    std::string comment = "hemiray-model";  // one word
    int32_t dimension = 3;
    int32_t resolution = 20;  // hemisphereResolution
    std::vector<std::array<double, 3>> nodes;
    std::vector<ModelZone> zones;
    std::vector<ModelPeriodic> periodic;

    int32_t globCount() const;  // one more than the largest glob id
    int32_t faceCount() const;
    // Appends a node and returns its 0-based index.
    int32_t addNode(double x, double y, double z = 0);
};

// Writes the model in the input syntax. Node coordinates are written with 17
// significant digits, so the text reads back to the same doubles.
void writeModelText(std::ostream& out, const Model& model);
// Writes to a file; false when it cannot be written.
[[nodiscard]] bool writeModelFile(const std::string& path, const Model& model);

}  // namespace hemiray::models
