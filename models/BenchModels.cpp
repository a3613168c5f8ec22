// Builders of the benchmark models. Faces are appended the way the mesh readers
// append them (one wall zone, faceId = position), then every face becomes its own
// glob and the pre-tracing geometry is computed.
#include "models/BenchModels.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <tuple>

#include "geometry/GlobCentroids.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray::bench {

namespace {

class Builder {
public:
    explicit Builder(BenchModel& model) : model_(model) {}

    int32_t node(const Vec3& p) {
        model_.nodes.push_back(p);
        return static_cast<int32_t>(model_.nodes.size()) - 1;
    }

    void face(std::initializer_list<int32_t> nodes) {
        FaceSet& faces = model_.faces;
        faces.faceId.push_back(faces.faceCount());
        for (int32_t n : nodes) faces.faceNodes.push_back(n);
        addFace(faces, 1, 0);
    }

    // An nu x nv grid of quads over o + [0,1]u + [0,1]v with area vectors along u x v.
    void quadGrid(const Vec3& o, const Vec3& u, const Vec3& v, int nu, int nv) {
        std::vector<int32_t> grid(static_cast<size_t>((nu + 1) * (nv + 1)));
        for (int i = 0; i <= nu; ++i)
            for (int j = 0; j <= nv; ++j)
                grid[static_cast<size_t>(i * (nv + 1) + j)] =
                    node(o + u * (double(i) / nu) + v * (double(j) / nv));
        const auto at = [&](int i, int j) { return grid[static_cast<size_t>(i * (nv + 1) + j)]; };
        for (int i = 0; i < nu; ++i)
            for (int j = 0; j < nv; ++j)
                face({at(i, j), at(i + 1, j), at(i + 1, j + 1), at(i, j + 1)});
    }

    // The walls of the box [lo, hi], subdivided at about `spacing`; area vectors
    // point into the box when `inward`, else out of it.
    void box(const Vec3& lo, const Vec3& hi, double spacing, bool inward) {
        const Vec3 size = hi - lo;
        const auto cells = [&](double length) {
            return std::max(1, static_cast<int>(std::lround(length / spacing)));
        };
        for (int a = 0; a < 3; ++a) {
            const int b = (a + 1) % 3;
            const int c = (a + 2) % 3;
            Vec3 u, v;
            u[b] = size[b];
            v[c] = size[c];
            for (const bool upper : {false, true}) {
                Vec3 o = lo;
                if (upper) o[a] = hi[a];
                // u x v points along +a, into the box from its lower wall.
                if (upper == inward)
                    quadGrid(o, v, u, cells(size[c]), cells(size[b]));
                else
                    quadGrid(o, u, v, cells(size[b]), cells(size[c]));
            }
        }
    }

    // A polyline through the points; planar area vectors point to the right of the
    // walking direction.
    void polyline(const std::vector<Vec3>& points, bool closed) {
        std::vector<int32_t> ids;
        for (const Vec3& p : points) ids.push_back(node(p));
        const size_t count = closed ? ids.size() : ids.size() - 1;
        for (size_t k = 0; k < count; ++k) face({ids[k], ids[(k + 1) % ids.size()]});
    }

private:
    BenchModel& model_;
};

void sphere(Builder& b, int64_t faceCount) {
    // 6 n^2 cells of two triangles.
    const int n = std::max(1, static_cast<int>(std::lround(std::sqrt(faceCount / 12.0))));
    const Vec3 corners[6][3] = {
        {{-1, -1, -1}, {0, 2, 0}, {0, 0, 2}}, {{1, -1, -1}, {0, 0, 2}, {0, 2, 0}},
        {{-1, -1, -1}, {0, 0, 2}, {2, 0, 0}}, {{-1, 1, -1}, {2, 0, 0}, {0, 0, 2}},
        {{-1, -1, -1}, {2, 0, 0}, {0, 2, 0}}, {{-1, -1, 1}, {0, 2, 0}, {2, 0, 0}},
    };
    // Cube lattice points are shared between the walls, so the sphere is closed.
    std::map<std::tuple<int, int, int>, int32_t> shared;
    for (const auto& c : corners) {
        const auto point = [&](int i, int j) {
            const Vec3 p = c[0] + c[1] * (double(i) / n) + c[2] * (double(j) / n);
            const auto key = std::make_tuple(static_cast<int>(std::lround((p[0] + 1) * n)),
                                             static_cast<int>(std::lround((p[1] + 1) * n)),
                                             static_cast<int>(std::lround((p[2] + 1) * n)));
            const auto found = shared.find(key);
            if (found != shared.end()) return found->second;
            const int32_t id = b.node(p * (1.0 / norm(p)));
            shared.emplace(key, id);
            return id;
        };
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                const int32_t p00 = point(i, j), p10 = point(i + 1, j);
                const int32_t p11 = point(i + 1, j + 1), p01 = point(i, j + 1);
                // In this order the area vectors point into the sphere.
                b.face({p00, p10, p11});
                b.face({p00, p11, p01});
            }
    }
}

