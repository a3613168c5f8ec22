// Closed random test meshes for the three modes, with their face geometry computed,
// and random rays that start on a face (into the half-space it faces) or inside the
// enclosed volume. Shared by the tests and the benchmarks; header-only so that each
// just includes it.
//   3D: a box enclosure (inward area vectors) around an obstacle (outward area
//       vectors), either triangulated with every node jittered, or of planar quads
//       jittered inside their walls and around a randomly rotated box.
//   planar: a star-shaped outer ring (inward) around a star-shaped inner polygon.
//   axisymmetric: a vessel profile with a flat head at x = 0, a wavy wall, an
//       ellipsoidal head and three free-standing baffles (two annuli, one cone).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "geometry/FaceGeometry.h"
#include "input/MeshModel.h"

namespace hemiray::meshes {

using Rng = std::mt19937_64;

inline double uniform(Rng& rng, double lo, double hi) {
    return std::uniform_real_distribution<double>(lo, hi)(rng);
}

enum class Kind { Axisymmetric, Planar, Triangles, Quads };

inline int32_t dimensionOf(Kind kind) {
    return kind == Kind::Axisymmetric ? 1 : kind == Kind::Planar ? 2 : 3;
}

inline std::string nameOf(Kind kind) {
    static const char* const names[] = {"Axisymmetric", "Planar", "Triangles", "Quads"};
    return names[static_cast<int>(kind)];
}

// A face set over its own node array. Not copyable: the face set points at the nodes.
struct Mesh {
    Kind kind;
    NodeArray nodes;
    FaceSet faces;

    // Where inside points are drawn: 3D a box minus a ball; planar and axisymmetric
    // an annulus (unscaled planar frame) or a cylinder of radius innerRadius.
    Vec3 interiorMin;
    Vec3 interiorMax;
    Vec3 obstacleCenter;
    double obstacleRadius = 0;
    double innerRadius = 0;
    double outerRadius = 0;
    double xScale = 1;

    explicit Mesh(Kind k) : kind(k), faces(dimensionOf(k), nodes) {}
    Mesh(const Mesh&) = delete;
    Mesh& operator=(const Mesh&) = delete;

    int32_t addNode(const Vec3& p) {
        nodes.push_back(p);
        return static_cast<int32_t>(nodes.size()) - 1;
    }
    // A wall face of zone 0; faceId is its own position as in allFaces.
    void addFace(std::initializer_list<int32_t> faceNodes, int32_t zoneType = 1) {
        faces.faceId.push_back(faces.faceCount());
        for (int32_t n : faceNodes) faces.faceNodes.push_back(n);
        hemiray::addFace(faces, zoneType, 0);
    }
};

namespace detail {

struct Rotation {
    double m[3][3];
    Vec3 apply(const Vec3& p) const {
        return {m[0][0] * p[0] + m[0][1] * p[1] + m[0][2] * p[2],
                m[1][0] * p[0] + m[1][1] * p[1] + m[1][2] * p[2],
                m[2][0] * p[0] + m[2][1] * p[1] + m[2][2] * p[2]};
    }
};

// Random rotation from a random unit quaternion.
inline Rotation randomRotation(Rng& rng) {
    std::normal_distribution<double> gauss;
    double q[4];
    double len = 0;
    for (double& c : q) {
        c = gauss(rng);
        len += c * c;
    }
    len = std::sqrt(len);
    const double w = q[0] / len, x = q[1] / len, y = q[2] / len, z = q[3] / len;
    return {{{1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)},
             {2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)},
             {2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)}}};
}

// The surface of the lattice cube 0..res in each axis; position() maps lattice
// points to space, once per point, so the walls share their edge nodes and the
// surface is closed. Area vectors point out of the cube unless inward is set.
template <typename Position>
void addCubeSurface(Mesh& mesh, int res, bool inward, bool triangles, Position position) {
    const int side = res + 1;
    std::vector<int32_t> index(static_cast<size_t>(side) * side * side, -1);
    const auto node = [&](int c0, int c1, int c2) {
        int32_t& slot = index[(static_cast<size_t>(c0) * side + c1) * side + c2];
        if (slot < 0) slot = mesh.addNode(position(c0, c1, c2));
        return slot;
    };
    for (int a = 0; a < 3; ++a) {
        const int u = (a + 1) % 3;
        const int v = (a + 2) % 3;
        for (int wall : {0, res}) {
            // (e_u, e_v, e_a) is right-handed, so u-then-v order faces +a.
            const bool reverse = (wall == 0) != inward;
            for (int i = 0; i < res; ++i) {
                for (int j = 0; j < res; ++j) {
                    int32_t q[4];
                    const int du[4] = {0, 1, 1, 0};
                    const int dv[4] = {0, 0, 1, 1};
                    for (int k = 0; k < 4; ++k) {
                        int c[3];
                        c[a] = wall;
                        c[u] = i + du[k];
                        c[v] = j + dv[k];
                        q[k] = node(c[0], c[1], c[2]);
                    }
                    if (reverse) std::swap(q[1], q[3]);
                    if (!triangles) {
                        mesh.addFace({q[0], q[1], q[2], q[3]});
                    } else if ((i + j) % 2 == 0) {
                        mesh.addFace({q[0], q[1], q[2]});
                        mesh.addFace({q[0], q[2], q[3]});
                    } else {
                        mesh.addFace({q[0], q[1], q[3]});
                        mesh.addFace({q[1], q[2], q[3]});
                    }
                }
            }
        }
    }
}

}  // namespace detail

