// Builders of the validation cases and the evaluation that turns rows into surface
// view factors, closure and reciprocity. Geometry conventions: in the plane and in
// axisymmetric runs a segment's normal is its direction turned clockwise; in 3D a
// grid's normal is u x v. Every normal points into the space the surfaces enclose.
#include "validate/ValidationCases.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <numbers>

#include "validate/AnalyticViewFactors.h"
#include "validate/PointFactors.h"

namespace hemiray::validation {

namespace {

using models::CodeMesh;
constexpr double pi = std::numbers::pi;

std::vector<int32_t> range(int32_t first, int32_t count) {
    std::vector<int32_t> globs(static_cast<size_t>(count));
    for (int32_t k = 0; k < count; ++k) globs[static_cast<size_t>(k)] = first + k;
    return globs;
}

std::vector<int32_t> facesOf(const GlobTable& globs, int32_t glob) {
    return {globs.globFaces.begin() + globs.globFaceStart[static_cast<size_t>(glob)],
            globs.globFaces.begin() + globs.globFaceStart[static_cast<size_t>(glob) + 1]};
}

std::vector<Vec3> verticesOf(const FaceSet& faces, int32_t face) {
    std::vector<Vec3> v;
    for (int32_t k = faces.faceNodeStart[static_cast<size_t>(face)];
         k < faces.faceNodeStart[static_cast<size_t>(face) + 1]; ++k)
        v.push_back((*faces.nodes)[static_cast<size_t>(faces.faceNodes[static_cast<size_t>(k)])]);
    return v;
}

Vec3 unitNormal(const FaceSet& faces, int32_t face) {
    const Vec3& n = faces.faceNormal[static_cast<size_t>(face)];
    return n * (1 / norm(n));
}

// Point factors summed over the faces of the target surface, every face seen in
// full: right for convex enclosures and for surfaces that face each other.
std::function<double(int32_t, int)> summedOverFaces(const Case& c) {
    const CodeMesh* mesh = c.mesh.get();
    const std::vector<Surface> surfaces = c.surfaces;
    return [mesh, surfaces](int32_t face, int to) {
        const FaceSet& faces = mesh->faces;
        const Vec3 P = faces.faceCentroid[static_cast<size_t>(face)];
        const Vec3 n = unitNormal(faces, face);
        double sum = 0;
        for (int32_t glob : surfaces[static_cast<size_t>(to)].globs)
            for (int32_t target : facesOf(*mesh->globs, glob)) {
                if (target == face) continue;
                const auto v = verticesOf(faces, target);
                sum += faces.dimension == 2 ? analytic::pointToSegment(P, n, v[0], v[1])
                                            : analytic::pointToPolygon(P, n, v);
            }
        return sum;
    };
}

// CPU time of the calling thread: the rows run on it alone, and unlike wall time
// it does not grow when other processes share the machine.
double threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

Case makeCase(const char* mode, const char* name, int dimension) {
    Case c;
    c.mode = mode;
    c.name = name;
    c.mesh = std::make_unique<CodeMesh>(dimension);
    return c;
}

// Exchange area A F between two cross-section discs of a tube of radius R at
// distance s (disc-to-disc closed form; the whole disc at s = 0).
double discExchange(double s, double R) {
    return pi * R * R * (s <= 0 ? 1.0 : analytic::coaxialDisks(R, R, s));
}

// Exchange area between the wall bands [a, b] and [c, d] of an infinite tube, from
// disc exchanges: what leaves the wall left of b through the section at b is what
// a black disc there would send. Bands must not overlap; a band with itself loses
// what leaves through its two end sections.
double bandExchange(double a, double b, double c, double d, double R) {
    if (a == c && b == d) return 2 * pi * R * (b - a) - 2 * (pi * R * R - discExchange(b - a, R));
    if (d <= a) return bandExchange(c, d, a, b, R);
    return discExchange(c - b, R) - discExchange(d - b, R) - discExchange(c - a, R) +
           discExchange(d - a, R);
}

// From a ring element at axial position x on the wall of a tube of radius R to the
// wall band [c, d].
double pointToWallBand(double x, double c, double d, double R) {
    using analytic::cylinderWallToCrossSection;
    if (c >= x) return cylinderWallToCrossSection(c - x, R) - cylinderWallToCrossSection(d - x, R);
    if (d <= x) return cylinderWallToCrossSection(x - d, R) - cylinderWallToCrossSection(x - c, R);
    return 1 - cylinderWallToCrossSection(x - c, R) - cylinderWallToCrossSection(d - x, R);
}

// Rings of a disc at axial position x from radius 0 to r, one glob each from
// firstGlob on (none when firstGlob is -1); facing +x, or -x when `facingMinusX`.
void addDiscRings(CodeMesh& mesh, int32_t zone, int32_t firstGlob, double x, double r, int rings,
                  bool facingMinusX) {
    for (int i = 0; i < rings; ++i) {
        const Vec3 inner(x, r * i / rings, 0), outer(x, r * (i + 1) / rings, 0);
        const int32_t glob = firstGlob < 0 ? -1 : firstGlob + i;
        if (facingMinusX)
            mesh.addSegment(zone, glob, outer, inner);
        else
            mesh.addSegment(zone, glob, inner, outer);
    }
}

}  // namespace

double physicalArea(const FaceSet& faces, int32_t face) {
    const double a = norm(faces.faceNormal[static_cast<size_t>(face)]);
    if (faces.dimension != 1) return a;
    return a * 2 * pi * std::abs(faces.faceCentroid[static_cast<size_t>(face)][1]);
}

double CaseResult::maxError() const {
    double e = 0;
    for (const auto& r : comparisons) e = std::max(e, std::abs(r.computed - r.analytic));
    return e;
}
double CaseResult::maxRelativeError() const {
    double e = 0;
    for (const auto& r : comparisons)
        if (r.analytic > 0) e = std::max(e, std::abs(r.computed - r.analytic) / r.analytic);
    return e;
}
double CaseResult::maxSamplingError() const {
    double e = 0;
    for (const auto& r : comparisons) e = std::max(e, std::abs(r.computed - r.reference));
    return e;
}
double CaseResult::maxMeshError() const {
    double e = 0;
    for (const auto& r : comparisons) e = std::max(e, std::abs(r.reference - r.analytic));
    return e;
}

CaseResult evaluate(const Case& c, int resolution, uint32_t randomState) {
    models::RandomStateGuard guard;
    const CodeMesh& mesh = *c.mesh;
    const FaceSet& faces = mesh.faces;
    const GlobTable& globs = *mesh.globs;
    const int32_t globCount = mesh.globCount();
    const Hemisphere hemisphere(hemisphereMode(faces.dimension), resolution);

    std::vector<char> wanted(static_cast<size_t>(globCount), 0);
    auto want = [&](int surface) {
        for (int32_t g : c.surfaces[static_cast<size_t>(surface)].globs)
            wanted[static_cast<size_t>(g)] = 1;
    };
    for (const Comparison& k : c.comparisons) want(k.from);
    if (c.closed)
        for (size_t s = 0; s < c.surfaces.size(); ++s) want(static_cast<int>(s));

    std::vector<double> area(static_cast<size_t>(globCount), 0.0);
    for (int32_t f = 0; f < faces.faceCount(); ++f)
        if (faces.faceGlob[static_cast<size_t>(f)] >= 0)
            area[static_cast<size_t>(faces.faceGlob[static_cast<size_t>(f)])] +=
                physicalArea(faces, f);

    CaseResult result;
    std::vector<std::vector<double>> rows(static_cast<size_t>(globCount));
    setThreadRandomState(randomState);
    const double start = threadSeconds();
    for (int32_t g = 0; g < globCount; ++g) {
        if (!wanted[static_cast<size_t>(g)]) continue;
        rows[static_cast<size_t>(g)] = mesh.row(g, hemisphere);
        result.rays += static_cast<long long>(globs.globFaceStart[static_cast<size_t>(g) + 1] -
                                              globs.globFaceStart[static_cast<size_t>(g)]) *
                       hemisphere.size_;
    }
    result.seconds = threadSeconds() - start;

    auto surfaceArea = [&](int s) {
        double a = 0;
        for (int32_t g : c.surfaces[static_cast<size_t>(s)].globs)
            a += area[static_cast<size_t>(g)];
        return a;
    };
    auto hasRows = [&](int s) {
        for (int32_t g : c.surfaces[static_cast<size_t>(s)].globs)
            if (rows[static_cast<size_t>(g)].empty()) return false;
        return true;
    };
    // Area-weighted rows of `from`, columns of `to` summed.
    auto surfaceFactor = [&](int from, int to) {
        double sum = 0;
        for (int32_t g : c.surfaces[static_cast<size_t>(from)].globs)
            for (int32_t h : c.surfaces[static_cast<size_t>(to)].globs)
                sum += area[static_cast<size_t>(g)] *
                       rows[static_cast<size_t>(g)][static_cast<size_t>(h)];
        return sum / surfaceArea(from);
    };
    auto reference = [&](int from, int to) {
        double sum = 0, weight = 0;
        for (int32_t g : c.surfaces[static_cast<size_t>(from)].globs)
            for (int32_t f : facesOf(globs, g)) {
                const double a = physicalArea(faces, f);
                sum += a * c.pointFactor(f, to);
                weight += a;
            }
        return sum / weight;
    };

    for (const Comparison& k : c.comparisons)
        result.comparisons.push_back(
            {surfaceFactor(k.from, k.to), k.analytic, reference(k.from, k.to)});

    if (c.closed) {
        result.worstClosure = 0;
        for (const auto& row : rows)
            if (!row.empty())
                result.worstClosure = std::max(result.worstClosure, std::abs(models::sum(row) - 1));
    }
    const int surfaceCount = static_cast<int>(c.surfaces.size());
    for (int s = 0; s < surfaceCount; ++s)
        for (int t = s + 1; t < surfaceCount; ++t) {
            if (!hasRows(s) || !hasRows(t)) continue;
            const double forward = surfaceArea(s) * surfaceFactor(s, t);
            const double backward = surfaceArea(t) * surfaceFactor(t, s);
            if (forward <= 0 || backward <= 0) continue;
            result.worstReciprocity =
                std::max(result.worstReciprocity,
                         std::abs(forward - backward) / (0.5 * (forward + backward)));
        }
    return result;
}

// ---------------------------------------------------------------------------
// Planar

Case parallelStrips(int n) {
    Case c = makeCase("planar", "parallel strips", 2);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    m.addSegment(wall, 0, Vec3(1, 0, 0), Vec3(0, 0, 0), n);  // normal +y
    m.addSegment(wall, 1, Vec3(0, 1, 0), Vec3(1, 1, 0), n);  // normal -y
    m.finish();
    c.surfaces = {{"lower", {0}}, {"upper", {1}}};
    const double f =
        analytic::crossedStrings(Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), Vec3(1, 1, 0));
    c.comparisons = {{0, 1, f}, {1, 0, f}};
    c.pointFactor = summedOverFaces(c);
    return c;
}

