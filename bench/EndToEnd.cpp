// End-to-end benchmark driver: builds the benchmark models at sizes from about 10^3
// to 10^6 faces, builds the tree and computes view-factor rows with the run's own
// block loop, and reports faces, rays, tree build time, tracing time, rays per
// second (per thread) and peak memory for each thread count.
//
// Each configuration runs in a fresh process (this program started again with
// --one), so that its peak resident size (getrusage ru_maxrss) is its own. Tracing
// a whole 10^6-face model would take hours; rows are computed for an evenly spread
// sample of globs with about --rays primary rays in all, and the full run's time is
// extrapolated from the rate.
//
// On a machine shared with other work the wall-clock rate of two threads says more
// about the neighbours than about the code, so each thread also measures its own
// CPU time inside the row computations: rays per CPU second stays flat from one to
// two threads exactly when the threads do not slow each other down, and busy share
// (CPU seconds in rows / (threads x wall seconds)) shows the time lost to waiting.
// The block efficiency says how much of that waiting the run's blocks of T globs
// cause by themselves (a block lasts as long as its slowest row), computed from
// the rows' CPU times for blocks of two.
//
//   hemiray_e2e [--models sphere,room,ring,ring-axi] [--faces 1000,10000,...]
//               [--threads 1,2] [--rays N] [--resolution R] [--planar-resolution R]
//               [--csv file]
#include <omp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <limits.h>
#include <sstream>
#include <string>
#include <vector>

#include "models/BenchModels.h"
#include "Hemisphere"
#include "SparseRowVector"
#include "geometry/BspTree.h"
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray::bench {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double peakResidentMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;  // ru_maxrss is in KiB
}

std::vector<std::string> split(const std::string& list) {
    std::vector<std::string> items;
    std::stringstream in(list);
    for (std::string item; std::getline(in, item, ',');)
        if (!item.empty()) items.push_back(item);
    return items;
}

struct Config {
    std::string model;
    int64_t faces = 0;
    int threads = 1;
    int64_t rays = 0;
    int resolution = 0;
};

// The columns of one measurement, also the CSV header.
constexpr const char* csvHeader =
    "model,dimension,faces,threads,resolution,directions,globs_traced,rays,model_s,"
    "tree_build_s,trace_s,rays_per_s,rays_per_s_per_thread,full_run_estimate_s,"
    "row_sum_mean,peak_rss_mib,base_rss_mib,row_cpu_s,rays_per_cpu_s,busy_share,"
    "two_thread_block_efficiency";

