// Glob areas from the model's faces.
#include "repair/GlobAreas.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "geometry/FaceGeometry.h"

namespace hemiray::repair {

std::vector<double> globAreas(FaceSet& faces, int32_t globCount) {
    computeFaceGeometry(faces);
    std::vector<double> area(static_cast<size_t>(std::max(globCount, 0)), 0.0);
    for (int32_t f = 0; f < faces.faceCount(); ++f) {
        const int32_t g = faces.faceGlob[f];
        if (g < 0 || g >= globCount) continue;
        double a = norm(faces.faceNormal[f]);
        // The library weighs axisymmetric faces by segment length; physical
        // reciprocity holds for the revolved area 2 pi r L.
        if (faces.dimension == 1) a *= 2 * std::numbers::pi * std::abs(faces.faceCentroid[f][1]);
        area[g] += a;
    }
    return area;
}

}  // namespace hemiray::repair