// Strips of widths 1 and 2 meeting at a right angle along a common edge.
Case perpendicularStrips(int n) {
    Case c = makeCase("planar", "perpendicular strips", 2);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    m.addSegment(wall, 0, Vec3(1, 0, 0), Vec3(0, 0, 0), n);  // normal +y
    m.addSegment(wall, 1, Vec3(0, 0, 0), Vec3(0, 2, 0), n);  // normal +x
    m.finish();
    c.surfaces = {{"horizontal", {0}}, {"vertical", {1}}};
    const Vec3 corner(0, 0, 0), a(1, 0, 0), b(0, 2, 0);
    c.comparisons = {{0, 1, analytic::crossedStrings(a, corner, b, corner)},
                     {1, 0, analytic::crossedStrings(b, corner, a, corner)}};
    c.pointFactor = summedOverFaces(c);
    return c;
}

// An irregular convex pentagon; every pair of sides by crossed strings.
Case closedPolygon(int n) {
    Case c = makeCase("planar", "closed pentagon", 2);
    CodeMesh& m = *c.mesh;
    const Vec3 v[] = {Vec3(0, 0, 0), Vec3(3, 0, 0), Vec3(3.5, 1.5, 0), Vec3(1.5, 3, 0),
                      Vec3(-0.5, 1.2, 0)};
    constexpr int sides = 5;
    const int32_t wall = m.addZone(1);
    for (int i = 0; i < sides; ++i) m.addSegment(wall, i, v[(i + 1) % sides], v[i], n);
    m.finish();
    for (int i = 0; i < sides; ++i) c.surfaces.push_back({"side " + std::to_string(i), {i}});
    for (int i = 0; i < sides; ++i)
        for (int j = 0; j < sides; ++j)
            if (i != j)
                c.comparisons.push_back(
                    {i, j,
                     analytic::crossedStrings(v[i], v[(i + 1) % sides], v[(j + 1) % sides], v[j])});
    c.closed = true;
    c.pointFactor = summedOverFaces(c);
    return c;
}