double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// One configuration in this process; prints one CSV line.
int runOne(const Config& c) {
    const double baseRss = peakResidentMiB();
    auto start = Clock::now();
    const auto model = makeBenchModel(c.model, c.faces);
    if (!model) {
        std::cerr << "unknown model " << c.model << std::endl;
        return 1;
    }
    const double modelSeconds = secondsSince(start);
    const int32_t dimension = model->dimension;
    const Hemisphere hemisphere(dimension == 2 ? 2 : 3, c.resolution);

    // The tree as the run builds it: the node tree, then its flat tracing copy, the
    // node tree released. Its depth line goes nowhere.
    start = Clock::now();
    const MeshView view{&model->nodes, &model->faces};
    std::streambuf* console = std::cout.rdbuf(nullptr);
    const TraversalTree tree(BspNode(dimension, &view, true));
    std::cout.rdbuf(console);
    // 3D models trace through the BVH unless HEMIRAY_ENGINE=bsp, as runs do.
    const RayTracer tracer(tree, model->faces, traceEngineFromEnvironment());
    const double buildSeconds = secondsSince(start);

    // Every stride-th glob, so that about c.rays primary rays are traced.
    const int32_t globCount = model->globs->globCount();
    const int64_t allRays = static_cast<int64_t>(globCount) * hemisphere.size_;
    const int64_t stride = std::max<int64_t>(1, allRays / std::max<int64_t>(1, c.rays));
    std::vector<int32_t> sample;
    for (int64_t g = 0; g < globCount; g += stride) sample.push_back(static_cast<int32_t>(g));
    const int64_t rays = static_cast<int64_t>(sample.size()) * hemisphere.size_;

    // The run's block loop: one parallel region per block of T globs, slot i on
    // thread i modulo T, rows reused block after block.
    omp_set_dynamic(0);
    const int32_t slots = c.threads;
    std::vector<SparseRowVector> rows(static_cast<size_t>(slots));
    for (auto& row : rows) row.resize(globCount);
    double rowSum = 0;
    // Per thread, a cache line apart.
    constexpr size_t pad = 8;
    std::vector<double> busy(static_cast<size_t>(slots) * pad, 0.0);
    std::vector<double> globSeconds(sample.size(), 0.0);  // CPU time of each row
    const int32_t count = static_cast<int32_t>(sample.size());
    const FaceSet& faces = model->faces;
    const GlobTable& globs = *model->globs;
    const ZoneTable& zones = model->zones;
    start = Clock::now();
    for (int32_t first = 0; first < count; first += slots) {
        const int32_t chunk = std::min(slots, count - first);
#pragma omp parallel num_threads(c.threads) default(none) \
    shared(chunk, sample, first, dimension, hemisphere, faces, globs, zones, tracer, rows, busy, \
               globSeconds)
        {
#pragma omp for schedule(static, 1)
            for (int32_t i = 0; i < chunk; ++i) {
                const double cpuStart = threadCpuSeconds();
                computeViewFactorRow(sample[static_cast<size_t>(first + i)], dimension, hemisphere,
                                     faces, globs, zones, tracer, rows[static_cast<size_t>(i)]);
                const double seconds = threadCpuSeconds() - cpuStart;
                busy[static_cast<size_t>(omp_get_thread_num()) * pad] += seconds;
                globSeconds[static_cast<size_t>(first + i)] = seconds;
            }
        }
        for (int32_t i = 0; i < chunk; ++i) {
            SparseRowVector& row = rows[static_cast<size_t>(i)];
            for (int k = 0; k < row.np; ++k) rowSum += row.valueAt(row.columnAt(k));
            row.clear();
        }
    }
    const double traceSeconds = secondsSince(start);
    const double raysPerSecond = static_cast<double>(rays) / traceSeconds;
    double rowCpuSeconds = 0;
    for (size_t t = 0; t < static_cast<size_t>(slots); ++t) rowCpuSeconds += busy[t * pad];
    // The share of two threads' time that the run's blocks of two globs would keep
    // busy, from the rows' own CPU times: each block lasts as long as its slower
    // row. Independent of the machine's other load; 1 means no waiting at all.
    double pairSum = 0, pairMax = 0;
    for (size_t g = 0; g + 1 < globSeconds.size(); g += 2) {
        pairSum += globSeconds[g] + globSeconds[g + 1];
        pairMax += 2 * std::max(globSeconds[g], globSeconds[g + 1]);
    }
    const double blockEfficiency = pairMax > 0 ? pairSum / pairMax : 1.0;

    std::cout << c.model << ',' << dimension << ',' << model->faces.faceCount() << ','
              << c.threads << ',' << hemisphere.resolution << ',' << hemisphere.size_ << ','
              << sample.size() << ',' << rays << ',' << modelSeconds << ',' << buildSeconds
              << ',' << traceSeconds << ',' << raysPerSecond << ',' << raysPerSecond / c.threads
              << ',' << static_cast<double>(allRays) / raysPerSecond << ','
              << rowSum / static_cast<double>(sample.size()) << ',' << peakResidentMiB() << ','
              << baseRss << ',' << rowCpuSeconds << ',' << static_cast<double>(rays) / rowCpuSeconds
              << ',' << rowCpuSeconds / (c.threads * traceSeconds) << ',' << blockEfficiency
              << std::endl;
    return 0;
}

