// Geometry of the example models. Each builder emits the faces of one kind of
// enclosure; the variants reuse them and cut them with a mirror or periodic zone.
#include "models/ExampleModels.h"

#include <cmath>
#include <numbers>

namespace hemiray::models {

namespace {

using Point = std::array<double, 3>;

Point at(const Point& o, const Point& u, const Point& v, double a, double b) {
    return {o[0] + a * u[0] + b * v[0], o[1] + a * u[1] + b * v[1], o[2] + a * u[2] + b * v[2]};
}

class Builder {
public:
    explicit Builder(Model& model) : model_(model) {}

    ModelZone& zone(int32_t type, int32_t elementType) {
        ModelZone z;
        z.id = static_cast<int32_t>(model_.zones.size()) + 1;
        z.type = type;
        z.elementType = elementType;
        model_.zones.push_back(z);
        return model_.zones.back();
    }

    // An nu x nv grid of quads over the parallelogram o + [0,1]u + [0,1]v; the
    // normals point along u x v. Each quad becomes a glob unless `glob` is given.
    void quadGrid(ModelZone& z, const Point& o, const Point& u, const Point& v, int nu, int nv,
                  bool ownGlobs = true) {
        for (int i = 0; i < nu; ++i)
            for (int j = 0; j < nv; ++j) {
                const double a0 = double(i) / nu, a1 = double(i + 1) / nu;
                const double b0 = double(j) / nv, b1 = double(j + 1) / nv;
                face(z,
                     {at(o, u, v, a0, b0), at(o, u, v, a1, b0), at(o, u, v, a1, b1),
                      at(o, u, v, a0, b1)},
                     ownGlobs);
            }
    }

    // A polyline split into n segments per edge; planar normals point to the right
    // of the walking direction.
    void polyline(ModelZone& z, const std::vector<Point>& corners, int n, bool closed) {
        const size_t edges = closed ? corners.size() : corners.size() - 1;
        for (size_t e = 0; e < edges; ++e) {
            const Point& p = corners[e];
            const Point& q = corners[(e + 1) % corners.size()];
            const Point d{q[0] - p[0], q[1] - p[1], q[2] - p[2]};
            for (int k = 0; k < n; ++k)
                face(z, {at(p, d, {}, double(k) / n, 0), at(p, d, {}, double(k + 1) / n, 0)});
        }
    }