// The cell 0 <= x <= 1 of the infinite channel between the plates y = 0 and y = 1,
// closed by a translational pair; the bottom is split at x = 0.4 and the top at
// x = 0.3. A piece sees every image of a piece opposite it, each by crossed strings.
// (Unsplit, the bottom would see the top pieces with exactly 0.3 and 0.7 at any
// resolution: its faces' landing points tile the period evenly.)
Case planarChannel(int n) {
    Case c = makeCase("planar", "periodic channel", 2);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    const int32_t periodic = m.addZone(zoneTypePeriodic);
    const int32_t shadow = m.addZone(zoneTypePeriodicShadow);
    m.makeTranslational(periodic, Vec3(-1, 0, 0));  // leaves at x = 1, enters at x = 0
    m.makeTranslational(shadow, Vec3(1, 0, 0));
    m.addSegment(wall, 0, Vec3(0.4, 0, 0), Vec3(0, 0, 0), 4 * n);  // normal +y
    m.addSegment(wall, 1, Vec3(1, 0, 0), Vec3(0.4, 0, 0), 6 * n);
    m.addSegment(wall, 2, Vec3(0, 1, 0), Vec3(0.3, 1, 0), 3 * n);  // normal -y
    m.addSegment(wall, 3, Vec3(0.3, 1, 0), Vec3(1, 1, 0), 7 * n);
    m.addSegment(periodic, -1, Vec3(1, 1, 0), Vec3(1, 0, 0), n);  // normal -x
    m.addSegment(shadow, -1, Vec3(0, 0, 0), Vec3(0, 1, 0), n);    // normal +x
    m.finish();
    c.surfaces = {{"bottom [0, 0.4]", {0}},
                  {"bottom [0.4, 1]", {1}},
                  {"top [0, 0.3]", {2}},
                  {"top [0.3, 1]", {3}}};
    struct Piece {
        double a, b, y;
    };
    static constexpr Piece pieces[] = {{0, 0.4, 0}, {0.4, 1, 0}, {0, 0.3, 1}, {0.3, 1, 1}};
    // Images k of a piece; the terms fall as 1/k^3, the tail beyond K as 1/K^2.
    constexpr int K = 20000;
    auto images = [](int from, int to) {
        const Piece& p = pieces[from];
        const Piece& q = pieces[to];
        double sum = 0;
        for (int k = -K; k <= K; ++k)
            sum += analytic::crossedStrings(Vec3(p.a, p.y, 0), Vec3(p.b, p.y, 0),
                                            Vec3(q.a + k, q.y, 0), Vec3(q.b + k, q.y, 0));
        return sum;
    };
    for (int from = 0; from < 4; ++from)
        for (int to = 0; to < 4; ++to)
            if (pieces[from].y != pieces[to].y)
                c.comparisons.push_back({from, to, images(from, to)});
    c.closed = true;
    const CodeMesh* mesh = c.mesh.get();
    c.pointFactor = [mesh](int32_t face, int to) {
        const Piece& q = pieces[to];
        const Vec3 P = mesh->faces.faceCentroid[static_cast<size_t>(face)];
        if (q.y == P[1]) return 0.0;
        const Vec3 normal = unitNormal(mesh->faces, face);
        double sum = 0;
        for (int k = -K; k <= K; ++k)
            sum +=
                analytic::pointToSegment(P, normal, Vec3(q.a + k, q.y, 0), Vec3(q.b + k, q.y, 0));
        return sum;
    };
    return c;
}

