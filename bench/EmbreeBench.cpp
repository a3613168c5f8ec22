// Side-by-side baseline: the same primary rays of the same 3D models (the sphere's
// triangles, the room's quads) traced by this library's tree in double precision
// and by Embree 3's single-ray query rtcIntersect1 in single precision, in one
// process, so that our rate can be quoted as a ratio against Embree's.
//
// Items per second are rays per second over wall time, summed over the threads:
// with two threads each traces the whole ray set, and the rate per thread is half
// the one shown. The
// counters: hitShare, the share of rays that hit a face; agreement (Embree only),
// the share of rays for which Embree reports the same face as this library.
//
// Embree starts each ray at tnear = 0.001 sqrt(area of the emitting face), the
// distance below which this library's polygon test rejects a hit, so that neither
// reports the face the ray starts on.
#include <benchmark/benchmark.h>
#include <embree3/rtcore.h>

#include <chrono>
#include <cmath>
#include <ctime>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <mutex>

#include "Hemisphere"
#include "geometry/BspTree.h"
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "models/BenchModels.h"

namespace hemiray::bench {
namespace {

constexpr int64_t raysPerSet = 1 << 17;

struct Scene {
    std::unique_ptr<BenchModel> model;
    MeshView view;
    std::unique_ptr<BspNode> tree;
    std::unique_ptr<TraversalTree> flat;
    std::unique_ptr<RayTracer> tracer;  // the BVH engine of 3D runs
    double bspBuildSeconds = 0, bvhBuildSeconds = 0, embreeBuildSeconds = 0;
    uint64_t fallbacks = 0;   // rays of the set that the BVH handed to the flat tree
    uint64_t mismatches = 0;  // rays whose BVH answer differs from the flat tree's (must be 0)
    std::vector<BenchRay> rays;
    std::vector<int32_t> ourFaces;  // this library's hit face per ray, -1 for none
    RTCDevice device = nullptr;
    RTCScene scene = nullptr;

    ~Scene() {
        if (scene) rtcReleaseScene(scene);
        if (device) rtcReleaseDevice(device);
    }
};

// This library's trace through the BSP tree's flat copy (HEMIRAY_ENGINE=bsp).
bool traceOurs(const TraversalTree& tree, const Vec3& O, const Vec3& D, int32_t& face) {
    Vec3 point;
    return tree.trace(O, D, point, face);
}

// ... and as 3D runs trace by default: the BVH, certified against the flat tree.
bool traceOurs(const RayTracer& tracer, const Vec3& O, const Vec3& D, int32_t& face) {
    Vec3 point;
    return tracer.trace(O, D, point, face);
}

// The ray set through the BVH tracer as a run traces it: two directions of a face
// at a time. Returns the number of hits; faces[i] gets ray i's face.
template <class Each>
void tracePairs(const RayTracer& tracer, const std::vector<BenchRay>& rays, const Each& each) {
    size_t i = 0;
    for (; i + 1 < rays.size(); i += 2) {
        const Vec3 O[2] = {rays[i].origin, rays[i + 1].origin};
        const Vec3 D[2] = {rays[i].direction, rays[i + 1].direction};
        Vec3 point[2];
        int32_t face[2] = {-1, -1};
        bool hit[2] = {false, false};
        tracer.tracePair(O, D, point, face, hit);
        each(hit[0], face[0]);
        each(hit[1], face[1]);
    }
    for (; i < rays.size(); ++i) {
        int32_t face = -1;
        const bool hit = traceOurs(tracer, rays[i].origin, rays[i].direction, face);
        each(hit, face);
    }
}

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// CPU seconds of the calling thread.
double threadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// One Embree geometry with every face of the model: triangles or quads, the node
// coordinates rounded to float.
RTCGeometry embreeGeometry(RTCDevice device, const BenchModel& model) {
    const FaceSet& faces = model.faces;
    const int32_t corners = faces.faceNodeStart[1] - faces.faceNodeStart[0];
    RTCGeometry geometry =
        rtcNewGeometry(device, corners == 3 ? RTC_GEOMETRY_TYPE_TRIANGLE : RTC_GEOMETRY_TYPE_QUAD);
    auto* vertices = static_cast<float*>(
        rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                3 * sizeof(float), model.nodes.size()));
    for (size_t i = 0; i < model.nodes.size(); ++i)
        for (int c = 0; c < 3; ++c) vertices[3 * i + c] = static_cast<float>(model.nodes[i][c]);
    auto* indices = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
        geometry, RTC_BUFFER_TYPE_INDEX, 0, corners == 3 ? RTC_FORMAT_UINT3 : RTC_FORMAT_UINT4,
        static_cast<size_t>(corners) * sizeof(unsigned), static_cast<size_t>(faces.faceCount())));
    for (size_t k = 0; k < faces.faceNodes.size(); ++k)
        indices[k] = static_cast<unsigned>(faces.faceNodes[k]);
    rtcCommitGeometry(geometry);
    return geometry;
}