    void face(ModelZone& z, const std::vector<Point>& corners, bool ownGlob = true) {
        std::vector<int32_t> nodes;
        for (const auto& c : corners) nodes.push_back(model_.addNode(c[0], c[1], c[2]));
        z.faces.push_back(nodes);
        const bool steers = z.type == 2007 || z.type == 2008 || z.type == 2012;
        z.globs.push_back(steers || !ownGlob ? -1 : nextGlob_++);
    }

private:
    Model& model_;
    int32_t nextGlob_ = 0;
};

// Two unit squares facing each other at distance 1.
void plates(Builder& b, int n, double width) {
    b.quadGrid(b.zone(1, 4), {0, 0, 0}, {width, 0, 0}, {0, 1, 0}, n, n);
    b.quadGrid(b.zone(1, 4), {0, 0, 1}, {0, 1, 0}, {width, 0, 0}, n, n);
}

// An axis-aligned box [lo, hi] with normals pointing inwards (inside = true) or
// outwards. Faces: -x, +x, -y, +y, -z, +z; `skipPlusX` leaves the +x wall out.
void box(Builder& b, const Point& lo, const Point& hi, int n, bool inside, bool skipPlusX = false) {
    const double dx = hi[0] - lo[0], dy = hi[1] - lo[1], dz = hi[2] - lo[2];
    struct Wall {
        Point o, u, v;
    };
    // Each wall listed with u x v pointing inwards.
    const Wall walls[6] = {
        {lo, {0, dy, 0}, {0, 0, dz}},                     // x = lo, +x
        {{hi[0], lo[1], lo[2]}, {0, 0, dz}, {0, dy, 0}},  // x = hi, -x
        {lo, {0, 0, dz}, {dx, 0, 0}},                     // y = lo, +y
        {{lo[0], hi[1], lo[2]}, {dx, 0, 0}, {0, 0, dz}},  // y = hi, -y
        {lo, {dx, 0, 0}, {0, dy, 0}},                     // z = lo, +z
        {{lo[0], lo[1], hi[2]}, {0, dy, 0}, {dx, 0, 0}},  // z = hi, -z
    };
    for (int w = 0; w < 6; ++w) {
        if (skipPlusX && w == 1) continue;
        const Wall& wall = walls[w];
        if (inside)
            b.quadGrid(b.zone(1, 4), wall.o, wall.u, wall.v, n, n);
        else
            b.quadGrid(b.zone(1, 4), wall.o, wall.v, wall.u, n, n);
    }
}

// A room 4 x 3 x 2.5 with a floating box obstacle in its middle, symmetric about x = 2.
void room(Builder& b, int n, bool half) {
    const double xMax = half ? 2.0 : 4.0;
    box(b, {0, 0, 0}, {xMax, 3, 2.5}, n, true, half);
    if (half) {
        box(b, {1.5, 1, 0.5}, {2.0, 2, 1.2}, n, false, true);
        // The mirror closes the room at x = 2, facing -x, cutting the obstacle too.
        ModelZone& mirror = b.zone(2007, 4);
        b.quadGrid(mirror, {2, 0, 0}, {0, 0, 2.5}, {0, 3, 0}, n, n);
    } else {
        box(b, {1.5, 1, 0.5}, {2.5, 2, 1.2}, n, false);
    }
}

// The inside of a sphere of radius 1 from a cube's faces projected outwards and
// split into triangles, normals inwards.
void sphere(Builder& b, int n) {
    ModelZone& z = b.zone(1, 3);
    const Point corners[6][3] = {
        {{-1, -1, -1}, {0, 2, 0}, {0, 0, 2}}, {{1, -1, -1}, {0, 0, 2}, {0, 2, 0}},
        {{-1, -1, -1}, {0, 0, 2}, {2, 0, 0}}, {{-1, 1, -1}, {2, 0, 0}, {0, 0, 2}},
        {{-1, -1, -1}, {2, 0, 0}, {0, 2, 0}}, {{-1, -1, 1}, {0, 2, 0}, {2, 0, 0}},
    };
    auto project = [](Point p) {
        const double r = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
        return Point{p[0] / r, p[1] / r, p[2] / r};
    };
    for (const auto& c : corners)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                const double a0 = double(i) / n, a1 = double(i + 1) / n;
                const double b0 = double(j) / n, b1 = double(j + 1) / n;
                const Point p00 = project(at(c[0], c[1], c[2], a0, b0));
                const Point p10 = project(at(c[0], c[1], c[2], a1, b0));
                const Point p11 = project(at(c[0], c[1], c[2], a1, b1));
                const Point p01 = project(at(c[0], c[1], c[2], a0, b1));
                b.face(z, {p00, p10, p11});
                b.face(z, {p00, p11, p01});
            }
}

// Closed cylinder of radius 1 and length 2 about the x axis, in the (x, r) plane:
// the end disk at x = 0, the mantle, the end disk at x = 2.
void cylinder(Builder& b, int n) {
    b.polyline(b.zone(1, 2), {{0, 0, 0}, {0, 1, 0}}, n, false);
    b.polyline(b.zone(1, 2), {{0, 1, 0}, {2, 1, 0}}, 2 * n, false);
    b.polyline(b.zone(1, 2), {{2, 1, 0}, {2, 0, 0}}, n, false);
}

// A 4 x 3 planar room walked clockwise (normals inwards) around a square pillar
// walked counter-clockwise (normals outwards).
void polygon(Builder& b, int n) {
    b.polyline(b.zone(1, 2), {{0, 0, 0}, {0, 3, 0}, {4, 3, 0}, {4, 0, 0}}, n, true);
    b.polyline(b.zone(1, 2), {{1.5, 1, 0}, {2.5, 1, 0}, {2.5, 2, 0}, {1.5, 2, 0}}, n, true);
}

// A planar ring between radii 1 and 2 split into `sectors` equal sectors; with
// `periodic` only the first sector is built and closed by a rotational pair.
void ring(Builder& b, Model& model, int n, bool periodic) {
    constexpr int sectors = 6;
    const int segments = periodic ? n : n * sectors;
    const double span = periodic ? 2 * std::numbers::pi / sectors : 2 * std::numbers::pi;
    auto onCircle = [](double r, double a) { return Point{r * std::cos(a), r * std::sin(a), 0}; };
    std::vector<Point> outer, inner;
    for (int k = 0; k <= segments; ++k) {
        outer.push_back(onCircle(2, span * k / segments));
        inner.push_back(onCircle(1, span * (segments - k) / segments));
    }
    if (!periodic) {
        outer.pop_back();
        inner.pop_back();
    }
    // Outer wall walked clockwise (normals inwards), inner wall counter-clockwise.
    std::vector<Point> outerCw(outer.rbegin(), outer.rend());
    std::vector<Point> innerCcw(inner.rbegin(), inner.rend());
    b.polyline(b.zone(1, 2), outerCw, 1, !periodic);
    b.polyline(b.zone(1, 2), innerCcw, 1, !periodic);
    if (!periodic) return;
    // Sector edges: at angle 0 walking outwards the normal points to -y, out of the
    // sector, so walk inwards; at the far edge walk outwards.
    ModelZone& far = b.zone(2012, 2);
    b.polyline(far, {onCircle(1, span), onCircle(2, span)}, n, false);
    ModelZone& near = b.zone(2008, 2);
    b.polyline(near, {onCircle(2, 0), onCircle(1, 0)}, n, false);
    // A ray reaching the far edge continues from the near edge: rotate by -span.
    ModelPeriodic pair;
    pair.zoneId = far.id;
    pair.shadowZoneId = near.id;
    pair.type = 1;
    pair.angle = -span;
    pair.axisDirection = {0, 0, 1};
    model.periodic.push_back(pair);
}

// Parallel plates repeated endlessly in x by a translational pair at x = 0 and 1.
void platesPeriodic(Builder& b, Model& model, int n) {
    plates(b, n, 1.0);
    ModelZone& far = b.zone(2012, 4);
    b.quadGrid(far, {1, 0, 0}, {0, 0, 1}, {0, 1, 0}, 1, n);
    ModelZone& near = b.zone(2008, 4);
    b.quadGrid(near, {0, 0, 0}, {0, 1, 0}, {0, 0, 1}, n, 1);
    ModelPeriodic pair;
    pair.zoneId = far.id;
    pair.shadowZoneId = near.id;
    pair.shift = {-1, 0, 0};
    model.periodic.push_back(pair);
}

}  // namespace

