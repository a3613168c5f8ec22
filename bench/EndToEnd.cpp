// End-to-end benchmark driver: builds the benchmark models at sizes from about 10^3
// to 10^6 faces and runs each through the library's own run loop (computeAndWrite:
// face geometry, glob points, BSP tree, BVH, the parallel ray loop, rows handed to a
// sink) and reports the phases, rays per second and per CPU second, and peak memory
// for each thread count. Rows go to a sink that only counts them, unless --write
// names a result file to write, so that writing is timed too.
//
// Each configuration runs in a fresh process (this program started again with
// --one), so that its peak resident size (getrusage ru_maxrss) is its own. The
// phases are timed from the run's own console lines ("# Create BSP tree...",
// "# Calculate and write view factors..."), caught as they are printed.
//
// On a machine shared with other work the wall-clock rate of two threads says more
// about the neighbours than about the code; rays per CPU second (process CPU time
// over the row phase) stays flat from one to two threads exactly when the threads
// do not slow each other down.
//
//   hemiray_e2e [--models sphere,room,ring,ring-axi] [--faces 1000,10000,...]
//               [--threads 1,2] [--resolution R] [--planar-resolution R]
//               [--write FILE] [--csv file]
#include <omp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <limits.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Hemisphere"
#include "SparseRowVector"
#include "models/BenchModels.h"
#include "output/RowSink.h"
#include "run/ComputeAndWrite.h"
#include "run/Model.h"

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

double processCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
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
    int resolution = 0;
    std::string write;  // empty: rows are only counted
};

// The columns of one measurement, also the CSV header.
constexpr const char* csvHeader =
    "model,dimension,faces,threads,resolution,directions,rays,model_s,geometry_s,"
    "tree_build_s,rows_s,run_s,rays_per_s,rows_cpu_s,rays_per_cpu_s,row_sum_mean,"
    "peak_rss_mib,base_rss_mib";

// Takes the rows of a run and keeps only their count and the sum of their entries.
class CountingSink final : public RowSink {
public:
    Status begin(const ResultHead&) override { return Status::Ok; }
    bool write(const SparseRowVector& row) override {
        ++rows;
        for (int32_t k = 0; k < row.np; ++k) sum += row.valueAt(row.columnAt(k));
        return true;
    }
    bool finish() override { return true; }
    const std::string& name() const override { return name_; }

    int64_t rows = 0;
    double sum = 0;

private:
    std::string name_ = "counted rows";
};

// Notes the wall and CPU time at which each console line of the run was printed.
class PhaseClock final : public std::streambuf {
public:
    struct Mark {
        std::string line;
        Clock::time_point wall;
        double cpu;
    };
    std::vector<Mark> marks;

    // The time the line starting with `prefix` was printed; `fallback` if none was.
    const Mark& at(const std::string& prefix, const Mark& fallback) const {
        for (const Mark& m : marks)
            if (m.line.rfind(prefix, 0) == 0) return m;
        return fallback;
    }

protected:
    int_type overflow(int_type ch) override {
        if (ch == '\n') {
            marks.push_back({line_, Clock::now(), processCpuSeconds()});
            line_.clear();
        } else if (ch != traits_type::eof()) {
            line_ += static_cast<char>(ch);
        }
        return ch;
    }

private:
    std::string line_;
};

// One configuration in this process; prints one CSV line.
int runOne(const Config& c) {
    const double baseRss = peakResidentMiB();
    auto start = Clock::now();
    const auto bench = makeBenchModel(c.model, c.faces);
    if (!bench) {
        std::cerr << "unknown model " << c.model << std::endl;
        return 1;
    }
    const std::unique_ptr<Model> model = runModelOf(*bench, c.resolution);
    const double modelSeconds = secondsSince(start);
    const int32_t faceCount = model->participatingFaces.faceCount();
    const int64_t directions = Hemisphere(hemisphereMode(bench->dimension), c.resolution).size_;
    const int64_t rays = static_cast<int64_t>(faceCount) * directions;

    RunOptions options;
    options.slotCount = c.threads;
    options.numThreads = c.threads;
    omp_set_dynamic(0);
    CountingSink counter;
    const std::unique_ptr<RowSink> file = c.write.empty() ? nullptr : openFileSink(c.write, false);
    RowSink& sink = file ? *file : static_cast<RowSink&>(counter);

    PhaseClock phases;
    std::streambuf* console = std::cout.rdbuf(&phases);
    const PhaseClock::Mark begin{"", Clock::now(), processCpuSeconds()};
    const bool ok = computeAndWrite(*model, options, sink);
    const PhaseClock::Mark end{"", Clock::now(), processCpuSeconds()};
    std::cout.rdbuf(console);
    if (!ok) return 1;

    const auto seconds = [](const PhaseClock::Mark& a, const PhaseClock::Mark& b) {
        return std::chrono::duration<double>(b.wall - a.wall).count();
    };
    const PhaseClock::Mark& tree = phases.at("# Create BSP tree", begin);
    const PhaseClock::Mark& rows = phases.at("# Calculate and write", tree);
    const double rowSeconds = seconds(rows, end);
    const double rowCpuSeconds = end.cpu - rows.cpu;
    std::cout << c.model << ',' << bench->dimension << ',' << faceCount << ',' << c.threads << ','
              << c.resolution << ',' << directions << ',' << rays << ',' << modelSeconds << ','
              << seconds(begin, tree) << ',' << seconds(tree, rows) << ',' << rowSeconds << ','
              << seconds(begin, end) << ',' << static_cast<double>(rays) / rowSeconds << ','
              << rowCpuSeconds << ',' << static_cast<double>(rays) / rowCpuSeconds << ','
              << counter.sum / static_cast<double>(std::max<int64_t>(counter.rows, 1)) << ','
              << peakResidentMiB() << ',' << baseRss << std::endl;
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
    if (value >= 1e6)
        s << std::fixed << std::setprecision(2) << value / 1e6 << " M";
    else if (value >= 1e3)
        s << std::fixed << std::setprecision(1) << value / 1e3 << " k";
    else
        s << std::fixed << std::setprecision(0) << value;
    return s.str();
}

