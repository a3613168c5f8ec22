// The representative point of each glob: the area-weighted centroid of its faces,
// which for a curved glob lies off the surface, moved along the glob's summed area
// vector onto the first of its faces that the ray reaches.
#include "geometry/GlobCentroids.h"

#include <limits>

#include "geometry/RayTraversal.h"

namespace hemiray {

void placeGlobCentroids(GlobTable& globs) {
    const FaceSet& faces = *globs.faces;
    constexpr double largest = std::numeric_limits<double>::max();
    const int32_t globCount = globs.globCount();
    for (int32_t g = 0; g < globCount; ++g) {
        const auto first = static_cast<size_t>(globs.globFaceStart[static_cast<size_t>(g)]);
        const auto last = static_cast<size_t>(globs.globFaceStart[static_cast<size_t>(g) + 1]);
        Vec3 normal;
        Vec3 weighted;
        double total = 0.0;
        for (size_t i = first; i < last; ++i) {
            const auto f = static_cast<size_t>(globs.globFaces[i]);
            normal += faces.faceNormal[f];
            const double w = norm(faces.faceNormal[f]);
            weighted += faces.faceCentroid[f] * w;
            total += w;
        }
        // A glob without faces (or without area) gets 0/0 here, as a degenerate face does.
        const Vec3 C(weighted[0] / total, weighted[1] / total, weighted[2] / total);
        globs.globNormal[static_cast<size_t>(g)] = normal;
        globs.globCentroid[static_cast<size_t>(g)] = C;
        if (last - first <= 1) continue;

        // The same test as tracing, so its facing rule and minimum distance apply: a
        // flat glob's centroid is already on its plane and stays where it is.
        for (size_t i = first; i < last; ++i) {
            const int32_t f = globs.globFaces[i];
            double t = 0.0;
            if (intersectFace(faces, f, C, normal, 0.0, largest, t)) {
                globs.globCentroid[static_cast<size_t>(g)] = C + normal * t;
                break;
            }
            if (intersectFace(faces, f, C, -normal, 0.0, largest, t)) {
                globs.globCentroid[static_cast<size_t>(g)] = C - normal * t;
                break;
            }
        }
    }
}

}  // namespace hemiray