// ---------------------------------------------------------------------------
// Axisymmetric: (x, r) segments, x the axis.

namespace {

// Discs of radius 1 at x = 0 and 0.8 at x = 0.6.
constexpr double discR1 = 1.0, discR2 = 0.8, discL = 0.6;

Case coaxialDiscCase(int rings, bool oneGlob) {
    Case c = makeCase("axisymmetric",
                      oneGlob ? "coaxial discs (one glob per disc)" : "coaxial discs", 1);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    for (int i = 0; i < rings; ++i)
        m.addSegment(wall, oneGlob ? 0 : i, Vec3(0, discR1 * i / rings, 0),
                     Vec3(0, discR1 * (i + 1) / rings, 0));  // normal +x
    for (int i = 0; i < rings; ++i)
        m.addSegment(wall, oneGlob ? 1 : rings + i, Vec3(discL, discR2 * (i + 1) / rings, 0),
                     Vec3(discL, discR2 * i / rings, 0));  // normal -x
    m.finish();
    if (oneGlob)
        c.surfaces = {{"disc 1", {0}}, {"disc 2", {1}}};
    else
        c.surfaces = {{"disc 1", range(0, rings)}, {"disc 2", range(rings, rings)}};
    c.comparisons = {{0, 1, analytic::coaxialDisks(discR1, discR2, discL)},
                     {1, 0, analytic::coaxialDisks(discR2, discR1, discL)}};
    const CodeMesh* mesh = c.mesh.get();
    c.pointFactor = [mesh](int32_t face, int to) {
        const Vec3& P = mesh->faces.faceCentroid[static_cast<size_t>(face)];
        const bool onFirst = P[0] < discL / 2;
        if (onFirst == (to == 0)) return 0.0;
        return analytic::pointToParallelDisk(discL, onFirst ? discR2 : discR1, P[1]);
    };
    return c;
}

}  // namespace

Case coaxialDiscs(int rings) {
    return coaxialDiscCase(rings, false);
}
Case coaxialDiscsOneGlob(int rings) {
    return coaxialDiscCase(rings, true);
}

// A disc of radius 1 at x = 0 and the inside of the tube of radius 1 from x = 0 to
// x = 1, open at its far end.
Case discToCylinder(int rings, int mantleFaces) {
    constexpr double R = 1, L = 1;
    Case c = makeCase("axisymmetric", "disc and tube", 1);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    addDiscRings(m, wall, 0, 0, R, rings, false);
    m.addSegment(wall, rings, Vec3(0, R, 0), Vec3(L, R, 0), mantleFaces);  // normal -r
    m.finish();
    c.surfaces = {{"disc", range(0, rings)}, {"tube", {rings}}};
    const double discs = analytic::coaxialDisks(R, R, L);
    const double tubeToDisc = R / (2 * L) * (1 - discs);
    c.comparisons = {{0, 1, 1 - discs}, {1, 0, tubeToDisc}, {1, 1, 1 - 2 * tubeToDisc}};
    const CodeMesh* mesh = c.mesh.get();
    c.pointFactor = [mesh, rings](int32_t face, int to) {
        const Vec3& P = mesh->faces.faceCentroid[static_cast<size_t>(face)];
        const bool onDisc = mesh->faces.faceGlob[static_cast<size_t>(face)] < rings;
        if (onDisc) return to == 1 ? 1 - analytic::pointToParallelDisk(L, R, P[1]) : 0.0;
        return to == 0 ? analytic::cylinderWallToCrossSection(P[0], R)
                       : pointToWallBand(P[0], 0, L, R);
    };
    return c;
}

// The closed cylinder of radius 1 and length 2: two discs and the tube.
Case closedCylinder(int rings, int mantleFaces) {
    constexpr double R = 1, L = 2;
    Case c = makeCase("axisymmetric", "closed cylinder", 1);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    addDiscRings(m, wall, 0, 0, R, rings, false);
    m.addSegment(wall, rings, Vec3(0, R, 0), Vec3(L, R, 0), mantleFaces);
    addDiscRings(m, wall, rings + 1, L, R, rings, true);
    m.finish();
    c.surfaces = {
        {"disc 0", range(0, rings)}, {"tube", {rings}}, {"disc 1", range(rings + 1, rings)}};
    const double discs = analytic::coaxialDisks(R, R, L);
    const double tubeToDisc = R / (2 * L) * (1 - discs);
    c.comparisons = {{0, 2, discs},      {0, 1, 1 - discs},          {1, 0, tubeToDisc},
                     {1, 2, tubeToDisc}, {1, 1, 1 - 2 * tubeToDisc}, {2, 0, discs},
                     {2, 1, 1 - discs}};
    c.closed = true;
    const CodeMesh* mesh = c.mesh.get();
    c.pointFactor = [mesh, rings](int32_t face, int to) {
        const Vec3& P = mesh->faces.faceCentroid[static_cast<size_t>(face)];
        const int32_t glob = mesh->faces.faceGlob[static_cast<size_t>(face)];
        if (glob != rings) {
            const int own = glob < rings ? 0 : 2;
            const double toDisc = analytic::pointToParallelDisk(L, R, P[1]);
            return to == own ? 0.0 : to == 1 ? 1 - toDisc : toDisc;
        }
        if (to == 0) return analytic::cylinderWallToCrossSection(P[0], R);
        if (to == 2) return analytic::cylinderWallToCrossSection(L - P[0], R);
        return pointToWallBand(P[0], 0, L, R);
    };
    return c;
}

