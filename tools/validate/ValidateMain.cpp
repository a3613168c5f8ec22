// hemiray_validate: measures the accuracy of the view-factor rows against closed
// forms over a sweep of hemisphere resolutions, in the three modes, with run time,
// closure and reciprocity, and compares mirror and periodic models with their full
// models. Writes CSV tables into the output folder:
//   convergence.csv  one line per case and resolution
//   comparisons.csv  every compared view factor: computed, closed form, mesh reference
//   refinement.csv   cases whose error levels off, on coarser and finer meshes
//   equivalence.csv  reduced models against their full models
// Rows are computed on the calling thread, one after the other, and timed by that
// thread's CPU time: single-core seconds that hold on a shared machine.
//
// Usage: hemiray_validate [--out DIR] [--resolutions 4,8,...] [--mode planar,3d]
//                         [--part cases|refinement|equivalence|all] [--quick]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "validate/ValidationCases.h"

namespace {

using namespace hemiray::validation;

struct Options {
    std::string out = "validation-out";
    std::vector<int> resolutions = {4, 8, 12, 16, 24, 32, 48, 64, 96, 128, 200};
    std::vector<std::string> modes = {"planar", "axisymmetric", "3d"};
    std::string part = "all";
    bool quick = false;  // meshes a quarter of the size, for a smoke run
};

[[noreturn]] void usage(const std::string& message) {
    std::cerr << "hemiray_validate: " << message << "\n"
              << "usage: hemiray_validate [--out DIR] [--resolutions 4,8,...] [--mode "
                 "planar,axisymmetric,3d]\n"
              << "                        [--part cases|refinement|equivalence|all] [--quick]\n";
    std::exit(2);
}

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> items;
    std::stringstream list(text);
    std::string item;
    while (std::getline(list, item, ',')) items.push_back(item);
    return items;
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) usage(arg + " needs a value");
            return argv[++i];
        };
        if (arg == "--out") {
            o.out = value();
        } else if (arg == "--resolutions") {
            o.resolutions.clear();
            for (const std::string& item : split(value())) {
                char* end = nullptr;
                const long r = std::strtol(item.c_str(), &end, 10);
                if (item.empty() || *end != '\0' || r < 1 || r > 2000)
                    usage("bad resolution '" + item + "'");
                o.resolutions.push_back(static_cast<int>(r));
            }
            if (o.resolutions.empty()) usage("--resolutions needs at least one value");
        } else if (arg == "--mode") {
            o.modes = split(value());
            for (const std::string& m : o.modes)
                if (m != "planar" && m != "axisymmetric" && m != "3d")
                    usage("unknown mode '" + m + "'");
        } else if (arg == "--part") {
            o.part = value();
            if (o.part != "cases" && o.part != "refinement" && o.part != "equivalence" &&
                o.part != "all")
                usage("unknown part '" + o.part + "'");
        } else if (arg == "--quick") {
            o.quick = true;
        } else {
            usage("unknown argument '" + arg + "'");
        }
    }
    return o;
}

// A mesh size scaled from its default, at least `least`.
int sized(int base, double scale, int least = 1) {
    return std::max(least, static_cast<int>(std::lround(base * scale)));
}

template <typename T>
struct Entry {
    std::string mode;
    std::function<T(double scale)> build;  // scale 1: the default mesh
    bool refine = false;                   // also run on coarser and finer meshes
};