std::string selfPath() {
    char buffer[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (length <= 0) return {};
    buffer[length] = '\0';
    return buffer;
}

std::string human(double value) {
    std::ostringstream s;
    if (value >= 1e6) s << std::fixed << std::setprecision(2) << value / 1e6 << " M";
    else if (value >= 1e3) s << std::fixed << std::setprecision(1) << value / 1e3 << " k";
    else s << std::fixed << std::setprecision(0) << value;
    return s.str();
}

// Starts one process per configuration and prints the table as it goes.
int runAll(const std::vector<std::string>& modelNames, const std::vector<int64_t>& faceCounts,
           const std::vector<int>& threadCounts, int64_t rays, int resolution,
           int planarResolution, const std::string& csvName) {
    const std::string self = selfPath();
    std::ofstream csv;
    if (!csvName.empty()) {
        csv.open(csvName);
        csv << csvHeader << '\n';
    }
    std::cout << "| model | faces | threads | rays | tree build (s) | trace (s) | rays/s | "
                 "rays/s/thread | rays/CPU-s | busy | full run est. (s) | peak RSS (MiB) |\n"
              << "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|" << std::endl;
    for (const std::string& name : modelNames)
        for (const int64_t faces : faceCounts)
            for (const int threads : threadCounts) {
                const int r = name == "ring" ? planarResolution : resolution;
                std::ostringstream command;
                command << '"' << self << "\" --one " << name << ' ' << faces << ' ' << threads
                        << ' ' << rays << ' ' << r;
                FILE* child = popen(command.str().c_str(), "r");
                if (!child) return 1;
                std::string line;
                char buffer[1024];
                while (std::fgets(buffer, sizeof buffer, child)) line += buffer;
                if (pclose(child) != 0 || line.empty()) {
                    std::cerr << "failed: " << command.str() << std::endl;
                    return 1;
                }
                if (csv) csv << line << std::flush;
                const std::vector<std::string> f = split(line.substr(0, line.find('\n')));
                std::cout << "| " << f[0] << " | " << f[2] << " | " << f[3] << " | "
                          << human(std::stod(f[7])) << " | " << std::setprecision(3)
                          << std::stod(f[9]) << " | " << std::stod(f[10]) << " | "
                          << human(std::stod(f[11])) << " | " << human(std::stod(f[12]))
                          << " | " << human(std::stod(f[18])) << " | " << std::setprecision(2)
                          << std::stod(f[19]) << " | " << std::setprecision(4) << std::stod(f[13]) << " | "
                          << std::setprecision(4) << std::stod(f[15]) << " |" << std::endl;
            }
    return 0;
}

}  // namespace
}  // namespace hemiray::bench

int main(int argc, char** argv) {
    using namespace hemiray::bench;
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 6 && args[0] == "--one") {
        Config c;
        c.model = args[1];
        c.faces = std::stoll(args[2]);
        c.threads = std::stoi(args[3]);
        c.rays = std::stoll(args[4]);
        c.resolution = std::stoi(args[5]);
        return runOne(c);
    }
    std::vector<std::string> modelNames = benchModelNames();
    std::vector<int64_t> faceCounts = {1000, 3000, 10000, 30000, 100000, 300000, 1000000};
    std::vector<int> threadCounts = {1, 2};
    int64_t rays = 1 << 19;
    int resolution = 16;         // 3D and axisymmetric: 768 directions per face
    int planarResolution = 384;  // planar: 768 directions per face
    std::string csvName;
    for (size_t i = 0; i + 1 < args.size(); i += 2) {
        const std::string& key = args[i];
        const std::string& value = args[i + 1];
        if (key == "--models") modelNames = split(value);
        else if (key == "--faces") {
            faceCounts.clear();
            for (const auto& item : split(value)) faceCounts.push_back(std::llround(std::stod(item)));
        } else if (key == "--threads") {
            threadCounts.clear();
            for (const auto& item : split(value)) threadCounts.push_back(std::stoi(item));
        } else if (key == "--rays") rays = std::llround(std::stod(value));
        else if (key == "--resolution") resolution = std::stoi(value);
        else if (key == "--planar-resolution") planarResolution = std::stoi(value);
        else if (key == "--csv") csvName = value;
        else {
            std::cerr << "unknown option " << key << std::endl;
            return 2;
        }
    }
    if (args.size() % 2 != 0) {
        std::cerr << "options come in pairs: --models --faces --threads --rays --resolution "
                     "--planar-resolution --csv"
                  << std::endl;
        return 2;
    }
    return runAll(modelNames, faceCounts, threadCounts, rays, resolution, planarResolution,
                  csvName);
}
