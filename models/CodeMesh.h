// CodeMesh: builds a small participating face set in code, runs the geometry
// steps the driver runs before sampling (face geometry, glob table, glob points,
// BSP tree) and computes view-factor rows. Shapes used by several tests (rectangle
// grids, subdivided segments, regular polygons) are helpers here so other suites
// can build the same meshes.
#pragma once

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <memory>
#include <numbers>
#include <utility>
#include <vector>

#include "Hemisphere"
#include "SparseRowVector"
#include "geometry/FaceGeometry.h"
#include "geometry/GlobCentroids.h"
#include "geometry/TraversalTree.h"
#include "input/MeshModel.h"
#include "models/QuietTree.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray::models {

class CodeMesh {
public:
    // dimension: 1 axisymmetric ((x, r) segments), 2 planar, 3 polygons.
    explicit CodeMesh(int32_t dimension) : faces(dimension, nodes), zones(4) {}
    CodeMesh(const CodeMesh&) = delete;  // faces points at nodes
    CodeMesh& operator=(const CodeMesh&) = delete;

    // A zone of the given type; returns its position in the zone table.
    int32_t addZone(int32_t zoneType) {
        const int32_t zone = zones.zoneCount();
        hemiray::addZone(zones, zone + 1, 1, 1, zoneType, 0);
        return zone;
    }
    void makeTranslational(int32_t zone, const Vec3& shift) {
        zones.periodicType[zone] = 0;
        zones.periodicShift[zone] = shift;
    }
    void makeRotational(int32_t zone, double angle, const Vec3& axisPoint, const Vec3& axis) {
        zones.periodicType[zone] = 1;
        zones.periodicAngle[zone] = angle;
        zones.periodicAxisA[zone] = axisPoint;
        zones.periodicAxisB[zone] = axis;
    }

    // A face through the given points (new nodes each time; shared nodes are not
    // needed by anything downstream). Returns the face index.
    int32_t addFace(int32_t zone, int32_t glob, std::initializer_list<Vec3> points) {
        for (const Vec3& p : points) {
            faces.faceNodes.push_back(static_cast<int32_t>(nodes.size()));
            nodes.push_back(p);
        }
        const int32_t face = faces.faceCount();
        faces.faceId.push_back(face);
        hemiray::addFace(faces, zones.zoneType[zone], zone);
        faces.faceGlob.back() = glob;
        globCount_ = std::max(globCount_, glob + 1);
        return face;
    }

    // The segment from a to b cut into n equal faces, all in one glob. In modes 1
    // and 2 the face's normal is the direction a -> b turned clockwise.
    void addSegment(int32_t zone, int32_t glob, const Vec3& a, const Vec3& b, int n = 1) {
        for (int i = 0; i < n; ++i)
            addFace(zone, glob, {a + (b - a) * (double(i) / n), a + (b - a) * (double(i + 1) / n)});
    }

    // The parallelogram corner, corner + u, corner + u + v, corner + v cut into
    // nu x nv quads, all in one glob; the normal is u x v.
    void addGrid(int32_t zone, int32_t glob, const Vec3& corner, const Vec3& u, const Vec3& v,
                 int nu = 1, int nv = 1) {
        for (int i = 0; i < nu; ++i)
            for (int j = 0; j < nv; ++j) {
                const Vec3 p = corner + u * (double(i) / nu) + v * (double(j) / nv);
                const Vec3 du = u * (1.0 / nu), dv = v * (1.0 / nv);
                addFace(zone, glob, {p, p + du, p + du + dv, p + dv});
            }
    }

    // Geometry, glob table, glob points and the tree, in the driver's order.
    void finish() {
        computeFaceGeometry(faces);
        globs = std::make_unique<GlobTable>(globCount_, faces);
        placeGlobCentroids(*globs);
        view.nodes = &nodes;
        view.faces = &faces;
        tree = std::make_unique<TraversalTree>(std::move(*quietTree(view)));
    }

    int32_t globCount() const { return globCount_; }

    // The row of glob as a dense vector (0 where untouched).
    std::vector<double> row(int32_t glob, const Hemisphere& hemisphere) const {
        SparseRowVector sparse;
        sparse.resize(globCount_);
        computeViewFactorRow(glob, faces.dimension, hemisphere, faces, *globs, zones, *tree,
                             sparse);
        touched_ = sparse.np;
        std::vector<double> dense(globCount_, 0.0);
        for (int k = 0; k < sparse.np; ++k)
            dense[sparse.columnAt(k)] = sparse.valueAt(sparse.columnAt(k));
        return dense;
    }
    // Number of touched columns of the last row computed.
    int touchedColumns() const { return touched_; }

    NodeArray nodes;
    FaceSet faces;
    ZoneTable zones;
    std::unique_ptr<GlobTable> globs;
    MeshView view;
    std::unique_ptr<TraversalTree> tree;  // the flat copy the runs trace

private:
    int32_t globCount_ = 0;
    mutable int touched_ = 0;
};

// Saves the calling thread's generator state and restores it on scope exit, so
// tests that set it do not depend on the order in which tests run.
class RandomStateGuard {
public:
    RandomStateGuard() : saved_(threadRandomState()) {}
    ~RandomStateGuard() { setThreadRandomState(saved_); }
    RandomStateGuard(const RandomStateGuard&) = delete;
    RandomStateGuard& operator=(const RandomStateGuard&) = delete;

private:
    uint32_t saved_;
};

inline double sum(const std::vector<double>& row) {
    double s = 0;
    for (double v : row) s += v;
    return s;
}

// Vertices of the regular n-gon of circumradius r about centre, vertex k at angle
// phase + 2 pi k / n (counter-clockwise).
inline std::vector<Vec3> regularPolygon(int n, double r, const Vec3& centre, double phase = 0) {
    std::vector<Vec3> v;
    for (int k = 0; k < n; ++k) {
        const double angle = phase + 2 * std::numbers::pi * k / n;
        v.push_back(centre + Vec3(r * std::cos(angle), r * std::sin(angle), 0));
    }
    return v;
}

}  // namespace hemiray::models