// 3D enclosure of (2 x 1.3 x 1) around an obstacle; 6 res^2 walls cells outside and
// 6 innerRes^2 inside (each cell one quad or two triangles).
inline std::unique_ptr<Mesh> enclosure(Kind kind, int res, int innerRes, uint64_t stream) {
    auto mesh = std::make_unique<Mesh>(kind);
    Rng rng(stream);
    const bool triangles = kind == Kind::Triangles;
    const Vec3 scale(2.0, 1.3, 1.0);
    const Vec3 offset(-0.7, 0.2, -0.45);
    const double jitter = 0.25 / res;
    detail::addCubeSurface(*mesh, res, true, triangles, [&](int i, int j, int k) {
        const int c[3] = {i, j, k};
        Vec3 p;
        for (int d = 0; d < 3; ++d) {
            p[d] = static_cast<double>(c[d]) / res;
            // Quads stay planar: a coordinate on a wall (0 or res) is never moved.
            if (triangles || (c[d] > 0 && c[d] < res)) p[d] += uniform(rng, -jitter, jitter);
            p[d] = offset[d] + scale[d] * p[d];
        }
        return p;
    });

    mesh->obstacleCenter = offset + Vec3(1.0, 0.65, 0.5);
    const detail::Rotation rotation = detail::randomRotation(rng);
    const double size = 0.36;
    detail::addCubeSurface(*mesh, innerRes, false, triangles, [&](int i, int j, int k) {
        Vec3 p(static_cast<double>(i) / innerRes - 0.5, static_cast<double>(j) / innerRes - 0.5,
               static_cast<double>(k) / innerRes - 0.5);
        // Triangles: the cube blown up to a ball; quads: a rotated box.
        p = triangles ? p * (0.5 * size / norm(p)) : rotation.apply(p * size);
        return mesh->obstacleCenter + p;
    });
    mesh->obstacleRadius = 0.5 * size * std::sqrt(3.0) + 1e-3;
    const double margin = 0.05;
    mesh->interiorMin = offset + Vec3(margin, margin, margin);
    mesh->interiorMax = offset + scale - Vec3(margin, margin, margin);
    computeFaceGeometry(mesh->faces);
    return mesh;
}

// Planar: a star-shaped outer ring of `outer` segments around an inner polygon of
// `inner` segments, stretched by 1.6 in x.
inline std::unique_ptr<Mesh> ring(int outer, int inner, uint64_t stream) {
    auto mesh = std::make_unique<Mesh>(Kind::Planar);
    Rng rng(stream);
    const Vec3 center(0.3, -0.2, 0.0);
    mesh->xScale = 1.6;
    // The radius wobbles smoothly with the angle, plus a jitter of a fraction of a
    // segment so that no two meshes share a node; the outline stays star-shaped.
    const auto polygon = [&](int count, double radius, double wobble, bool clockwise) {
        const int32_t first = static_cast<int32_t>(mesh->nodes.size());
        const double phase0 = uniform(rng, 0, 2 * std::numbers::pi);
        const double phase1 = uniform(rng, 0, 2 * std::numbers::pi);
        const double jitter = std::min(0.02, 0.2 * 2 * std::numbers::pi / count);
        for (int i = 0; i < count; ++i) {
            const int step = clockwise ? count - i : i;
            const double angle = 2 * std::numbers::pi * (step + uniform(rng, -0.3, 0.3)) / count;
            const double smooth =
                0.6 * std::sin(3 * angle + phase0) + 0.4 * std::sin(7 * angle + phase1);
            const double r = radius * (1 + wobble * smooth + uniform(rng, -jitter, jitter));
            mesh->addNode(center +
                          Vec3(mesh->xScale * r * std::cos(angle), r * std::sin(angle), 0));
        }
        for (int i = 0; i < count; ++i) mesh->addFace({first + i, first + (i + 1) % count});
    };
    // Counter-clockwise order puts the area vector outside: the outer ring runs
    // clockwise to face inwards, the inner polygon counter-clockwise to face out.
    polygon(outer, 1.0, 0.12, true);
    polygon(inner, 0.3, 0.15, false);
    mesh->obstacleCenter = center;
    mesh->innerRadius = 0.4;
    mesh->outerRadius = 0.8;
    computeFaceGeometry(mesh->faces);
    return mesh;
}

