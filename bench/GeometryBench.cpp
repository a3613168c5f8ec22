// Tree construction and nearest-hit tracing on random closed meshes of every mode:
// the flat tracing copy (the run's path) and testing every face. Items per second
// are traced rays per second.
// The memory counters of the build benchmark count the tree's own bytes: nodes at
// sizeof(BspNode) and 4 bytes per face-list entry ("bytesPerFace"), and the same
// with the allocator's usable block sizes ("allocatedBytesPerFace").
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <limits>
#include <map>

#include "geometry/RayTraversal.h"
#include "geometry/TraversalTree.h"
#include "models/QuietTree.h"
#include "models/RandomMeshes.h"

namespace hemiray {
namespace {

using meshes::Kind;

constexpr Kind kinds[] = {Kind::Axisymmetric, Kind::Planar, Kind::Triangles, Kind::Quads};

// Meshes are expensive to make at 10^6 faces; each is made once per process.
const meshes::Mesh& meshFor(int64_t kindIndex, int64_t faces) {
    static std::map<std::pair<int64_t, int64_t>, std::unique_ptr<meshes::Mesh>> cache;
    auto& slot = cache[{kindIndex, faces}];
    if (!slot) slot = meshes::withFaceCount(kinds[kindIndex], static_cast<int>(faces), 12345);
    return *slot;
}

using models::quietTree;

struct TreeSize {
    int64_t nodes = 0;
    int64_t listEntries = 0;
    int64_t allocated = 0;  // usable sizes of the node and face-list blocks
};

void measure(const BspNode& node, TreeSize& size, bool isRoot) {
    ++size.nodes;
    size.listEntries += node.faceCount;
    size.allocated += isRoot ? static_cast<int64_t>(sizeof(BspNode)) : 0;
    if (node.faceList)
        size.allocated += static_cast<int64_t>(malloc_usable_size(node.faceList.get()));
    for (const auto& child : node.child) {
        if (!child) continue;
        size.allocated += static_cast<int64_t>(malloc_usable_size(child.get()));
        measure(*child, size, false);
    }
}

void setMeshCounters(benchmark::State& state, const meshes::Mesh& mesh) {
    state.counters["faces"] = static_cast<double>(mesh.faces.faceCount());
}

void BM_BuildTree(benchmark::State& state) {
    const meshes::Mesh& mesh = meshFor(state.range(0), state.range(1));
    const MeshView view{&mesh.nodes, &mesh.faces};
    TreeSize size;
    for (auto _ : state) {
        auto root = quietTree(view);
        benchmark::DoNotOptimize(root.get());
        state.PauseTiming();
        size = TreeSize();
        measure(*root, size, true);
        root.reset();
        state.ResumeTiming();
    }
    const double faces = mesh.faces.faceCount();
    setMeshCounters(state, mesh);
    state.counters["nodes"] = static_cast<double>(size.nodes);
    state.counters["refsPerFace"] = static_cast<double>(size.listEntries) / faces;
    state.counters["bytesPerFace"] =
        static_cast<double>(size.nodes * static_cast<int64_t>(sizeof(BspNode)) +
                            size.listEntries * static_cast<int64_t>(sizeof(int32_t))) /
        faces;
    state.counters["allocatedBytesPerFace"] = static_cast<double>(size.allocated) / faces;
    state.SetLabel(meshes::nameOf(kinds[state.range(0)]));
}

// Random rays through the flat tracing copy, as the run traces them.
void BM_TraceFlat(benchmark::State& state) {
    const meshes::Mesh& mesh = meshFor(state.range(0), state.range(1));
    const MeshView view{&mesh.nodes, &mesh.faces};
    const auto root = quietTree(view);
    const TraversalTree flat(*root);
    const auto rays = meshes::randomRays(mesh, 8192, 777);
    int64_t hits = 0;
    for (auto _ : state) {
        for (const meshes::Ray& ray : rays) {
            Vec3 point;
            int32_t face = -1;
            hits += flat.trace(ray.origin, ray.direction, point, face) ? 1 : 0;
            benchmark::DoNotOptimize(face);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(rays.size()));
    setMeshCounters(state, mesh);
    state.counters["hitShare"] =
        static_cast<double>(hits) /
        static_cast<double>(state.iterations() * static_cast<int64_t>(rays.size()));
    state.counters["flatBytesPerFace"] =
        static_cast<double>(flat.bytes()) / static_cast<double>(mesh.faces.faceCount());
    state.SetLabel(meshes::nameOf(kinds[state.range(0)]));
}

// Copying a built tree into its flat form.
void BM_FlattenTree(benchmark::State& state) {
    const meshes::Mesh& mesh = meshFor(state.range(0), state.range(1));
    const MeshView view{&mesh.nodes, &mesh.faces};
    const auto root = quietTree(view);
    for (auto _ : state) {
        const TraversalTree flat(*root);
        benchmark::DoNotOptimize(flat.nodeCount());
    }
    setMeshCounters(state, mesh);
    state.SetLabel(meshes::nameOf(kinds[state.range(0)]));
}

void BM_TraceBruteForce(benchmark::State& state) {
    const meshes::Mesh& mesh = meshFor(state.range(0), state.range(1));
    const FaceSet& faces = mesh.faces;
    // Every ray costs one test per face: few rays on large meshes.
    const auto rays = meshes::randomRays(mesh, state.range(1) >= 100000 ? 32 : 256, 777);
    for (auto _ : state) {
        for (const meshes::Ray& ray : rays) {
            double limit = std::numeric_limits<double>::max();
            int32_t best = -1;
            for (int32_t f = 0; f < faces.faceCount(); ++f) {
                double t = 0;
                if (intersectFace(faces, f, ray.origin, ray.direction, 0.0, limit, t)) {
                    limit = t;
                    best = f;
                }
            }
            benchmark::DoNotOptimize(best);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(rays.size()));
    setMeshCounters(state, mesh);
    state.SetLabel(meshes::nameOf(kinds[state.range(0)]));
}

// Arguments: kind index (0 axisymmetric, 1 planar, 2 triangles, 3 quads), face count.
void meshArguments(benchmark::internal::Benchmark* b) {
    for (int64_t kind = 0; kind < 4; ++kind)
        for (int64_t faces : {10000, 100000}) b->Args({kind, faces});
}

BENCHMARK(BM_BuildTree)->Apply(meshArguments)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TraceFlat)->Apply(meshArguments)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FlattenTree)->Apply(meshArguments)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TraceBruteForce)->Apply(meshArguments)->Unit(benchmark::kMillisecond);

// Tree size at 10^6 faces; one build is enough (and takes a while).
BENCHMARK(BM_BuildTree)
    ->ArgsProduct({{0, 1, 2, 3}, {1000000}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->Name("BM_BuildTree/million");

}  // namespace
}  // namespace hemiray