// The cell 0 <= x <= 1 of an infinite tube of radius 1, closed by a translational
// pair (discs at both ends); the wall is split at x = 0.3. Rows go to all images of
// the two bands, as in the infinite tube, whose band-to-band factors follow from
// disc-to-disc exchanges.
Case pipeCell(int n) {
    constexpr double R = 1, split = 0.3;
    Case c = makeCase("axisymmetric", "periodic tube", 1);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    const int32_t periodic = m.addZone(zoneTypePeriodic);
    const int32_t shadow = m.addZone(zoneTypePeriodicShadow);
    m.makeTranslational(periodic, Vec3(-1, 0, 0));
    m.makeTranslational(shadow, Vec3(1, 0, 0));
    m.addSegment(wall, 0, Vec3(0, R, 0), Vec3(split, R, 0), 3 * n);  // normal -r
    m.addSegment(wall, 1, Vec3(split, R, 0), Vec3(1, R, 0), 7 * n);
    m.addSegment(periodic, -1, Vec3(1, R, 0), Vec3(1, 0, 0), n);
    m.addSegment(shadow, -1, Vec3(0, 0, 0), Vec3(0, R, 0), n);
    m.finish();
    c.surfaces = {{"band [0, 0.3]", {0}}, {"band [0.3, 1]", {1}}};
    const double bands[2][2] = {{0, split}, {split, 1}};
    constexpr int images = 1000;  // exchanges fall as 1/k^4
    auto infiniteTube = [&](int from, int to) {
        const double a = bands[from][0], b = bands[from][1];
        double sum = 0;
        for (int k = -images; k <= images; ++k)
            sum += bandExchange(a, b, bands[to][0] + k, bands[to][1] + k, R);
        return sum / (2 * pi * R * (b - a));
    };
    for (int from = 0; from < 2; ++from)
        for (int to = 0; to < 2; ++to) c.comparisons.push_back({from, to, infiniteTube(from, to)});
    c.closed = true;
    const CodeMesh* mesh = c.mesh.get();
    c.pointFactor = [mesh, bands](int32_t face, int to) {
        const double x = mesh->faces.faceCentroid[static_cast<size_t>(face)][0];
        double sum = 0;
        for (int k = -images; k <= images; ++k)
            sum += pointToWallBand(x, bands[to][0] + k, bands[to][1] + k, R);
        return sum;
    };
    return c;
}

// ---------------------------------------------------------------------------
// Three-dimensional

// 1 x 2 rectangles, directly opposed at distance 1 (catalogue C-11).
Case parallelRectangles(int n) {
    Case c = makeCase("3d", "parallel rectangles", 3);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    m.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 2, 0), n, n);  // normal +z
    m.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 2, 0), Vec3(1, 0, 0), n, n);  // normal -z
    m.finish();
    c.surfaces = {{"lower", {0}}, {"upper", {1}}};
    const double f = analytic::parallelRectangles(1, 2, 1);
    c.comparisons = {{0, 1, f}, {1, 0, f}};
    c.pointFactor = summedOverFaces(c);
    return c;
}

// A 1 x 0.5 rectangle and a 1 x 2 one at a right angle along their common edge of
// length 1 (catalogue C-14).
Case perpendicularRectangles(int n) {
    Case c = makeCase("3d", "perpendicular rectangles", 3);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    const double l = 1, w = 0.5, h = 2;
    m.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(l, 0, 0), Vec3(0, w, 0), n, n);  // normal +z
    m.addGrid(wall, 1, Vec3(0, 0, 0), Vec3(0, 0, h), Vec3(l, 0, 0), n, n);  // normal +y
    m.finish();
    c.surfaces = {{"base", {0}}, {"wall", {1}}};
    c.comparisons = {{0, 1, analytic::perpendicularRectangles(l, w, h)},
                     {1, 0, analytic::perpendicularRectangles(l, h, w)}};
    c.pointFactor = summedOverFaces(c);
    return c;
}

// The axisymmetric discs again, as polygons: rings x sectors faces per disc (the
// centre ring triangles). The polygon's radius is raised so that its area is the
// circle's, which removes the first-order faceting error.
Case coaxialDiscs3d(int rings, int sectors) {
    Case c = makeCase("3d", "coaxial discs", 3);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    const double scale = std::sqrt(2 * pi / (sectors * std::sin(2 * pi / sectors)));
    auto addDisc = [&](int32_t glob, double radius, double z, bool facingDown) {
        auto at = [&](int ring, int sector) {
            const double r = scale * radius * ring / rings, phi = 2 * pi * sector / sectors;
            return Vec3(r * std::cos(phi), r * std::sin(phi), z);
        };
        for (int i = 0; i < rings; ++i)
            for (int j = 0; j < sectors; ++j) {
                const Vec3 a = at(i, j), b = at(i + 1, j), cc = at(i + 1, j + 1), d = at(i, j + 1);
                // Counter-clockwise seen from +z: normal +z.
                if (i == 0) {
                    if (facingDown)
                        m.addFace(wall, glob, {a, cc, b});
                    else
                        m.addFace(wall, glob, {a, b, cc});
                } else if (facingDown) {
                    m.addFace(wall, glob, {a, d, cc, b});
                } else {
                    m.addFace(wall, glob, {a, b, cc, d});
                }
            }
    };
    addDisc(0, discR1, 0, false);
    addDisc(1, discR2, discL, true);
    m.finish();
    c.surfaces = {{"disc 1", {0}}, {"disc 2", {1}}};
    c.comparisons = {{0, 1, analytic::coaxialDisks(discR1, discR2, discL)},
                     {1, 0, analytic::coaxialDisks(discR2, discR1, discL)}};
    c.pointFactor = summedOverFaces(c);
    return c;
}