// Default mesh sizes: fine enough that the mesh error stays near or below the
// sampling error of the middle resolutions, small enough that the sweep to
// resolution 200 takes a few minutes on one core.
std::vector<Entry<Case>> cases() {
    return {
        {"planar", [](double s) { return parallelStrips(sized(64, s)); }},
        {"planar", [](double s) { return perpendicularStrips(sized(64, s)); }},
        {"planar", [](double s) { return closedPolygon(sized(32, s)); }},
        {"planar", [](double s) { return planarChannel(sized(4, s)); }},
        {"axisymmetric", [](double s) { return coaxialDiscs(sized(32, s)); }},
        {"axisymmetric", [](double s) { return coaxialDiscsOneGlob(sized(32, s)); }, true},
        {"axisymmetric", [](double s) { return discToCylinder(sized(32, s), sized(32, s)); }},
        {"axisymmetric", [](double s) { return closedCylinder(sized(32, s), sized(64, s)); }},
        {"axisymmetric", [](double s) { return pipeCell(sized(4, s)); }},
        {"3d", [](double s) { return parallelRectangles(sized(16, s)); }, true},
        {"3d", [](double s) { return perpendicularRectangles(sized(16, s)); }, true},
        {"3d", [](double s) { return coaxialDiscs3d(sized(8, s), sized(32, s, 8)); }, true},
        {"3d", [](double s) { return sphere(sized(16, s, 4), sized(32, s, 8)); }, true},
        {"3d", [](double s) { return cube(sized(8, s)); }, true},
        {"3d", [](double s) { return channel3d(10 * sized(1, s)); }},
    };
}

std::vector<Entry<Equivalence>> equivalences() {
    return {
        {"planar", [](double s) { return planarMirror(sized(32, s)); }},
        {"planar", [](double s) { return planarRotational(sized(16, s)); }},
        {"axisymmetric", [](double s) { return axisymmetricMirror(sized(16, s), sized(32, s)); }},
        {"3d", [](double s) { return cubeMirror(2 * sized(4, s)); }},
    };
}

int wallFaces(const hemiray::FaceSet& faces) {
    int count = 0;
    for (int32_t t : faces.faceZoneType) count += t < hemiray::zoneTypeSpecial;
    return count;
}

int directions(const Case& c, int resolution) {
    return hemiray::Hemisphere(hemiray::hemisphereMode(c.mesh->faces.dimension), resolution).size_;
}

// CSV numbers in full precision; -1 stands for "not applicable".
std::string number(double v) {
    std::ostringstream s;
    s << std::setprecision(10) << v;
    return s.str();
}

void printResult(int resolution, const CaseResult& r) {
    std::printf("  res %4d  %10lld rays  %8.3f s  error %.3e (mesh %.3e, sampling %.3e)",
                resolution, r.rays, r.seconds, r.maxError(), r.maxMeshError(),
                r.maxSamplingError());
    if (r.worstClosure >= 0) std::printf("  closure %.1e", r.worstClosure);
    if (r.worstReciprocity >= 0) std::printf("  reciprocity %.1e", r.worstReciprocity);
    std::printf("\n");
    std::fflush(stdout);
}

class Tables {
public:
    explicit Tables(const std::string& folder) : folder_(folder) {}

    // Opens the file and writes its header on first use, so a run of one part
    // leaves the other parts' files alone.
    std::ofstream& operator()(const std::string& name, const char* header) {
        std::ofstream& file = files_[name];
        if (!file.is_open()) {
            file.open(folder_ + "/" + name);
            if (!file) {
                std::cerr << "hemiray_validate: cannot write " << folder_ << "/" << name
                          << std::endl;
                std::exit(1);
            }
            file << header << '\n';
        }
        return file;
    }