bool traceEmbree(RTCScene scene, const BenchModel& model, const BenchRay& ray, int32_t& face) {
    const double area = norm(model.faces.faceNormal[static_cast<size_t>(ray.face)]);
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRayHit hit{};
    hit.ray.org_x = static_cast<float>(ray.origin[0]);
    hit.ray.org_y = static_cast<float>(ray.origin[1]);
    hit.ray.org_z = static_cast<float>(ray.origin[2]);
    hit.ray.dir_x = static_cast<float>(ray.direction[0]);
    hit.ray.dir_y = static_cast<float>(ray.direction[1]);
    hit.ray.dir_z = static_cast<float>(ray.direction[2]);
    hit.ray.tnear = static_cast<float>(0.001 * std::sqrt(area));
    hit.ray.tfar = std::numeric_limits<float>::infinity();
    hit.ray.mask = ~0u;
    hit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    hit.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    rtcIntersect1(scene, &context, &hit);
    if (hit.hit.geomID == RTC_INVALID_GEOMETRY_ID) return false;
    face = static_cast<int32_t>(hit.hit.primID);
    return true;
}

// Arguments: model index (0 sphere, 1 room), face count.
// Built on first use, under a lock: with two benchmark threads both ask for it.
const Scene& sceneFor(int64_t modelIndex, int64_t faces) {
    static std::mutex lock;
    static std::map<std::pair<int64_t, int64_t>, std::unique_ptr<Scene>> cache;
    const std::lock_guard<std::mutex> guard(lock);
    auto& slot = cache[{modelIndex, faces}];
    if (slot) return *slot;
    slot = std::make_unique<Scene>();
    Scene& s = *slot;
    s.model = makeBenchModel(modelIndex == 0 ? "sphere" : "room", faces);
    s.view = MeshView{&s.model->nodes, &s.model->faces};
    std::streambuf* console = std::cout.rdbuf(nullptr);
    auto start = std::chrono::steady_clock::now();
    s.tree = std::make_unique<BspNode>(3, &s.view, true);
    std::cout.rdbuf(console);
    s.flat = std::make_unique<TraversalTree>(*s.tree);
    s.bspBuildSeconds = seconds(start);
    start = std::chrono::steady_clock::now();
    s.tracer = std::make_unique<RayTracer>(*s.flat, s.model->faces, TraceEngine::Bvh);
    s.bvhBuildSeconds = seconds(start);
    const Hemisphere hemisphere(3, 16);
    s.rays = hemisphereRays(*s.model, hemisphere, raysPerSet);
    s.ourFaces.resize(s.rays.size());
    for (size_t i = 0; i < s.rays.size(); ++i) {
        int32_t face = -1;
        s.ourFaces[i] = traceOurs(*s.flat, s.rays[i].origin, s.rays[i].direction, face) ? face : -1;
        Vec3 point, flatPoint;
        int32_t bvhFace = -1;
        const bool hit =
            s.tracer->trace(s.rays[i].origin, s.rays[i].direction, point, bvhFace, s.fallbacks);
        const bool flatHit = s.flat->trace(s.rays[i].origin, s.rays[i].direction, flatPoint, face);
        if (hit != flatHit || (hit && (bvhFace != face || !(point == flatPoint)))) ++s.mismatches;
    }
    start = std::chrono::steady_clock::now();
    s.device = rtcNewDevice(nullptr);
    s.scene = rtcNewScene(s.device);
    RTCGeometry geometry = embreeGeometry(s.device, *s.model);
    rtcAttachGeometry(s.scene, geometry);
    rtcReleaseGeometry(geometry);
    rtcCommitScene(s.scene);
    s.embreeBuildSeconds = seconds(start);
    return s;
}

void setCounters(benchmark::State& state, const Scene& s, int64_t hits) {
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.rays.size()));
    // Counters are summed over the benchmark's threads unless marked as averages.
    state.counters["faces"] =
        benchmark::Counter(s.model->faces.faceCount(), benchmark::Counter::kAvgThreads);
    state.counters["hitShare"] = benchmark::Counter(
        static_cast<double>(hits) /
            static_cast<double>(state.iterations() * static_cast<int64_t>(s.rays.size())),
        benchmark::Counter::kAvgThreads);
    state.SetLabel(s.model->name);
}

// The ray set through this library: the BSP tree's flat copy (BM_Hemiray) or the
// BVH tracer of 3D runs, two rays at a time as runs trace (BM_Bvh).
template <bool ThroughBvh>
void traceRaySet(benchmark::State& state) {
    const Scene& s = sceneFor(state.range(0), state.range(1));
    int64_t hits = 0;
    const auto count = [&hits](bool hit, int32_t face) {
        hits += hit ? 1 : 0;
        benchmark::DoNotOptimize(face);
    };
    for (auto _ : state) {
        if (ThroughBvh) {
            tracePairs(*s.tracer, s.rays, count);
            continue;
        }
        for (const BenchRay& ray : s.rays) {
            int32_t face = -1;
            count(traceOurs(*s.flat, ray.origin, ray.direction, face), face);
        }
    }
    setCounters(state, s, hits);
}

void BM_Hemiray(benchmark::State& state) {
    traceRaySet<false>(state);
}
void BM_Bvh(benchmark::State& state) {
    traceRaySet<true>(state);
}

