// Text form of a model, in the same section syntax as the library's input.
#include "models/ModelText.h"

#include <algorithm>
#include <fstream>
#include <ios>

#include "input/MeshModel.h"

namespace hemiray::models {

int32_t Model::globCount() const {
    int32_t count = 0;
    for (const auto& zone : zones)
        for (int32_t g : zone.globs) count = std::max(count, g + 1);
    return count;
}

int32_t Model::faceCount() const {
    int32_t count = 0;
    for (const auto& zone : zones) count += static_cast<int32_t>(zone.faces.size());
    return count;
}

int32_t Model::addNode(double x, double y, double z) {
    nodes.push_back({x, y, z});
    return static_cast<int32_t>(nodes.size()) - 1;
}

namespace {

bool steersRays(int32_t zoneType) {
    return zoneType == 2007 || zoneType == 2008 || zoneType == 2012;
}

}  // namespace

void writeModelText(std::ostream& out, const Model& model) {
    const int coordinates = nodeCoordinateCount(model.dimension);
    out << "(0 " << model.comment << ")\n";
    out << "(0 0 " << model.zones.size() << ' ' << model.globCount() << ' ' << model.dimension
        << ")\n";
    // Only the resolution matters to the computation; the other twelve values travel
    // to the result unchanged.
    out << "(1 " << model.resolution << " 0 0.0 0 0 0.0 0 0 0.0 0 0 0)\n";

    out.precision(17);
    out << "(10 (1 1 " << std::hex << model.nodes.size() << std::dec << " 1 " << coordinates
        << ")(\n";
    for (const auto& node : model.nodes) {
        for (int i = 0; i < coordinates; ++i) out << (i ? " " : "") << node[i];
        out << '\n';
    }
    out << "))\n";

    int32_t first = 1;
    for (const auto& zone : model.zones) {
        const int32_t last = first + static_cast<int32_t>(zone.faces.size()) - 1;
        out << "(311 (" << zone.id << ' ' << first << ' ' << last << ' ' << zone.type << ' '
            << zone.elementType << ")(\n";
        for (const auto& face : zone.faces) {
            if (zone.elementType == 0 || zone.elementType == 5) out << face.size();
            for (int32_t node : face) out << ' ' << node + 1;
            out << '\n';
        }
        out << "))\n";
        if (!steersRays(zone.type)) {
            out << "(309 (" << zone.id << ' ' << first << ' ' << last << ' ' << zone.type << ' '
                << zone.elementType << ")(\n";
            for (size_t f = 0; f < zone.faces.size(); ++f)
                out << (f < zone.globs.size() ? zone.globs[f] : -1) << '\n';
            out << "))\n";
        }
        first = last + 1;
    }

    for (const auto& p : model.periodic) {
        out << "(18 (" << p.zoneId << ' ' << p.shadowZoneId << ") " << p.type << '\n';
        if (p.type != 0) {
            out << p.angle << '\n';
            out << p.axisPoint[0] << ' ' << p.axisPoint[1] << ' ' << p.axisPoint[2] << '\n';
            out << p.axisDirection[0] << ' ' << p.axisDirection[1] << ' ' << p.axisDirection[2];
        } else {
            out << p.shift[0] << ' ' << p.shift[1] << ' ' << p.shift[2];
        }
        out << ")\n";
    }
}

bool writeModelFile(const std::string& path, const Model& model) {
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    if (!out) return false;
    writeModelText(out, model);
    out.close();
    return !out.fail();
}

}  // namespace hemiray::models