// The inside of the unit sphere, a latitude-longitude mesh (triangles at the poles,
// planar trapezoids elsewhere), in four zones of unequal area: F_ij = A_j / A for
// every pair, the zone itself included.
Case sphere(int bands, int sectors) {
    Case c = makeCase("3d", "sphere", 3);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    const int edges[5] = {0, (bands + 2) / 4, bands / 2, (13 * bands + 8) / 16, bands};
    auto zoneOf = [&](int band) {
        int z = 0;
        while (band >= edges[z + 1]) ++z;
        return z;
    };
    auto at = [&](int band, int sector) {
        const double theta = pi * band / bands, phi = 2 * pi * sector / sectors;
        return Vec3(std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi),
                    std::cos(theta));
    };
    for (int i = 0; i < bands; ++i)
        for (int j = 0; j < sectors; ++j) {
            const int32_t glob = zoneOf(i);
            const Vec3 a = at(i, j), b = at(i + 1, j), cc = at(i + 1, j + 1), d = at(i, j + 1);
            // a, b, c, d run counter-clockwise seen from outside; walked backwards the
            // normal points inwards.
            if (i == 0)
                m.addFace(wall, glob, {a, cc, b});
            else if (i == bands - 1)
                m.addFace(wall, glob, {a, d, b});
            else
                m.addFace(wall, glob, {a, d, cc, b});
        }
    m.finish();
    for (int z = 0; z < 4; ++z) c.surfaces.push_back({"zone " + std::to_string(z), {z}});
    for (int from = 0; from < 4; ++from)
        for (int to = 0; to < 4; ++to) {
            const double share =
                (std::cos(pi * edges[to] / bands) - std::cos(pi * edges[to + 1] / bands)) / 2;
            c.comparisons.push_back({from, to, share});
        }
    c.closed = true;
    c.pointFactor = summedOverFaces(c);
    return c;
}

// The unit cube, n x n faces per wall: opposite walls C-11, adjacent walls C-14.
Case cube(int n) {
    Case c = makeCase("3d", "cube", 3);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    // Inward normals; walls 2k and 2k+1 face each other.
    m.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), n, n);
    m.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(1, 0, 0), n, n);
    m.addGrid(wall, 2, Vec3(0, 0, 0), Vec3(0, 0, 1), Vec3(1, 0, 0), n, n);
    m.addGrid(wall, 3, Vec3(0, 1, 0), Vec3(1, 0, 0), Vec3(0, 0, 1), n, n);
    m.addGrid(wall, 4, Vec3(0, 0, 0), Vec3(0, 1, 0), Vec3(0, 0, 1), n, n);
    m.addGrid(wall, 5, Vec3(1, 0, 0), Vec3(0, 0, 1), Vec3(0, 1, 0), n, n);
    m.finish();
    const double opposite = analytic::parallelRectangles(1, 1, 1);
    const double adjacent = analytic::perpendicularRectangles(1, 1, 1);
    for (int i = 0; i < 6; ++i) c.surfaces.push_back({"wall " + std::to_string(i), {i}});
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j)
            if (i != j) c.comparisons.push_back({i, j, i / 2 == j / 2 ? opposite : adjacent});
    c.closed = true;
    c.pointFactor = summedOverFaces(c);
    return c;
}

// The cell 0 <= x <= 1 of two infinitely long plates of width 1 (in y) at distance 1,
// closed by a translational pair; the top is split at x = 0.3. The plates stand for
// infinitely long strips, so the cell sees the top with the crossed-strings value
// sqrt(2) - 1, split 0.3 : 0.7. n a multiple of 10.
Case channel3d(int n) {
    Case c = makeCase("3d", "periodic channel", 3);
    CodeMesh& m = *c.mesh;
    const int32_t wall = m.addZone(1);
    const int32_t periodic = m.addZone(zoneTypePeriodic);
    const int32_t shadow = m.addZone(zoneTypePeriodicShadow);
    m.makeTranslational(periodic, Vec3(-1, 0, 0));
    m.makeTranslational(shadow, Vec3(1, 0, 0));
    m.addGrid(wall, 0, Vec3(0, 0, 0), Vec3(1, 0, 0), Vec3(0, 1, 0), n, n);             // normal +z
    m.addGrid(wall, 1, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(0.3, 0, 0), n, 3 * n / 10);  // -z
    m.addGrid(wall, 2, Vec3(0.3, 0, 1), Vec3(0, 1, 0), Vec3(0.7, 0, 0), n, 7 * n / 10);
    m.addGrid(periodic, -1, Vec3(1, 0, 0), Vec3(0, 0, 1), Vec3(0, 1, 0), n, n);  // normal -x
    m.addGrid(shadow, -1, Vec3(0, 0, 0), Vec3(0, 1, 0), Vec3(0, 0, 1), n, n);    // normal +x
    m.finish();
    c.surfaces = {{"bottom", {0}}, {"top left", {1}}, {"top right", {2}}};
    const double strips = std::numbers::sqrt2 - 1;
    c.comparisons = {{0, 1, 0.3 * strips}, {0, 2, 0.7 * strips}, {1, 0, strips}, {2, 0, strips}};
    const CodeMesh* mesh = c.mesh.get();
    c.pointFactor = [mesh](int32_t face, int to) {
        struct Piece {
            double x0, x1, z;
        };
        static constexpr Piece pieces[] = {{0, 1, 0}, {0, 0.3, 1}, {0.3, 1, 1}};
        const Piece& p = pieces[to];
        const Vec3 P = mesh->faces.faceCentroid[static_cast<size_t>(face)];
        if (p.z == P[2]) return 0.0;
        const Vec3 normal = unitNormal(mesh->faces, face);
        constexpr int K = 200;  // images fall as 1/k^4
        double sum = 0;
        for (int k = -K; k <= K; ++k)
            sum += analytic::pointToPolygon(P, normal,
                                            {Vec3(p.x0 + k, 0, p.z), Vec3(p.x1 + k, 0, p.z),
                                             Vec3(p.x1 + k, 1, p.z), Vec3(p.x0 + k, 1, p.z)});
        return sum;
    };
    return c;
}