void BM_Embree(benchmark::State& state) {
    const Scene& s = sceneFor(state.range(0), state.range(1));
    int64_t hits = 0;
    int64_t agree = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < s.rays.size(); ++i) {
            int32_t face = -1;
            const bool hit = traceEmbree(s.scene, *s.model, s.rays[i], face);
            hits += hit ? 1 : 0;
            agree += (hit ? face : -1) == s.ourFaces[i] ? 1 : 0;
            benchmark::DoNotOptimize(face);
        }
    }
    setCounters(state, s, hits);
    state.counters["agreement"] = benchmark::Counter(
        static_cast<double>(agree) /
            static_cast<double>(state.iterations() * static_cast<int64_t>(s.rays.size())),
        benchmark::Counter::kAvgThreads);
}

// The engines in alternation on the same rays, one thread: each iteration traces
// the ray set through the BSP tree's flat copy, the BVH one ray at a time, the BVH
// two rays at a time (as runs trace) and Embree, timed separately in CPU seconds of
// this thread, so that all see the same load from the rest of the machine.
// Counters: each engine's rays per CPU second, the ratios to Embree, the share of
// rays the BVH handed to the flat tree, build times and bytes per face of the flat
// tree and of the BVH.
void BM_Ratio(benchmark::State& state) {
    const Scene& s = sceneFor(state.range(0), state.range(1));
    double bsp = 0, single = 0, bvh = 0, embree = 0;
    // Each engine follows another one, whose data has pushed some of its own out
    // of the caches, as in the order BSP, BVH, Embree before the paired walk.
    for (auto _ : state) {
        const double start = threadCpuSeconds();
        for (const BenchRay& ray : s.rays) {
            int32_t face = -1;
            benchmark::DoNotOptimize(traceOurs(*s.flat, ray.origin, ray.direction, face));
            benchmark::DoNotOptimize(face);
        }
        const double afterBsp = threadCpuSeconds();
        tracePairs(*s.tracer, s.rays, [](bool hit, int32_t face) {
            benchmark::DoNotOptimize(hit);
            benchmark::DoNotOptimize(face);
        });
        const double afterBvh = threadCpuSeconds();
        for (const BenchRay& ray : s.rays) {
            int32_t face = -1;
            benchmark::DoNotOptimize(traceEmbree(s.scene, *s.model, ray, face));
            benchmark::DoNotOptimize(face);
        }
        const double afterEmbree = threadCpuSeconds();
        for (const BenchRay& ray : s.rays) {
            int32_t face = -1;
            benchmark::DoNotOptimize(traceOurs(*s.tracer, ray.origin, ray.direction, face));
            benchmark::DoNotOptimize(face);
        }
        const double end = threadCpuSeconds();
        bsp += afterBsp - start;
        bvh += afterBvh - afterBsp;
        embree += afterEmbree - afterBvh;
        single += end - afterEmbree;
    }
    const double rays =
        static_cast<double>(state.iterations()) * static_cast<double>(s.rays.size());
    const double faces = s.model->faces.faceCount();
    state.counters["faces"] = faces;
    state.counters["bspRate"] = rays / bsp;
    state.counters["bvhRate"] = rays / bvh;
    state.counters["embreeRate"] = rays / embree;
    state.counters["bspRatio"] = embree / bsp;
    state.counters["bvhRatio"] = embree / bvh;
    state.counters["bvhSingleRate"] = rays / single;
    state.counters["bvhSingleRatio"] = embree / single;
    state.counters["fallbackShare"] =
        static_cast<double>(s.fallbacks) / static_cast<double>(s.rays.size());
    state.counters["fallbacks"] = static_cast<double>(s.fallbacks);
    state.counters["mismatches"] = static_cast<double>(s.mismatches);
    state.counters["bspBuildS"] = s.bspBuildSeconds;
    state.counters["bvhBuildS"] = s.bvhBuildSeconds;
    state.counters["embreeBuildS"] = s.embreeBuildSeconds;
    state.counters["bspBytesPerFace"] = static_cast<double>(s.flat->bytes()) / faces;
    state.counters["bvhBytesPerFace"] =
        s.tracer->bvh() ? static_cast<double>(s.tracer->bvh()->bytes()) / faces : 0.0;
    state.SetLabel(s.model->name);
}

void sizes(benchmark::internal::Benchmark* b) {
    for (int64_t model : {0, 1})
        for (int64_t faces : {10000, 100000, 1000000}) b->Args({model, faces});
}

BENCHMARK(BM_Hemiray)
    ->Apply(sizes)
    ->UseRealTime()
    ->Threads(1)
    ->Threads(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Bvh)->Apply(sizes)->UseRealTime()->Threads(1)->Threads(2)->Unit(
    benchmark::kMillisecond);
BENCHMARK(BM_Embree)->Apply(sizes)->UseRealTime()->Threads(1)->Threads(2)->Unit(
    benchmark::kMillisecond);
BENCHMARK(BM_Ratio)->Apply(sizes)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace hemiray::bench

BENCHMARK_MAIN();
