// A whole run whose rays are traced by Embree 3, for comparison with `hemiray run`:
//
//   hemiray_embree_run MODEL -o RESULT [--threads N] [--binary] [--compare]
//
// It reads the model with this library's reader, computes the face geometry, then
// runs this library's compute-and-write phase (frames, directions, mirror and
// periodic steps, rows, the same text, binary or gzip writer) with one change: the
// nearest hit of every straight piece of a ray comes from rtcIntersect1 on an
// Embree scene of the participating faces, in place of the BSP tree and the BVH,
// which are not built. So the two programs differ only in what builds the tree and
// answers a ray; the rest is the same code.
//
// Where Embree's answer differs from ours:
// - Embree tests in single precision (the coordinates rounded to float), ours in
//   double; a ray through or near a shared edge may be given the neighbour.
// - Embree is two-sided; ours hits a face only from the side its area vector points
//   to. Seen from inside a closed model the first face hit faces the ray anyway.
// - Ours skips a face closer than a thousandth of its length scale; Embree starts
//   every ray at one thousandth of the length scale of the smallest face.
// - Faces of 5+ nodes are fans of triangles.
// --compare also traces every ray with this library's tracer (not timed then) and
// prints how many of the traced pieces end on another face or on none.
#include <embree3/rtcore.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "geometry/BspTree.h"
#include "geometry/FaceGeometry.h"
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "output/RowSink.h"
#include "run/ComputeAndWrite.h"
#include "run/InputSource.h"
#include "run/Model.h"

namespace hemiray::bench {
namespace {

// Per ray, both answers of --compare; counted from every thread.
struct Disagreement {
    std::atomic<uint64_t> pieces{0};
    std::atomic<uint64_t> otherFace{0};
};

class EmbreeTracer final : public NearestHitTracer {
public:
    EmbreeTracer(const Model& model, int threads, Disagreement* compare)
        : faces_(model.participatingFaces), compare_(compare) {
        const std::string config = "threads=" + std::to_string(threads);
        device_ = rtcNewDevice(config.c_str());
        scene_ = rtcNewScene(device_);
        const FaceSet& faces = faces_;
        // Triangles (and fans of larger faces) in one geometry, quads in another;
        // each keeps the face of every primitive.
        std::vector<unsigned> triangles, quads;
        double smallestArea = std::numeric_limits<double>::infinity();
        for (int32_t f = 0; f < faces.faceCount(); ++f) {
            const int32_t begin = faces.faceNodeStart[f];
            const int32_t count = faces.faceNodeStart[f + 1] - begin;
            if (count < 3) continue;
            const double area = norm(faces.faceNormal[f]);
            if (area > 0) smallestArea = std::min(smallestArea, area);
            const auto node = [&](int32_t k) {
                return static_cast<unsigned>(faces.faceNodes[begin + k]);
            };
            if (count == 4) {
                for (int32_t k = 0; k < 4; ++k) quads.push_back(node(k));
                quadFace_.push_back(f);
                continue;
            }
            for (int32_t k = 1; k + 1 < count; ++k) {
                triangles.insert(triangles.end(), {node(0), node(k), node(k + 1)});
                triangleFace_.push_back(f);
            }
        }
        tnear_ = std::isfinite(smallestArea) ? static_cast<float>(0.001 * std::sqrt(smallestArea))
                                             : 0.0f;
        triangleGeometry_ = attach(model.nodes, RTC_GEOMETRY_TYPE_TRIANGLE, triangles, 3);
        quadGeometry_ = attach(model.nodes, RTC_GEOMETRY_TYPE_QUAD, quads, 4);
        rtcCommitScene(scene_);
        if (compare_) {
            mesh_ = MeshView{&model.nodes, &model.participatingFaces};
            tree_.emplace(BspNode(3, &*mesh_, true));
            ours_ = std::make_unique<RayTracer>(*tree_, faces_, TraceEngine::Bvh);
        }
    }
    ~EmbreeTracer() override {
        rtcReleaseScene(scene_);
        rtcReleaseDevice(device_);
    }
    EmbreeTracer(const EmbreeTracer&) = delete;
    EmbreeTracer& operator=(const EmbreeTracer&) = delete;

