// Area vectors and centroids of the faces, and the grouping of faces into globs.
// Both are computed once after the mesh is read; everything later reads them.
#include "geometry/FaceGeometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "Check.h"

namespace hemiray {

namespace {

// The readers store node numbers as read, so a face may name a node that does not
// exist. Every later stage reads node coordinates without checking, so the one pass
// over all faces made here is where such a mesh is stopped.
const Vec3& faceNode(const FaceSet& faces, int32_t entry) {
    const int32_t node = faces.faceNodes[static_cast<size_t>(entry)];
    HEMIRAY_CHECK(node >= 0 && static_cast<size_t>(node) < faces.nodes->size(),
                  "face node index inside the node array");
    return (*faces.nodes)[static_cast<size_t>(node)];
}

// Modes 1 and 2: the segment of the first two nodes; the area vector is the segment
// turned clockwise by a quarter turn, so its length is the segment length. A face
// with a single node is a segment of zero length at that node; a face without nodes
// has no position at all and gets a 0/0 centroid like a degenerate polygon.
void segmentGeometry(const FaceSet& faces, int32_t begin, int32_t end, Vec3& normal,
                     Vec3& centroid) {
    if (end <= begin) {
        const double zero = 0.0;
        centroid = Vec3(zero / zero, zero / zero, zero / zero);
        return;
    }
    const Vec3& p0 = faceNode(faces, begin);
    const Vec3& p1 = faceNode(faces, end - begin >= 2 ? begin + 1 : begin);
    normal[0] = p1[1] - p0[1];
    normal[1] = p0[0] - p1[0];
    centroid = (p0 + p1) * 0.5;
}

// Mode 3: a fan of triangles from the first node; the centroid is the area-weighted
// mean of the triangle centroids. Non-planar or non-convex polygons get the fan's
// result as it stands. Without area the centroid is 0/0 in every component.
void polygonGeometry(const FaceSet& faces, int32_t begin, int32_t end, Vec3& normal,
                     Vec3& centroid) {
    Vec3 area;
    Vec3 weighted;
    double total = 0.0;
    if (end - begin >= 3) {
        const Vec3& p0 = faceNode(faces, begin);
        for (int32_t k = begin + 1; k + 1 < end; ++k) {
            const Vec3& pk = faceNode(faces, k);
            const Vec3& pNext = faceNode(faces, k + 1);
            const Vec3 s = cross(pk - p0, pNext - p0) * 0.5;
            area += s;
            const double triangleArea = norm(s);
            const Vec3 corners = (p0 + pk + pNext) * triangleArea;
            weighted += Vec3(corners[0] / 3.0, corners[1] / 3.0, corners[2] / 3.0);
            total += triangleArea;
        }
    } else {
        // Too few nodes for a triangle: still check the ones there are.
        for (int32_t k = begin; k < end; ++k) (void)faceNode(faces, k);
    }
    normal = area;
    centroid = Vec3(weighted[0] / total, weighted[1] / total, weighted[2] / total);
}

}  // namespace

void computeFaceGeometry(FaceSet& faces) {
    const int32_t faceCount = faces.faceCount();
    faces.faceNormal.assign(static_cast<size_t>(faceCount), Vec3());
    faces.faceCentroid.assign(static_cast<size_t>(faceCount), Vec3());
    const bool segments = faces.dimension == 1 || faces.dimension == 2;
    for (int32_t f = 0; f < faceCount; ++f) {
        const int32_t begin = faces.faceNodeStart[static_cast<size_t>(f)];
        const int32_t end = faces.faceNodeStart[static_cast<size_t>(f) + 1];
        Vec3& normal = faces.faceNormal[static_cast<size_t>(f)];
        Vec3& centroid = faces.faceCentroid[static_cast<size_t>(f)];
        if (segments)
            segmentGeometry(faces, begin, end, normal, centroid);
        else
            polygonGeometry(faces, begin, end, normal, centroid);
    }
}

std::vector<double> globSurfaceAreas(const FaceSet& faces, int32_t globCount) {
    std::vector<double> area(static_cast<size_t>(std::max(globCount, 0)), 0.0);
    for (int32_t f = 0; f < faces.faceCount(); ++f) {
        const int32_t g = faces.faceGlob[static_cast<size_t>(f)];
        if (g < 0 || g >= globCount) continue;
        double a = norm(faces.faceNormal[static_cast<size_t>(f)]);
        if (!(a > 0)) continue;  // a face without nodes has no centroid either
        // The rows weigh axisymmetric faces by segment length alone; the revolved
        // surface is what exchanges radiation.
        if (faces.dimension == 1)
            a *= 2 * std::numbers::pi * std::abs(faces.faceCentroid[static_cast<size_t>(f)][1]);
        area[static_cast<size_t>(g)] += a;
    }
    return area;
}

GlobTable::GlobTable(int32_t globCount, const FaceSet& faceSet) : faces(&faceSet) {
    // A negative count from a corrupt size section means no globs at all.
    const auto globs = static_cast<size_t>(std::max(globCount, 0));
    const int32_t faceCount = faceSet.faceCount();
    globFaceStart.assign(globs + 1, 0);
    globFaces.assign(static_cast<size_t>(faceCount), 0);
    globNormal.assign(globs, Vec3());
    globCentroid.assign(globs, Vec3());
    globActive.assign(globs, false);

    // Ids outside 0..globCount-1 (including -1, "no glob") are left out of every pass.
    const auto globOf = [&](int32_t f) -> int32_t {
        const int32_t g = faceSet.faceGlob[static_cast<size_t>(f)];
        return g >= 0 && static_cast<size_t>(g) < globs ? g : -1;
    };

    // Count into globFaceStart[g + 1], then prefix-sum into start offsets.
    for (int32_t f = 0; f < faceCount; ++f) {
        const int32_t g = globOf(f);
        if (g >= 0) ++globFaceStart[static_cast<size_t>(g) + 1];
    }
    for (size_t g = 0; g < globs; ++g) globFaceStart[g + 1] += globFaceStart[g];

    // Stable placement: faces keep increasing index order within their glob.
    std::vector<int32_t> next(globFaceStart.begin(), globFaceStart.end() - 1);
    for (int32_t f = 0; f < faceCount; ++f) {
        const int32_t g = globOf(f);
        if (g >= 0) globFaces[static_cast<size_t>(next[static_cast<size_t>(g)]++)] = f;
    }

    // The last face of a glob in face order decides alone whether the glob gets a row.
    for (int32_t f = 0; f < faceCount; ++f) {
        const int32_t g = globOf(f);
        if (g >= 0)
            globActive[static_cast<size_t>(g)] =
                faceSet.faceZoneType[static_cast<size_t>(f)] < zoneTypeSpecial;
    }
}

}  // namespace hemiray