// ---------------------------------------------------------------------------
// Mirror and periodic models against their full models

EquivalenceResult compare(const Equivalence& e, int resolution) {
    models::RandomStateGuard guard;
    const int dimension = e.full->faces.dimension;
    const Hemisphere hemisphere(hemisphereMode(dimension), resolution);
    auto facesIn = [](const CodeMesh& m, int32_t glob) {
        return static_cast<long long>(m.globs->globFaceStart[static_cast<size_t>(glob) + 1] -
                                      m.globs->globFaceStart[static_cast<size_t>(glob)]);
    };
    EquivalenceResult result;
    for (size_t k = 0; k < e.reducedGlobs.size(); ++k) {
        const uint32_t state = 1000u + static_cast<uint32_t>(k);
        setThreadRandomState(state);
        double start = threadSeconds();
        const auto fullRow = e.full->row(e.fullGlobs[k], hemisphere);
        result.fullSeconds += threadSeconds() - start;
        setThreadRandomState(state);
        start = threadSeconds();
        const auto row = e.reduced->row(e.reducedGlobs[k], hemisphere);
        result.reducedSeconds += threadSeconds() - start;
        result.fullClosure = std::max(result.fullClosure, std::abs(models::sum(fullRow) - 1));
        result.reducedClosure = std::max(result.reducedClosure, std::abs(models::sum(row) - 1));
        result.fullRays += facesIn(*e.full, e.fullGlobs[k]) * hemisphere.size_;
        result.reducedRays += facesIn(*e.reduced, e.reducedGlobs[k]) * hemisphere.size_;
        for (size_t h = 0; h < e.images.size(); ++h) {
            double images = 0;
            for (int32_t g : e.images[h]) images += fullRow[static_cast<size_t>(g)];
            result.maxDifference = std::max(result.maxDifference, std::abs(row[h] - images));
        }
    }
    return result;
}

// The pentagon (-1,0) (1,0) (1,1) (0,1.6) (-1,1), symmetric about x = 0, against its
// right half closed by a mirror on x = 0.
Equivalence planarMirror(int n) {
    Equivalence e;
    e.mode = "planar";
    e.name = "mirror: symmetric pentagon";
    const Vec3 A(-1, 0, 0), B(1, 0, 0), C(1, 1, 0), D(0, 1.6, 0), E(-1, 1, 0), M(0, 0, 0);
    e.full = std::make_unique<CodeMesh>(2);
    e.reduced = std::make_unique<CodeMesh>(2);
    // Walked clockwise: normals inwards.
    for (CodeMesh* m : {e.full.get(), e.reduced.get()}) {
        const int32_t wall = m->addZone(1);
        m->addSegment(wall, 0, B, M, n);
        m->addSegment(wall, 1, C, B, n);
        m->addSegment(wall, 2, D, C, n);
    }
    const int32_t wall = 0;
    e.full->addSegment(wall, 3, E, D, n);
    e.full->addSegment(wall, 4, A, E, n);
    e.full->addSegment(wall, 5, M, A, n);
    e.reduced->addSegment(e.reduced->addZone(zoneTypeMirror), -1, M, D, n);  // normal +x
    e.full->finish();
    e.reduced->finish();
    e.reducedGlobs = e.fullGlobs = {0, 1, 2};
    e.images = {{0, 5}, {1, 4}, {2, 3}};
    return e;
}

// The ring between a 12-gon of radius 2 (normals inwards) and one of radius 1
// (normals outwards) against its third from 0 to 120 degrees, closed by a
// rotational pair on the radial lines at 0 and 120 degrees.
Equivalence planarRotational(int n) {
    Equivalence e;
    e.mode = "planar";
    e.name = "rotational periodic: ring of 12-gons";
    const auto outer = models::regularPolygon(12, 2.0, Vec3(0, 0, 0));
    const auto inner = models::regularPolygon(12, 1.0, Vec3(0, 0, 0));
    e.full = std::make_unique<CodeMesh>(2);
    e.reduced = std::make_unique<CodeMesh>(2);
    const int32_t fullWall = e.full->addZone(1);
    for (int k = 0; k < 12; ++k) e.full->addSegment(fullWall, k, outer[(k + 1) % 12], outer[k], n);
    for (int k = 0; k < 12; ++k)
        e.full->addSegment(fullWall, 12 + k, inner[k], inner[(k + 1) % 12], n);
    CodeMesh& r = *e.reduced;
    const int32_t wall = r.addZone(1);
    const int32_t periodic = r.addZone(zoneTypePeriodic);
    const int32_t shadow = r.addZone(zoneTypePeriodicShadow);
    r.makeRotational(periodic, 2 * pi / 3, Vec3(0, 0, 0), Vec3(0, 0, 1));
    r.makeRotational(shadow, -2 * pi / 3, Vec3(0, 0, 0), Vec3(0, 0, 1));
    for (int k = 0; k < 4; ++k) r.addSegment(wall, k, outer[k + 1], outer[k], n);
    for (int k = 0; k < 4; ++k) r.addSegment(wall, 4 + k, inner[k], inner[k + 1], n);
    r.addSegment(periodic, -1, outer[0], inner[0], n);  // at 0 degrees, normal +y
    r.addSegment(shadow, -1, inner[4], outer[4], n);    // at 120 degrees, into the sector
    e.full->finish();
    r.finish();
    for (int k = 0; k < 4; ++k) {
        e.reducedGlobs.push_back(k);
        e.fullGlobs.push_back(k);
    }
    for (int k = 0; k < 4; ++k) {
        e.reducedGlobs.push_back(4 + k);
        e.fullGlobs.push_back(12 + k);
    }
    for (int k = 0; k < 4; ++k) e.images.push_back({k, k + 4, k + 8});
    for (int k = 0; k < 4; ++k) e.images.push_back({12 + k, 16 + k, 20 + k});
    return e;
}