// Axisymmetric vessel from x = 0 to x = 3 + head; `wall` wall segments, `head`
// segments in each head. The wall radius varies gently so that every wall segment is
// shallow; the ellipsoidal head bulges outwards.
inline std::unique_ptr<Mesh> vessel(int wall, int head, uint64_t stream) {
    auto mesh = std::make_unique<Mesh>(Kind::Axisymmetric);
    Rng rng(stream);
    const double length = 3.0;
    const double headDepth = 0.6;
    const double phase0 = uniform(rng, 0, 2 * std::numbers::pi);
    const double phase1 = uniform(rng, 0, 2 * std::numbers::pi);
    const auto radius = [&](double x) {
        const double s = 2 * std::numbers::pi * x / length;
        return 1.0 + 0.08 * std::sin(1.5 * s + phase0) + 0.04 * std::sin(3.5 * s + phase1);
    };
    // Profile from the axis up the flat head, along the wall and down the curved
    // head: this order makes every area vector point into the vessel.
    std::vector<int32_t> profile;
    for (int k = 0; k <= head; ++k) {
        const double f = (k + (k > 0 && k < head ? uniform(rng, -0.3, 0.3) : 0.0)) / head;
        profile.push_back(mesh->addNode(Vec3(0.0, radius(0.0) * f, 0.0)));
    }
    for (int i = 1; i <= wall; ++i) {
        const double x = length * (i + (i < wall ? uniform(rng, -0.3, 0.3) : 0.0)) / wall;
        profile.push_back(mesh->addNode(Vec3(x, radius(x), 0.0)));
    }
    for (int k = 1; k <= head; ++k) {
        const double alpha = 0.5 * std::numbers::pi * k / head;
        profile.push_back(mesh->addNode(
            Vec3(length + headDepth * std::sin(alpha), radius(length) * std::cos(alpha), 0.0)));
    }
    for (size_t i = 0; i + 1 < profile.size(); ++i) mesh->addFace({profile[i], profile[i + 1]});

    // Baffles: two annuli (hit from either side) and a shallow cone.
    const auto segment = [&](Vec3 a, Vec3 b) {
        const int32_t first = mesh->addNode(a);
        mesh->addNode(b);
        mesh->addFace({first, first + 1});
    };
    segment(Vec3(0.8, 0.35, 0), Vec3(0.8, 0.6, 0));
    segment(Vec3(2.2, 0.55, 0), Vec3(2.2, 0.25, 0));
    segment(Vec3(1.3, 0.2, 0), Vec3(1.7, 0.45, 0));

    mesh->innerRadius = 0.75;  // below the smallest wall radius (0.88)
    mesh->interiorMin = Vec3(0.05, 0, 0);
    mesh->interiorMax = Vec3(length - 0.05, 0, 0);
    computeFaceGeometry(mesh->faces);
    return mesh;
}

// A mesh of each kind with about `faces` faces.
inline std::unique_ptr<Mesh> withFaceCount(Kind kind, int faces, uint64_t stream) {
    switch (kind) {
        case Kind::Axisymmetric: {
            const int head = std::max(2, faces / 20);
            return vessel(std::max(4, faces - 2 * head - 3), head, stream);
        }
        case Kind::Planar: {
            const int inner = std::max(3, faces / 5);
            return ring(std::max(8, faces - inner), inner, stream);
        }
        case Kind::Triangles:
        case Kind::Quads: {
            // Outer and inner lattice resolution in the ratio 3 : 1.
            const double cells = kind == Kind::Triangles ? faces / 12.0 : faces / 6.0;
            const int res = std::max(2, static_cast<int>(std::lround(std::sqrt(cells * 0.9))));
            const int innerRes = std::max(1, static_cast<int>(std::lround(res / 3.0)));
            return enclosure(kind, res, innerRes, stream);
        }
    }
    return nullptr;
}

struct Ray {
    Vec3 origin;
    Vec3 direction;
};

inline Vec3 randomUnit(Rng& rng, bool planar) {
    std::normal_distribution<double> gauss;
    for (;;) {
        // Drawn in a fixed order (z, y, x), not in the compiler's order of
        // argument evaluation, so that every compiler makes the same rays.
        const double z = planar ? 0.0 : gauss(rng);
        const double y = gauss(rng);
        const double x = gauss(rng);
        const Vec3 d(x, y, z);
        const double len = norm(d);
        if (len > 1e-3) return d * (1.0 / len);
    }
}

