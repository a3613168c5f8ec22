// One glob's row, as the run computes it: frame, hemisphere directions, tracing and
// scoring, on the benchmark models of every mode. Items per second are primary rays
// per second; each iteration computes the rows of eight globs spread over the model.
#include <benchmark/benchmark.h>

#include <iostream>
#include <map>
#include <memory>

#include "Hemisphere"
#include "SparseRowVector"
#include "geometry/BspTree.h"
#include "geometry/TraversalTree.h"
#include "models/BenchModels.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray::bench {
namespace {

struct Prepared {
    std::unique_ptr<BenchModel> model;
    MeshView view;
    std::unique_ptr<TraversalTree> flat;
};

const Prepared& prepared(int64_t modelIndex, int64_t faces) {
    static std::map<std::pair<int64_t, int64_t>, std::unique_ptr<Prepared>> cache;
    auto& slot = cache[{modelIndex, faces}];
    if (!slot) {
        slot = std::make_unique<Prepared>();
        slot->model = makeBenchModel(benchModelNames()[static_cast<size_t>(modelIndex)], faces);
        slot->view = MeshView{&slot->model->nodes, &slot->model->faces};
        std::streambuf* console = std::cout.rdbuf(nullptr);
        slot->flat =
            std::make_unique<TraversalTree>(BspNode(slot->model->dimension, &slot->view, true));
        std::cout.rdbuf(console);
    }
    return *slot;
}

// Through the flat tracing copy, as the run traces.
void BM_ViewFactorRow(benchmark::State& state) {
    const Prepared& p = prepared(state.range(0), state.range(1));
    const BenchModel& model = *p.model;
    // 768 directions per face in every mode.
    const Hemisphere hemisphere(model.dimension == 2 ? 2 : 3, model.dimension == 2 ? 384 : 16);
    const int32_t globCount = model.globs->globCount();
    SparseRowVector row;
    row.resize(globCount);
    constexpr int32_t globsPerIteration = 8;
    for (auto _ : state) {
        for (int32_t k = 0; k < globsPerIteration; ++k) {
            const int32_t glob = static_cast<int32_t>((static_cast<int64_t>(k) * 2 + 1) *
                                                      globCount / (2 * globsPerIteration));
            computeViewFactorRow(glob, model.dimension, hemisphere, model.faces, *model.globs,
                                 model.zones, *p.flat, row);
            benchmark::DoNotOptimize(row.np);
            row.clear();
        }
    }
    state.SetItemsProcessed(state.iterations() * globsPerIteration * hemisphere.size_);
    state.counters["faces"] = model.faces.faceCount();
    state.SetLabel(model.name);
}

// Arguments: model index (0 sphere, 1 room, 2 ring, 3 ring-axi), face count.
BENCHMARK(BM_ViewFactorRow)
    ->ArgsProduct({{0, 1, 2, 3}, {10000, 100000}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace hemiray::bench