void room(Builder& b, int64_t faceCount) {
    const Vec3 roomSize(4, 3, 2.5);
    const Vec3 obstacle(0.6, 0.6, 0.8);
    const Vec3 obstacleAt[4] = {{0.6, 0.5, 0.2}, {2.6, 0.7, 0.4}, {1.2, 1.9, 0.9}, {2.8, 1.8, 1.4}};
    const double area =
        2 * (roomSize[0] * roomSize[1] + roomSize[0] * roomSize[2] + roomSize[1] * roomSize[2]) +
        4 * 2 * (obstacle[0] * obstacle[1] + obstacle[0] * obstacle[2] + obstacle[1] * obstacle[2]);
    const double spacing = std::sqrt(area / static_cast<double>(faceCount));
    b.box({0, 0, 0}, roomSize, spacing, true);
    for (const Vec3& at : obstacleAt) b.box(at, at + obstacle, spacing, false);
}

std::vector<Vec3> circle(double radius, int segments, bool clockwise) {
    std::vector<Vec3> points;
    for (int k = 0; k < segments; ++k) {
        const double angle = 2 * std::numbers::pi * k / segments * (clockwise ? -1 : 1);
        points.emplace_back(radius * std::cos(angle), radius * std::sin(angle), 0);
    }
    return points;
}

void ring(Builder& b, int64_t faceCount) {
    // Segments in proportion to the circumferences; the outer circle walked
    // clockwise faces inwards, the inner one counter-clockwise faces outwards.
    const int outer = std::max(3, static_cast<int>(std::lround(faceCount * 2.0 / 3.0)));
    const int inner = std::max(3, static_cast<int>(faceCount) - outer);
    b.polyline(circle(2, outer, true), true);
    b.polyline(circle(1, inner, false), true);
}

void ringAxisymmetric(Builder& b, int64_t faceCount) {
    // The (x, r) rectangle [0, 2] x [1, 2] walked clockwise: every area vector
    // points into the duct. Segments in proportion to the side lengths.
    const double spacing = 6.0 / static_cast<double>(faceCount);
    const Vec3 corners[4] = {{0, 1, 0}, {0, 2, 0}, {2, 2, 0}, {2, 1, 0}};
    std::vector<Vec3> points;
    for (int side = 0; side < 4; ++side) {
        const Vec3& p = corners[side];
        const Vec3& q = corners[(side + 1) % 4];
        const int steps = std::max(1, static_cast<int>(std::lround(norm(q - p) / spacing)));
        for (int k = 0; k < steps; ++k) points.push_back(p + (q - p) * (double(k) / steps));
    }
    b.polyline(points, true);
}

}  // namespace

const std::vector<std::string>& benchModelNames() {
    static const std::vector<std::string> names = {"sphere", "room", "ring", "ring-axi"};
    return names;
}

std::unique_ptr<BenchModel> makeBenchModel(const std::string& name, int64_t faceCount) {
    auto model = std::make_unique<BenchModel>();
    model->name = name;
    model->dimension = name == "ring" ? 2 : name == "ring-axi" ? 1 : 3;
    model->faces = FaceSet(model->dimension, model->nodes);
    Builder b(*model);
    if (name == "sphere")
        sphere(b, faceCount);
    else if (name == "room")
        room(b, faceCount);
    else if (name == "ring")
        ring(b, faceCount);
    else if (name == "ring-axi")
        ringAxisymmetric(b, faceCount);
    else
        return nullptr;

    FaceSet& faces = model->faces;
    const int32_t count = faces.faceCount();
    addZone(model->zones, 1, 1, count, 1, model->dimension == 3 ? 0 : 2);
    for (int32_t f = 0; f < count; ++f) faces.faceGlob[static_cast<size_t>(f)] = f;
    model->globs = std::make_unique<GlobTable>(count, faces);
    computeFaceGeometry(faces);
    placeGlobCentroids(*model->globs);
    return model;
}

std::vector<BenchRay> hemisphereRays(const BenchModel& model, const Hemisphere& hemisphere,
                                     int64_t count) {
    std::vector<BenchRay> rays;
    const int32_t faceCount = model.faces.faceCount();
    if (hemisphere.size_ == 0 || faceCount == 0) return rays;
    const int64_t faces = std::clamp<int64_t>(count / hemisphere.size_, 1, faceCount);
    setThreadRandomState(1);
    for (int64_t k = 0; k < faces; ++k) {
        const auto f = static_cast<size_t>((2 * k + 1) * faceCount / (2 * faces));
        const Vec3& areaVector = model.faces.faceNormal[f];
        const double area = norm(areaVector);
        const Vec3 n(areaVector[0] / area, areaVector[1] / area, areaVector[2] / area);
        Vec3 t1, t2;
        buildTangentFrame(model.dimension, n, t1, t2);
        for (int d = 0; d < hemisphere.size_; ++d)
            rays.push_back(
                {model.faces.faceCentroid[f],
                 t1 * hemisphere.dirX(d) + t2 * hemisphere.dirY(d) + n * hemisphere.dirZ(d),
                 static_cast<int32_t>(f)});
    }
    return rays;
}

std::unique_ptr<Model> runModelOf(const BenchModel& bench, int32_t resolution) {
    const SizeSection sizes{0, 0, bench.zones.zoneCount(), bench.globs->globCount(),
                            bench.dimension};
    auto model = std::make_unique<Model>(sizes, nodeCoordinateCount(bench.dimension));
    model->parameters.hemisphereResolution = resolution;
    model->nodes = bench.nodes;
    model->zones = bench.zones;
    for (FaceSet* faces : {&model->allFaces, &model->participatingFaces}) {
        *faces = bench.faces;
        faces->nodes = &model->nodes;
    }
    return model;
}

}  // namespace hemiray::bench