    bool trace(const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) const override {
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        RTCRayHit ray{};
        ray.ray.org_x = static_cast<float>(O[0]);
        ray.ray.org_y = static_cast<float>(O[1]);
        ray.ray.org_z = static_cast<float>(O[2]);
        ray.ray.dir_x = static_cast<float>(D[0]);
        ray.ray.dir_y = static_cast<float>(D[1]);
        ray.ray.dir_z = static_cast<float>(D[2]);
        ray.ray.tnear = tnear_;
        ray.ray.tfar = std::numeric_limits<float>::infinity();
        ray.ray.mask = ~0u;
        ray.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        ray.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
        rtcIntersect1(scene_, &context, &ray);
        const bool hit = ray.hit.geomID != RTC_INVALID_GEOMETRY_ID;
        if (hit) {
            hitFace = ray.hit.geomID == triangleGeometry_ ? triangleFace_[ray.hit.primID]
                                                          : quadFace_[ray.hit.primID];
            const double t = ray.ray.tfar;
            for (int c = 0; c < 3; ++c) hitPoint[c] = O[c] + t * D[c];
        }
        if (compare_) {
            Vec3 ourPoint;
            int32_t ourFace = -1;
            const bool ourHit = ours_->trace(O, D, ourPoint, ourFace);
            compare_->pieces.fetch_add(1, std::memory_order_relaxed);
            if (ourHit != hit || (hit && ourFace != hitFace))
                compare_->otherFace.fetch_add(1, std::memory_order_relaxed);
        }
        return hit;
    }

private:
    unsigned attach(const NodeArray& nodes, RTCGeometryType type,
                    const std::vector<unsigned>& indices, int corners) {
        if (indices.empty()) return RTC_INVALID_GEOMETRY_ID;
        RTCGeometry geometry = rtcNewGeometry(device_, type);
        auto* vertices = static_cast<float*>(
            rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                    3 * sizeof(float), nodes.size()));
        for (size_t i = 0; i < nodes.size(); ++i)
            for (int c = 0; c < 3; ++c) vertices[3 * i + c] = static_cast<float>(nodes[i][c]);
        auto* buffer = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
            geometry, RTC_BUFFER_TYPE_INDEX, 0, corners == 3 ? RTC_FORMAT_UINT3 : RTC_FORMAT_UINT4,
            static_cast<size_t>(corners) * sizeof(unsigned), indices.size() / corners));
        std::copy(indices.begin(), indices.end(), buffer);
        rtcCommitGeometry(geometry);
        const unsigned id = rtcAttachGeometry(scene_, geometry);
        rtcReleaseGeometry(geometry);
        return id;
    }

    const FaceSet& faces_;
    Disagreement* compare_;
    RTCDevice device_ = nullptr;
    RTCScene scene_ = nullptr;
    unsigned triangleGeometry_ = RTC_INVALID_GEOMETRY_ID;
    unsigned quadGeometry_ = RTC_INVALID_GEOMETRY_ID;
    std::vector<int32_t> triangleFace_, quadFace_;
    float tnear_ = 0;
    std::optional<MeshView> mesh_;
    std::optional<TraversalTree> tree_;
    std::unique_ptr<RayTracer> ours_;
};

int usage() {
    std::cerr << "usage: hemiray_embree_run MODEL -o RESULT [--threads N] [--binary] [--compare]\n";
    return 2;
}

}  // namespace
}  // namespace hemiray::bench

int main(int argc, char** argv) {
    using namespace hemiray;
    std::string modelName, resultName;
    int threads = 1;
    bool binary = false, compare = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-o" && i + 1 < argc)
            resultName = argv[++i];
        else if (arg == "--threads" && i + 1 < argc)
            threads = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--binary")
            binary = true;
        else if (arg == "--compare")
            compare = true;
        else if (modelName.empty() && arg[0] != '-')
            modelName = arg;
        else
            return bench::usage();
    }
    if (modelName.empty() || resultName.empty()) return bench::usage();

    const std::clock_t cpuStart = std::clock();
    const double wallStart = omp_get_wtime();
    // As `hemiray run` sets it up: one slot and one team member per thread.
    omp_set_num_threads(threads);
    RunOptions options;
    options.numThreads = threads;
    options.slotCount = omp_get_max_threads();
    options.headerData = "hemiray";
    if (!samplingFromEnvironment(options.sampling)) return 1;

    const std::unique_ptr<std::istream> input = openInputSource(modelName);
    SizeSection sizes;
    if (input->fail() || !readSizeSection(*input, sizes)) {
        std::cerr << "cannot read " << modelName << '\n';
        return 1;
    }
    const std::unique_ptr<Model> model = readTextModel(*input, sizes);
    if (!model || !checkModel(*model) || sizes.dimension != 3) {
        std::cerr << "hemiray_embree_run takes 3D models only\n";
        return 1;
    }
    bench::Disagreement disagreement;
    options.tracerFactory = [threads, &disagreement, compare](const Model& m) {
        std::cout << "# Create Embree scene..." << std::endl;
        return std::make_unique<bench::EmbreeTracer>(m, threads, compare ? &disagreement : nullptr);
    };
    const std::unique_ptr<RowSink> sink = openFileSink(resultName, binary);
    if (!computeAndWrite(*model, options, *sink)) return 1;

    std::cout << "# CPU  time: " << static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC
              << " (s)\n"
              << "# Wall time: " << omp_get_wtime() - wallStart << " (s)\n";
    if (compare)
        std::cout << "# Pieces traced: " << disagreement.pieces
                  << ", on another face than ours: " << disagreement.otherFace << '\n';
    return 0;
}
