// hemiray_accuracy: the error of view factors and row sums against the exact factors
// of closed enclosures (a unit cube in 3D, a unit square in the plane, a closed
// cylinder in axisymmetric mode; a sphere of flat triangles and an empty 4 x 3 x 2.5
// room in 3D), for globs of 1, 4, 16 and 64 faces over a sweep of
// hemisphere resolutions, before and after repair (src/repair/). Writes one CSV line
// per mode, glob size and resolution to standard output; scripts/accuracy_report.py
// turns them into docs/accuracy.md's tables. Rows are computed on the calling thread
// and timed by its CPU time.
//
// With --bins FILE it also writes the mean error of the factors by decade of their
// exact value, from which the script fits an error law in the factor's size.
//
// Usage: hemiray_accuracy [--resolutions 4,8,16] [--sizes 1,4,16,64] [--mode
// 3d,planar,axisymmetric,sphere,room]
//                         [--bins FILE] [--state K]
//
// --state sets the generator state the 3D frames are drawn from (1 unless given): the
// same study with other draws.
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "ErrorBands.h"
#include "accuracy/ExactFactors.h"
#include "geometry/FaceGeometry.h"
#include "models/CodeMesh.h"
#include "repair/ViewFactorRepair.h"

namespace {

using namespace hemiray;
using models::CodeMesh;

constexpr int facesPerEdge = 64;     // faces along a side (planar, mantle) ...
constexpr int cubeFacesPerEdge = 8;  // ... and along a cube edge: 64 per side
constexpr int ringsPerDisc = 8;

struct Study {
    std::unique_ptr<CodeMesh> mesh;
    std::vector<std::vector<double>> exact;  // exact[i][j]: F from glob i to glob j
};

// The sides of a box of the given size with inward normals, each cut into 8 x 8
// faces and into blocks of k x k faces, one glob per block.
Study box(int k, const Vec3& size) {
    Study s{std::make_unique<CodeMesh>(3), {}};
    CodeMesh& m = *s.mesh;
    const int32_t wall = m.addZone(1);
    const Vec3 o(0, 0, 0), x(size[0], 0, 0), y(0, size[1], 0), z(0, 0, size[2]);
    const Vec3 sides[6][3] = {{o, x, y}, {z, y, x}, {o, z, x}, {y, x, z}, {o, y, z}, {x, z, y}};
    std::vector<accuracy::Rectangle> rects;
    const int blocks = cubeFacesPerEdge / k;
    for (const auto& side : sides)
        for (int i = 0; i < blocks; ++i)
            for (int j = 0; j < blocks; ++j) {
                const double step = double(k) / cubeFacesPerEdge;
                const Vec3 corner = side[0] + side[1] * (i * step) + side[2] * (j * step);
                const Vec3 u = side[1] * step, v = side[2] * step;
                m.addGrid(wall, static_cast<int32_t>(rects.size()), corner, u, v, k, k);
                accuracy::Rectangle r;
                const Vec3 far = corner + u + v;
                for (int a = 0; a < 3; ++a) {
                    r.lo[a] = std::min(corner[a], far[a]);
                    r.hi[a] = std::max(corner[a], far[a]);
                    if (u[a] == 0 && v[a] == 0) {
                        r.axis = a;
                        r.level = corner[a];
                    }
                }
                rects.push_back(r);
            }
    m.finish();
    for (const auto& a : rects) {
        s.exact.emplace_back();
        for (const auto& b : rects) s.exact.back().push_back(accuracy::rectangleFactor(a, b));
    }
    return s;
}

// The inside of the unit sphere: an icosahedron whose triangles are split four ways
// three times, new corners pushed out onto the sphere, gives 1280 flat triangles
// (normals inwards). A glob of 4^m faces is one triangle of the mesh m splits back.
// The reference is the exact factors of these flat triangles, not the true sphere's
// A_j / A (see closedFormGap).
Study sphere(int facesPerGlob) {
    constexpr int splits = 3;
    Study s{std::make_unique<CodeMesh>(3), {}};
    CodeMesh& m = *s.mesh;
    const int32_t wall = m.addZone(1);
    const double g = (1 + std::sqrt(5.0)) / 2;
    const Vec3 v[12] = {{-1, g, 0},  {1, g, 0},  {-1, -g, 0}, {1, -g, 0}, {0, -1, g},  {0, 1, g},
                        {0, -1, -g}, {0, 1, -g}, {g, 0, -1},  {g, 0, 1},  {-g, 0, -1}, {-g, 0, 1}};
    // Counter-clockwise seen from outside; the faces are added the other way round.
    const int ico[20][3] = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                            {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                            {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                            {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};
    auto onSphere = [](const Vec3& p) { return p * (1 / norm(p)); };
    const int globSplits = splits - static_cast<int>(std::lround(std::log2(facesPerGlob) / 2));
    std::vector<accuracy::Triangle> triangles;
    std::vector<int32_t> globOf;
    int32_t nextGlob = 0;
    auto split = [&](auto& self, const accuracy::Triangle& t, int level, int32_t glob) -> void {
        if (level == globSplits) glob = nextGlob++;
        if (level == splits) {
            m.addFace(wall, glob, {t[0], t[2], t[1]});
            triangles.push_back({t[0], t[2], t[1]});
            globOf.push_back(glob);
            return;
        }
        const Vec3 a = onSphere((t[0] + t[1]) * 0.5), b = onSphere((t[1] + t[2]) * 0.5),
                   c = onSphere((t[2] + t[0]) * 0.5);
        self(self, {t[0], a, c}, level + 1, glob);
        self(self, {a, t[1], b}, level + 1, glob);
        self(self, {c, b, t[2]}, level + 1, glob);
        self(self, {a, b, c}, level + 1, glob);
    };
    for (const auto& f : ico)
        split(split, {onSphere(v[f[0]]), onSphere(v[f[1]]), onSphere(v[f[2]])}, 0, 0);
    m.finish();
    // Face-to-face factors are the same for every glob size: computed once.
    static std::vector<std::vector<double>> faceFactors;
    const size_t faces = triangles.size();
    if (faceFactors.empty())
        for (size_t i = 0; i < faces; ++i) {
            faceFactors.emplace_back(faces, 0.0);
            for (size_t j = 0; j < faces; ++j)
                if (i != j)
                    faceFactors[i][j] = accuracy::triangleFactor(triangles[i], triangles[j]);
        }
    const int32_t n = m.globCount();
    std::vector<double> area(faces), globArea(static_cast<size_t>(n), 0.0);
    for (size_t i = 0; i < faces; ++i) {
        const accuracy::Triangle& t = triangles[i];
        area[i] = 0.5 * norm(cross(t[1] - t[0], t[2] - t[0]));
        globArea[globOf[i]] += area[i];
    }
    s.exact.assign(static_cast<size_t>(n), std::vector<double>(static_cast<size_t>(n), 0.0));
    for (size_t i = 0; i < faces; ++i)
        for (size_t j = 0; j < faces; ++j)
            s.exact[globOf[i]][globOf[j]] += area[i] * faceFactors[i][j] / globArea[globOf[i]];
    return s;
}

// The unit square walked clockwise (inward normals), each side cut into 64
// segments, k consecutive segments per glob.
Study square(int k) {
    Study s{std::make_unique<CodeMesh>(2), {}};
    CodeMesh& m = *s.mesh;
    const int32_t wall = m.addZone(1);
    const Vec3 corners[5] = {Vec3(0, 0, 0), Vec3(0, 1, 0), Vec3(1, 1, 0), Vec3(1, 0, 0),
                             Vec3(0, 0, 0)};
    std::vector<std::pair<Vec3, Vec3>> pieces;
    std::vector<int> sideOf;
    for (int side = 0; side < 4; ++side)
        for (int i = 0; i < facesPerEdge / k; ++i) {
            const Vec3 d = corners[side + 1] - corners[side];
            const Vec3 a = corners[side] + d * (double(i * k) / facesPerEdge);
            const Vec3 b = corners[side] + d * (double((i + 1) * k) / facesPerEdge);
            m.addSegment(wall, static_cast<int32_t>(pieces.size()), a, b, k);
            pieces.emplace_back(a, b);
            sideOf.push_back(side);
        }
    m.finish();
    for (size_t i = 0; i < pieces.size(); ++i) {
        s.exact.emplace_back();
        for (size_t j = 0; j < pieces.size(); ++j)
            s.exact.back().push_back(
                sideOf[i] == sideOf[j]
                    ? 0.0
                    : analytic::crossedStrings(pieces[i].first, pieces[i].second, pieces[j].second,
                                               pieces[j].first));
    }
    return s;
}

// A closed cylinder of radius 1 and length 2 about the x axis: the mantle cut into
// 64 segments, k per glob; each end disc cut into 8 rings, one glob per ring.
Study cylinder(int k) {
    Study s{std::make_unique<CodeMesh>(1), {}};
    CodeMesh& m = *s.mesh;
    const int32_t wall = m.addZone(1);
    const double length = 2;
    struct Piece {
        bool mantle;
        double a, b;   // mantle: axial range; ring: radial range
        double plane;  // ring: its axial position
    };
    std::vector<Piece> pieces;
    for (int i = 0; i < facesPerEdge / k; ++i) {
        const double a = length * i * k / facesPerEdge, b = length * (i + 1) * k / facesPerEdge;
        m.addSegment(wall, static_cast<int32_t>(pieces.size()), Vec3(a, 1, 0), Vec3(b, 1, 0), k);
        pieces.push_back({true, a, b, 0});
    }
    for (const double plane : {0.0, length})
        for (int i = 0; i < ringsPerDisc; ++i) {
            const double r1 = double(i) / ringsPerDisc, r2 = double(i + 1) / ringsPerDisc;
            const int32_t glob = static_cast<int32_t>(pieces.size());
            // The normal, (dy, -dx), points into the cylinder at either end.
            if (plane == 0)
                m.addSegment(wall, glob, Vec3(0, r1, 0), Vec3(0, r2, 0));
            else
                m.addSegment(wall, glob, Vec3(plane, r2, 0), Vec3(plane, r1, 0));
            pieces.push_back({false, r1, r2, plane});
        }
    m.finish();
    const double pi = std::numbers::pi;
    auto area = [&](const Piece& p) {
        return p.mantle ? 2 * pi * (p.b - p.a) : pi * (p.b * p.b - p.a * p.a);
    };
    // Energy A F between two pieces, symmetric in its arguments.
    std::function<double(const Piece&, const Piece&)> energy = [&](const Piece& p,
                                                                   const Piece& q) -> double {
        using accuracy::crossSections;
        if (!p.mantle && q.mantle) return energy(q, p);
        if (p.mantle && q.mantle) {
            if (p.a == q.a) return area(p) - 2 * pi * (1 - crossSections(p.b - p.a));
            const Piece& lo = p.a < q.a ? p : q;
            const Piece& hi = p.a < q.a ? q : p;
            return pi * (crossSections(hi.a - lo.b) - crossSections(hi.b - lo.b) -
                         crossSections(hi.a - lo.a) + crossSections(hi.b - lo.a));
        }
        if (p.mantle) {  // q a ring: through the cross sections at the band's ends
            const double near = std::abs(q.plane == 0 ? p.a : length - p.b);
            const double far = std::abs(q.plane == 0 ? p.b : length - p.a);
            return accuracy::ringThroughDisc(q.a, q.b, 1, near) -
                   accuracy::ringThroughDisc(q.a, q.b, 1, far);
        }
        if (p.plane == q.plane) return 0;
        return accuracy::ringThroughDisc(p.a, p.b, q.b, length) -
               accuracy::ringThroughDisc(p.a, p.b, q.a, length);
    };
    for (const Piece& p : pieces) {
        s.exact.emplace_back();
        for (const Piece& q : pieces) s.exact.back().push_back(energy(p, q) / area(p));
    }
    return s;
}

struct Errors {
    double meanFactor = 0, maxFactor = 0, meanRowSum = 0, maxRowSum = 0;
};

Errors compare(const repair::CsrMatrix& F, const std::vector<std::vector<double>>& exact) {
    Errors e;
    long long pairs = 0;
    const int32_t n = F.rowCount();
    for (int32_t i = 0; i < n; ++i) {
        std::vector<double> row(static_cast<size_t>(n), 0.0);
        double sum = 0;
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k) {
            row[F.columns[k]] = F.values[k];
            sum += F.values[k];
        }
        for (int32_t j = 0; j < n; ++j)
            if (exact[i][j] > 0 || row[j] > 0) {
                const double d = std::abs(row[j] - exact[i][j]);
                e.meanFactor += d;
                e.maxFactor = std::max(e.maxFactor, d);
                ++pairs;
            }
        e.meanRowSum += std::abs(sum - 1);
        e.maxRowSum = std::max(e.maxRowSum, std::abs(sum - 1));
    }
    e.meanFactor /= double(std::max(pairs, 1LL));
    e.meanRowSum /= n;
    return e;
}

// Mean factor and mean error of the pairs whose exact factor lies in each decade
// 1e-5 .. 1.
void writeBins(std::ostream& out, const std::string& mode, int size, int R,
               const repair::CsrMatrix& F, const std::vector<std::vector<double>>& exact) {
    constexpr int decades = 5;
    double factor[decades] = {}, error[decades] = {};
    long long pairs[decades] = {};
    const int32_t n = F.rowCount();
    for (int32_t i = 0; i < n; ++i) {
        std::vector<double> row(static_cast<size_t>(n), 0.0);
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k) row[F.columns[k]] = F.values[k];
        for (int32_t j = 0; j < n; ++j) {
            const double t = exact[i][j];
            if (t <= 1e-5) continue;
            const int d =
                std::clamp(static_cast<int>(-std::floor(std::log10(t))) - 1, 0, decades - 1);
            factor[d] += t;
            error[d] += std::abs(row[j] - t);
            ++pairs[d];
        }
    }
    for (int d = 0; d < decades; ++d)
        if (pairs[d] > 0)
            out << mode << ',' << size << ',' << R << ",1e-" << d + 1 << ',' << pairs[d] << ','
                << factor[d] / pairs[d] << ',' << error[d] / pairs[d] << '\n';
}

// Largest |A_i F_ij - A_j F_ji| / (A_i F_ij + A_j F_ji) of the exact factors: how far
// the reference itself is from reciprocal (rounding for closed forms, quadrature
// for the sphere's triangles).
double reciprocityGap(const std::vector<std::vector<double>>& exact,
                      const std::vector<double>& area) {
    double gap = 0;
    for (size_t i = 0; i < exact.size(); ++i)
        for (size_t j = 0; j < i; ++j) {
            const double a = area[i] * exact[i][j], b = area[j] * exact[j][i];
            if (a + b > 0) gap = std::max(gap, std::abs(a - b) / (a + b));
        }
    return gap;
}

// Mean |F_exact - A_j / A| over all pairs: how far the faceted sphere's exact factors
// lie from the true sphere's closed form, an error of the mesh that no resolution
// and no repair removes.
double closedFormGap(const std::vector<std::vector<double>>& exact,
                     const std::vector<double>& area) {
    double total = 0, sum = 0;
    for (const double a : area) total += a;
    for (const auto& row : exact)
        for (size_t j = 0; j < row.size(); ++j) sum += std::abs(row[j] - area[j] / total);
    return sum / double(exact.size() * exact.size());
}

// Share of the energy error |A_i (F_ij - F_exact_ij)| that is the same seen from both
// sides of a pair: sum |sym| / (sum |sym| + sum |anti|) with sym and anti the halves
// of E_ij + E_ji and E_ij - E_ji. Repair sees only the part that breaks reciprocity
// (and the row sums), so a large symmetric share caps what it can remove.
double symmetricShare(const repair::CsrMatrix& F, const std::vector<std::vector<double>>& exact,
                      const std::vector<double>& area) {
    const size_t n = exact.size();
    std::vector<std::vector<double>> e(n, std::vector<double>(n, 0.0));
    for (size_t i = 0; i < n; ++i) {
        for (int64_t k = F.rowStart[i]; k < F.rowStart[i + 1]; ++k)
            e[i][F.columns[k]] = F.values[k];
        for (size_t j = 0; j < n; ++j) e[i][j] = area[i] * (e[i][j] - exact[i][j]);
    }
    double sym = 0, anti = 0;
    for (size_t i = 0; i < n; ++i)
        for (size_t j = 0; j < i; ++j) {
            sym += std::abs(e[i][j] + e[j][i]) / 2;
            anti += std::abs(e[i][j] - e[j][i]) / 2;
        }
    return sym + anti > 0 ? sym / (sym + anti) : 0.0;
}

std::vector<int> parseList(const std::string& text) {
    std::vector<int> values;
    std::stringstream in(text);
    for (std::string item; std::getline(in, item, ',');) values.push_back(std::stoi(item));
    return values;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<int> resolutions = {4, 8, 10, 16, 20, 32, 64};
    std::vector<int> sizes = {1, 4, 16, 64};
    std::string modes = "3d,planar,axisymmetric,sphere,room";
    std::ofstream bins;
    uint32_t state = 1;
    for (int a = 1; a + 1 < argc; a += 2) {
        const std::string flag = argv[a];
        if (flag == "--resolutions")
            resolutions = parseList(argv[a + 1]);
        else if (flag == "--sizes")
            sizes = parseList(argv[a + 1]);
        else if (flag == "--state")
            state = static_cast<uint32_t>(std::stoul(argv[a + 1]));
        else if (flag == "--mode")
            modes = argv[a + 1];
        else if (flag == "--bins") {
            bins.open(argv[a + 1]);
            bins << "mode,faces_per_glob,resolution,decade,pairs,mean_factor,mean_error\n";
        } else {
            std::cerr
                << "usage: hemiray_accuracy [--resolutions 4,8] [--sizes 1,4] [--mode 3d,room]"
                   " [--bins F] [--state K]\n";
            return 2;
        }
    }
    std::printf(
        "mode,faces_per_glob,globs,resolution,rays,seconds,mean_error,max_error,mean_row_error,"
        "max_row_error,reciprocity,repaired_mean_error,repaired_max_error,repaired_mean_row_error,"
        "repaired_max_row_error,weighted_mean_error,weighted_max_error,"
        "exact_closure,exact_reciprocity,closed_form_gap,symmetric_share\n");
    for (const std::string mode : {"3d", "planar", "axisymmetric", "sphere", "room"}) {
        if (modes.find(mode) == std::string::npos) continue;
        for (const int size : sizes) {
            // Box globs are square blocks of k x k faces.
            const int k = static_cast<int>(std::lround(std::sqrt(size)));
            Study s = mode == "3d"       ? box(k, Vec3(1, 1, 1))
                      : mode == "room"   ? box(k, Vec3(4, 3, 2.5))
                      : mode == "sphere" ? sphere(size)
                      : mode == "planar" ? square(size)
                                         : cylinder(size);
            CodeMesh& m = *s.mesh;
            const int32_t n = m.globCount();
            // The exact factors close every row: a check of the formulas above.
            double exactClosure = 0;
            for (const auto& row : s.exact) {
                double sum = 0;
                for (const double f : row) sum += f;
                exactClosure = std::max(exactClosure, std::abs(sum - 1));
            }
            computeFaceGeometry(m.faces);
            const std::vector<double> area = globSurfaceAreas(m.faces, n);
            const double exactReciprocity = reciprocityGap(s.exact, area);
            const double gap = mode == "sphere" ? closedFormGap(s.exact, area) : 0.0;
            const std::vector<uint8_t> active(static_cast<size_t>(n), 1);
            std::vector<int32_t> faces(static_cast<size_t>(n), 0);
            for (const int32_t g : m.faces.faceGlob) ++faces[g];
            for (const int R : resolutions) {
                const Hemisphere hemisphere(m.faces.dimension, R);
                setThreadRandomState(state);
                repair::CsrMatrix F;
                F.rowStart.assign(static_cast<size_t>(n) + 1, 0);
                const std::clock_t start = std::clock();
                for (int32_t g = 0; g < n; ++g) {
                    const std::vector<double> row = m.row(g, hemisphere);
                    for (int32_t j = 0; j < n; ++j)
                        if (row[j] != 0) {
                            F.columns.push_back(j);
                            F.values.push_back(row[j]);
                        }
                    F.rowStart[g + 1] = static_cast<int64_t>(F.columns.size());
                }
                const double seconds = double(std::clock() - start) / CLOCKS_PER_SEC;
                repair::CsrMatrix repaired;
                repair::RepairReport report;
                std::string error;
                if (!repair::repairViewFactors(F, area, active, {}, repaired, report, error)) {
                    std::cerr << "repair failed: " << error << '\n';
                    return 1;
                }
                const Errors before = compare(F, s.exact), after = compare(repaired, s.exact);
                if (bins.is_open() && mode != "sphere" && mode != "room")
                    writeBins(bins, mode, size, R, F, s.exact);
                // Each side's estimate weighted by its inverse variance under the law
                // that scripts/accuracy_report.py fits to this study.
                const cli::ErrorLaw law = cli::errorLaw(m.faces.dimension);
                repair::RepairOptions weighted;
                weighted.estimateWeight =
                    repair::estimateWeights(area, faces, law.factorPower, law.facesPower);
                repair::RepairReport weightedReport;
                if (!repair::repairViewFactors(F, area, active, weighted, repaired, weightedReport,
                                               error)) {
                    std::cerr << "repair failed: " << error << '\n';
                    return 1;
                }
                const Errors byLaw = compare(repaired, s.exact);
                std::printf(
                    "%s,%d,%d,%d,%lld,%.4g,%.4g,%.4g,%.4g,%.4g,%.4g,%.4g,%.4g,%.4g,%.4g,%.4g,%.4g,%"
                    ".2g,%.2g,%.4g,%.3g\n",
                    mode.c_str(), size, n, R,
                    static_cast<long long>(m.faces.faceCount()) * hemisphere.size_, seconds,
                    before.meanFactor, before.maxFactor, before.meanRowSum, before.maxRowSum,
                    report.before.weightedReciprocity, after.meanFactor, after.maxFactor,
                    after.meanRowSum, after.maxRowSum, byLaw.meanFactor, byLaw.maxFactor,
                    exactClosure, exactReciprocity, gap, symmetricShare(F, s.exact, area));
                std::fflush(stdout);
            }
        }
    }
    return 0;
}