// Starts one process per configuration and prints the table as it goes.
int runAll(const std::vector<std::string>& modelNames, const std::vector<int64_t>& faceCounts,
           const std::vector<int>& threadCounts, int resolution, int planarResolution,
           const std::string& write, const std::string& csvName) {
    const std::string self = selfPath();
    std::ofstream csv;
    if (!csvName.empty()) {
        csv.open(csvName);
        csv << csvHeader << '\n';
    }
    std::cout << "| model | faces | threads | rays | geometry (s) | tree build (s) | rows (s) | "
                 "whole run (s) | rays/s | rays/CPU-s | peak RSS (MiB) |\n"
              << "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|" << std::endl;
    for (const std::string& name : modelNames)
        for (const int64_t faces : faceCounts)
            for (const int threads : threadCounts) {
                const int r = name == "ring" ? planarResolution : resolution;
                std::ostringstream command;
                command << '"' << self << "\" --one " << name << ' ' << faces << ' ' << threads
                        << ' ' << r << (write.empty() ? "" : " \"" + write + '"');
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
                          << human(std::stod(f[6])) << " | " << std::setprecision(3)
                          << std::stod(f[8]) << " | " << std::stod(f[9]) << " | "
                          << std::stod(f[10]) << " | " << std::stod(f[11]) << " | "
                          << human(std::stod(f[12])) << " | " << human(std::stod(f[14])) << " | "
                          << std::setprecision(4) << std::stod(f[16]) << " |" << std::endl;
            }
    return 0;
}

}  // namespace
}  // namespace hemiray::bench

int main(int argc, char** argv) {
    using namespace hemiray::bench;
    std::vector<std::string> args(argv + 1, argv + argc);
    if ((args.size() == 5 || args.size() == 6) && args[0] == "--one") {
        Config c;
        c.model = args[1];
        c.faces = std::stoll(args[2]);
        c.threads = std::stoi(args[3]);
        c.resolution = std::stoi(args[4]);
        if (args.size() == 6) c.write = args[5];
        return runOne(c);
    }
    std::vector<std::string> modelNames = benchModelNames();
    std::vector<int64_t> faceCounts = {1000, 10000, 100000};
    std::vector<int> threadCounts = {1, 2};
    int resolution = 8;         // 3D and axisymmetric: 192 directions per face
    int planarResolution = 96;  // planar: 192 directions per face
    std::string write;
    std::string csvName;
    if (args.size() % 2 != 0) {
        std::cerr << "options come in pairs: --models --faces --threads --resolution "
                     "--planar-resolution --write --csv"
                  << std::endl;
        return 2;
    }
    for (size_t i = 0; i + 1 < args.size(); i += 2) {
        const std::string& key = args[i];
        const std::string& value = args[i + 1];
        if (key == "--models")
            modelNames = split(value);
        else if (key == "--faces") {
            faceCounts.clear();
            for (const auto& item : split(value))
                faceCounts.push_back(std::llround(std::stod(item)));
        } else if (key == "--threads") {
            threadCounts.clear();
            for (const auto& item : split(value)) threadCounts.push_back(std::stoi(item));
        } else if (key == "--resolution")
            resolution = std::stoi(value);
        else if (key == "--planar-resolution")
            planarResolution = std::stoi(value);
        else if (key == "--write")
            write = value;
        else if (key == "--csv")
            csvName = value;
        else {
            std::cerr << "unknown option " << key << std::endl;
            return 2;
        }
    }
    return runAll(modelNames, faceCounts, threadCounts, resolution, planarResolution, write,
                  csvName);
}