// The closed cylinder (radius 1, length 2) against its half x <= 1 closed by a
// mirror disc at x = 1.
Equivalence axisymmetricMirror(int rings, int mantleFaces) {
    constexpr double R = 1, L = 2;
    Equivalence e;
    e.mode = "axisymmetric";
    e.name = "mirror: closed cylinder";
    e.full = std::make_unique<CodeMesh>(1);
    e.reduced = std::make_unique<CodeMesh>(1);
    for (CodeMesh* m : {e.full.get(), e.reduced.get()}) {
        const int32_t wall = m->addZone(1);
        addDiscRings(*m, wall, 0, 0, R, rings, false);
        m->addSegment(wall, rings, Vec3(0, R, 0), Vec3(L / 2, R, 0), mantleFaces);
    }
    e.full->addSegment(0, rings + 1, Vec3(L / 2, R, 0), Vec3(L, R, 0), mantleFaces);
    addDiscRings(*e.full, 0, rings + 2, L, R, rings, true);
    const int32_t mirror = e.reduced->addZone(zoneTypeMirror);
    addDiscRings(*e.reduced, mirror, -1, L / 2, R, rings, true);
    e.full->finish();
    e.reduced->finish();
    for (int i = 0; i <= rings; ++i) {
        e.reducedGlobs.push_back(i);
        e.fullGlobs.push_back(i);
        e.images.push_back({i, i < rings ? rings + 2 + i : rings + 1});
    }
    return e;
}

// The unit cube with its walls y, z = const split at x = 0.5, against its half
// x <= 0.5 closed by a mirror. n even.
Equivalence cubeMirror(int n) {
    Equivalence e;
    e.mode = "3d";
    e.name = "mirror: cube";
    e.full = std::make_unique<CodeMesh>(3);
    e.reduced = std::make_unique<CodeMesh>(3);
    const int half = n / 2;
    // The left halves (x <= 0.5) and the wall x = 0, in both models: globs 0..4.
    for (CodeMesh* m : {e.full.get(), e.reduced.get()}) {
        const int32_t wall = m->addZone(1);
        m->addGrid(wall, 0, Vec3(0, 0, 0), Vec3(0, 1, 0), Vec3(0, 0, 1), n, n);       // x = 0
        m->addGrid(wall, 1, Vec3(0, 0, 0), Vec3(0, 0, 1), Vec3(0.5, 0, 0), n, half);  // y = 0
        m->addGrid(wall, 2, Vec3(0, 1, 0), Vec3(0.5, 0, 0), Vec3(0, 0, 1), half, n);  // y = 1
        m->addGrid(wall, 3, Vec3(0, 0, 0), Vec3(0.5, 0, 0), Vec3(0, 1, 0), half, n);  // z = 0
        m->addGrid(wall, 4, Vec3(0, 0, 1), Vec3(0, 1, 0), Vec3(0.5, 0, 0), n, half);  // z = 1
    }
    CodeMesh& f = *e.full;
    f.addGrid(0, 5, Vec3(1, 0, 0), Vec3(0, 0, 1), Vec3(0, 1, 0), n, n);         // x = 1
    f.addGrid(0, 6, Vec3(0.5, 0, 0), Vec3(0, 0, 1), Vec3(0.5, 0, 0), n, half);  // y = 0
    f.addGrid(0, 7, Vec3(0.5, 1, 0), Vec3(0.5, 0, 0), Vec3(0, 0, 1), half, n);  // y = 1
    f.addGrid(0, 8, Vec3(0.5, 0, 0), Vec3(0.5, 0, 0), Vec3(0, 1, 0), half, n);  // z = 0
    f.addGrid(0, 9, Vec3(0.5, 0, 1), Vec3(0, 1, 0), Vec3(0.5, 0, 0), n, half);  // z = 1
    const int32_t mirror = e.reduced->addZone(zoneTypeMirror);
    e.reduced->addGrid(mirror, -1, Vec3(0.5, 0, 0), Vec3(0, 0, 1), Vec3(0, 1, 0), n, n);  // -x
    f.finish();
    e.reduced->finish();
    for (int g = 0; g < 5; ++g) {
        e.reducedGlobs.push_back(g);
        e.fullGlobs.push_back(g);
        e.images.push_back({g, g + 5});
    }
    return e;
}

}  // namespace hemiray::validation