    bool good() const {
        for (const auto& [name, file] : files_)
            if (!file) return false;
        return true;
    }

private:
    std::string folder_;
    std::map<std::string, std::ofstream> files_;
};

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    std::error_code ec;
    std::filesystem::create_directories(options.out, ec);
    Tables tables(options.out);
    const double scale = options.quick ? 0.25 : 1.0;
    auto selected = [&](const std::string& mode) {
        return std::find(options.modes.begin(), options.modes.end(), mode) != options.modes.end();
    };
    auto runs = [&](const char* part) { return options.part == "all" || options.part == part; };

    if (runs("cases")) {
        for (const auto& entry : cases()) {
            if (!selected(entry.mode)) continue;
            const Case c = entry.build(scale);
            std::cout << c.mode << ", " << c.name << ": " << wallFaces(c.mesh->faces) << " faces"
                      << std::endl;
            for (int resolution : options.resolutions) {
                const CaseResult r = evaluate(c, resolution);
                tables("convergence.csv",
                       "mode,case,resolution,directions,faces,rays,seconds,max_abs_error,max_rel_"
                       "error,"
                       "mesh_error,sampling_error,closure,reciprocity")
                    << c.mode << ",\"" << c.name << "\"," << resolution << ','
                    << directions(c, resolution) << ',' << wallFaces(c.mesh->faces) << ',' << r.rays
                    << ',' << number(r.seconds) << ',' << number(r.maxError()) << ','
                    << number(r.maxRelativeError()) << ',' << number(r.maxMeshError()) << ','
                    << number(r.maxSamplingError()) << ',' << number(r.worstClosure) << ','
                    << number(r.worstReciprocity) << '\n';
                for (size_t k = 0; k < r.comparisons.size(); ++k) {
                    const Comparison& what = c.comparisons[k];
                    tables("comparisons.csv",
                           "mode,case,resolution,from,to,computed,analytic,reference")
                        << c.mode << ",\"" << c.name << "\"," << resolution << ",\""
                        << c.surfaces[static_cast<size_t>(what.from)].name << "\",\""
                        << c.surfaces[static_cast<size_t>(what.to)].name << "\","
                        << number(r.comparisons[k].computed) << ','
                        << number(r.comparisons[k].analytic) << ','
                        << number(r.comparisons[k].reference) << '\n';
                }
                printResult(resolution, r);
            }
        }
    }

    // Where the error levels off with resolution, the mesh decides: the same cases
    // on half and twice the mesh size at one middle resolution.
    if (runs("refinement")) {
        constexpr int resolution = 32;
        for (const auto& entry : cases()) {
            if (!entry.refine || !selected(entry.mode)) continue;
            for (double factor : {0.5, 1.0, 2.0}) {
                const Case c = entry.build(scale * factor);
                const CaseResult r = evaluate(c, resolution);
                std::cout << c.mode << ", " << c.name << ": " << wallFaces(c.mesh->faces)
                          << " faces" << std::endl;
                tables("refinement.csv",
                       "mode,case,resolution,faces,rays,seconds,max_abs_error,mesh_error,sampling_"
                       "error")
                    << c.mode << ",\"" << c.name << "\"," << resolution << ','
                    << wallFaces(c.mesh->faces) << ',' << r.rays << ',' << number(r.seconds) << ','
                    << number(r.maxError()) << ',' << number(r.maxMeshError()) << ','
                    << number(r.maxSamplingError()) << '\n';
                printResult(resolution, r);
            }
        }
    }

    if (runs("equivalence")) {
        for (const auto& entry : equivalences()) {
            if (!selected(entry.mode)) continue;
            const Equivalence e = entry.build(scale);
            std::cout << e.mode << ", " << e.name << std::endl;
            for (int resolution : options.resolutions) {
                const EquivalenceResult r = compare(e, resolution);
                tables("equivalence.csv",
                       "mode,model,resolution,max_difference,full_closure,reduced_closure,full_"
                       "seconds,"
                       "reduced_seconds,full_rays,reduced_rays")
                    << e.mode << ",\"" << e.name << "\"," << resolution << ','
                    << number(r.maxDifference) << ',' << number(r.fullClosure) << ','
                    << number(r.reducedClosure) << ',' << number(r.fullSeconds) << ','
                    << number(r.reducedSeconds) << ',' << r.fullRays << ',' << r.reducedRays
                    << '\n';
                std::printf(
                    "  res %4d  max |reduced - full| %.3e  closure full %.1e reduced %.1e"
                    "  (%.3f s full, %.3f s reduced)\n",
                    resolution, r.maxDifference, r.fullClosure, r.reducedClosure, r.fullSeconds,
                    r.reducedSeconds);
                std::fflush(stdout);
            }
        }
    }
    return tables.good() ? 0 : 1;
}