// Occasionally zero a direction component, to exercise rays parallel to split planes.
inline Vec3 maybeAxisParallel(Rng& rng, Vec3 d, bool planar) {
    if (uniform(rng, 0, 1) < 0.05) d[static_cast<int>(uniform(rng, 0, planar ? 2 : 3))] = 0.0;
    return d;
}

// A point inside the enclosed volume (away from the obstacle).
inline Vec3 interiorPoint(const Mesh& mesh, Rng& rng) {
    switch (mesh.kind) {
        case Kind::Axisymmetric: {
            const double r = mesh.innerRadius * std::sqrt(uniform(rng, 0, 1));
            const double phi =
                uniform(rng, 0, 1) < 0.25 ? 0.0 : uniform(rng, 0, 2 * std::numbers::pi);
            return {uniform(rng, mesh.interiorMin[0], mesh.interiorMax[0]), r * std::cos(phi),
                    r * std::sin(phi)};
        }
        case Kind::Planar: {
            const double r = uniform(rng, mesh.innerRadius, mesh.outerRadius);
            const double phi = uniform(rng, 0, 2 * std::numbers::pi);
            return mesh.obstacleCenter +
                   Vec3(mesh.xScale * r * std::cos(phi), r * std::sin(phi), 0);
        }
        case Kind::Triangles:
        case Kind::Quads:
            for (;;) {
                Vec3 p;
                for (int d = 0; d < 3; ++d)
                    p[d] = uniform(rng, mesh.interiorMin[d], mesh.interiorMax[d]);
                if (norm(p - mesh.obstacleCenter) > mesh.obstacleRadius) return p;
            }
    }
    return {};
}

// A random point of face f and the area vector there (axisymmetric: turned to a
// random azimuth, a quarter of the time the (x, r) half-plane itself).
inline void pointOnFace(const Mesh& mesh, int32_t f, Rng& rng, Vec3& point, Vec3& normal) {
    const FaceSet& faces = mesh.faces;
    const int32_t begin = faces.faceNodeStart[static_cast<size_t>(f)];
    const int32_t count = faces.faceNodeStart[static_cast<size_t>(f) + 1] - begin;
    const auto node = [&](int32_t k) -> const Vec3& {
        return mesh.nodes[static_cast<size_t>(faces.faceNodes[static_cast<size_t>(begin + k)])];
    };
    normal = faces.faceNormal[static_cast<size_t>(f)];
    if (count == 2) {
        const double s = uniform(rng, 0, 1);
        point = node(0) + (node(1) - node(0)) * s;
        if (mesh.kind == Kind::Axisymmetric) {
            const double phi =
                uniform(rng, 0, 1) < 0.25 ? 0.0 : uniform(rng, 0, 2 * std::numbers::pi);
            const double c = std::cos(phi), sn = std::sin(phi);
            point = Vec3(point[0], point[1] * c, point[1] * sn);
            normal = Vec3(normal[0], normal[1] * c, normal[1] * sn);
        }
        return;
    }
    // A triangle of the fan, then a uniform point in it.
    const int32_t k = 1 + static_cast<int32_t>(uniform(rng, 0, count - 2));
    double a = uniform(rng, 0, 1), b = uniform(rng, 0, 1);
    if (a + b > 1) {
        a = 1 - a;
        b = 1 - b;
    }
    point = node(0) + (node(k) - node(0)) * a + (node(k + 1) - node(0)) * b;
}

// Half the rays start on a random face into the half-space it faces, half at a
// random inside point in a random direction.
inline Ray randomRay(const Mesh& mesh, Rng& rng) {
    const bool planar = mesh.kind == Kind::Planar;
    Ray ray;
    if (uniform(rng, 0, 1) < 0.5) {
        const auto f = static_cast<int32_t>(uniform(rng, 0, mesh.faces.faceCount()));
        Vec3 normal;
        pointOnFace(mesh, f, rng, ray.origin, normal);
        for (;;) {
            Vec3 d = maybeAxisParallel(rng, randomUnit(rng, planar), planar);
            const double facing = dot(d, normal);
            if (facing == 0) continue;
            ray.direction = facing > 0 ? d : -d;
            return ray;
        }
    }
    ray.origin = interiorPoint(mesh, rng);
    for (;;) {
        ray.direction = maybeAxisParallel(rng, randomUnit(rng, planar), planar);
        if (norm(ray.direction) > 0) return ray;
    }
}

inline std::vector<Ray> randomRays(const Mesh& mesh, int count, uint64_t stream) {
    Rng rng(stream);
    std::vector<Ray> rays(static_cast<size_t>(count));
    for (Ray& ray : rays) ray = randomRay(mesh, rng);
    return rays;
}

}  // namespace hemiray::meshes