const std::vector<ExampleCase>& exampleCases() {
    static const std::vector<ExampleCase> cases = {
        {"plates", "3D: two parallel unit squares at distance 1"},
        {"plates-mirror", "3D: the plates halved at x = 0.5 by a mirror plane"},
        {"plates-periodic", "3D: the plates repeated endlessly in x by a translational pair"},
        {"room", "3D: a closed 4 x 3 x 2.5 room with a box obstacle"},
        {"room-mirror", "3D: the room halved at x = 2 by a mirror plane"},
        {"room-empty", "3D: the room without its obstacle"},
        {"sphere", "3D: the inside of a unit sphere (triangles)"},
        {"cube", "3D: the inside of a unit cube"},
        {"cylinder", "axisymmetric: a closed cylinder of radius 1 and length 2 with its end disks"},
        {"polygon", "planar: a 4 x 3 room around a square pillar"},
        {"ring", "planar: the closed ring between radii 1 and 2"},
        {"ring-periodic", "planar: one sixth of the ring closed by a rotational periodic pair"},
    };
    return cases;
}

bool makeExample(const std::string& name, int n, int resolution, Model& model) {
    if (n < 1) return false;
    model = Model{};
    model.resolution = resolution;
    Builder b(model);
    if (name == "plates")
        plates(b, n, 1.0);
    else if (name == "plates-mirror") {
        plates(b, n, 0.5);
        b.quadGrid(b.zone(2007, 4), {0.5, 0, 0}, {0, 0, 1}, {0, 1, 0}, 1, n);
    } else if (name == "plates-periodic")
        platesPeriodic(b, model, n);
    else if (name == "room")
        room(b, n, false);
    else if (name == "room-mirror")
        room(b, n, true);
    else if (name == "room-empty")
        box(b, {0, 0, 0}, {4, 3, 2.5}, n, true);
    else if (name == "sphere")
        sphere(b, n);
    else if (name == "cube")
        box(b, {0, 0, 0}, {1, 1, 1}, n, true);
    else if (name == "cylinder") {
        model.dimension = 1;
        cylinder(b, n);
    } else if (name == "polygon") {
        model.dimension = 2;
        polygon(b, n);
    } else if (name == "ring") {
        model.dimension = 2;
        ring(b, model, n, false);
    } else if (name == "ring-periodic") {
        model.dimension = 2;
        ring(b, model, n, true);
    } else
        return false;
    return true;
}

}  // namespace hemiray::models
