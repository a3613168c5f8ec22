// Repair of a large result: a synthetic closed enclosure of G globs whose rows see
// 100 neighbours each (a symmetric band pattern, 100 G entries), areas between 0.5
// and 1.5, and the energy of each pair sampled twice with 10 % noise, rows closed
// as the sampler closes them. Reports the balancing sweeps, the result's size and
// the peak memory the repair adds to it.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "repair/ViewFactorRepair.h"

namespace hemiray::bench {
namespace {

// A uniform number in [0, 1) from a key, the same on every platform.
double uniform(uint64_t key) {
    key += 0x9e3779b97f4a7c15ULL;
    key = (key ^ (key >> 30)) * 0xbf58476d1ce4e5b9ULL;
    key = (key ^ (key >> 27)) * 0x94d049bb133111ebULL;
    return double((key ^ (key >> 31)) >> 11) * 0x1.0p-53;
}

struct Synthetic {
    repair::CsrMatrix F;
    std::vector<double> area;
    std::vector<uint8_t> active;
};

Synthetic synthetic(int32_t globs, int32_t half) {
    Synthetic s;
    s.area.resize(static_cast<size_t>(globs));
    s.active.assign(static_cast<size_t>(globs), 1);
    for (int32_t g = 0; g < globs; ++g) s.area[g] = 0.5 + uniform(uint64_t(g));
    s.F.rowStart.reserve(static_cast<size_t>(globs) + 1);
    s.F.columns.reserve(size_t(globs) * 2 * half);
    s.F.values.reserve(size_t(globs) * 2 * half);
    for (int32_t i = 0; i < globs; ++i) {
        const int64_t begin = static_cast<int64_t>(s.F.columns.size());
        double sum = 0;
        for (int32_t k = -half; k <= half; ++k) {
            if (k == 0) continue;
            const int32_t j = ((i + k) % globs + globs) % globs;
            const uint64_t pair =
                uint64_t(std::min(i, j)) * uint64_t(globs) + uint64_t(std::max(i, j));
            const double energy = (0.5 + uniform(pair)) * (0.9 + 0.2 * uniform(pair * 2 + (i < j)));
            s.F.columns.push_back(j);
            s.F.values.push_back(energy / s.area[i]);
            sum += energy / s.area[i];
        }
        for (int64_t k = begin; k < static_cast<int64_t>(s.F.values.size()); ++k)
            s.F.values[k] /= sum;
        s.F.rowStart.push_back(static_cast<int64_t>(s.F.columns.size()));
    }
    return s;
}

// Resident and peak resident memory in bytes; writing 5 to clear_refs resets the peak.
int64_t statusBytes(const std::string& field) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(field, 0) == 0) return std::stoll(line.substr(field.size())) * 1024;
    return -1;
}

void RepairClosed(benchmark::State& state) {
    const Synthetic s = synthetic(static_cast<int32_t>(state.range(0)), 50);
    const double resultBytes = double(s.F.columns.size()) * 12 + double(s.F.rowStart.size()) * 8;
    int32_t sweeps = 0;
    double extraBytes = 0;
    for (auto _ : state) {
        std::ofstream("/proc/self/clear_refs") << "5";
        const int64_t before = statusBytes("VmRSS:");
        repair::CsrMatrix repaired;
        repair::RepairReport report;
        std::string error;
        if (!repair::repairViewFactors(s.F, s.area, s.active, {}, repaired, report, error))
            state.SkipWithError(error.c_str());
        extraBytes = double(statusBytes("VmHWM:") - before);
        sweeps = report.sweeps;
        benchmark::DoNotOptimize(repaired.values.data());
    }
    state.counters["entries"] = double(s.F.columns.size());
    state.counters["sweeps"] = sweeps;
    state.counters["result_MiB"] = resultBytes / (1 << 20);
    state.counters["extra_peak_MiB"] = extraBytes / (1 << 20);
    state.counters["extra_per_result"] = extraBytes / resultBytes;
}
BENCHMARK(RepairClosed)
    ->Arg(10000)
    ->Arg(30000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace
}  // namespace hemiray::bench

BENCHMARK_MAIN();
