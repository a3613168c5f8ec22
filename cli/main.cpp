// hemiray: the command-line face of the library. Runs models, writes example
// models, checks results for closure and reciprocity, and runs a demonstration.
// Argument checks live here; the computation is the library's.
#include <CLI/CLI.hpp>

#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "ErrorBands.h"
#include "Hemisphere"
#include "ModelFile.h"
#include "MpiLaunch.h"
#include "Repair.h"
#include "ResultFile.h"
#include "RunNames.h"
#include "SupervisedRun.h"
#include "hemiray/raytracing.h"
#include "hemiray/version.h"
#include "input/MeshBlockPacker.h"
#include "models/ExampleModels.h"
#include "run/BlockFromText.h"
#include "run/InputSource.h"
#include "run/OutputSink.h"

namespace fs = std::filesystem;
using namespace hemiray;

namespace {

int fail(const std::string& message) {
    std::cerr << "hemiray: " << message << std::endl;
    return 1;
}

struct RunArgs {
    std::string input;
    std::string output;
    int threads = 0;
    bool binary = false;
    bool force = false;
    bool block = false;   // the input is a packed block, handed over in memory
    bool direct = false;  // ... as a direct block pointing into it
    std::string header = "hemiray";
};

// An explicit --threads wins; otherwise OMP_NUM_THREADS as OpenMP programs read it
// (the first entry of a list), otherwise every core.
int threadCount(int requested) {
    if (requested > 0) return requested;
    if (const char* env = std::getenv("OMP_NUM_THREADS")) {
        char* end = nullptr;
        const long value = std::strtol(env, &end, 10);
        if (end != env && (*end == '\0' || *end == ',') && value > 0 && value <= 4096)
            return static_cast<int>(value);
    }
    return omp_get_num_procs();
}

int runModel(const RunArgs& args) {
    const std::string refusal = cli::inputRefusal(args.input, args.block);
    if (!refusal.empty()) return fail(refusal);
    const std::string output = args.output.empty() ? defaultOutputName(args.input) : args.output;
    if (namesCompress(output) && !namesGzip(output))
        return fail("output name " + output +
                    " contains \".Z\", which would be read as compress data");
    std::error_code ec, inputError, outputError;
    const fs::path inputPath = fs::weakly_canonical(args.input, inputError);
    const fs::path outputPath = fs::weakly_canonical(output, outputError);
    if (fs::equivalent(args.input, output, ec) ||
        (!inputError && !outputError && inputPath == outputPath))
        return fail(output +
                    " is the input itself; run never replaces its input (choose another -o)");
    if (fs::exists(output) && !args.force)
        return fail(output + " exists; use --force to replace it");
    if (fs::exists(output) && !fs::is_regular_file(output))
        return fail(output + " exists and is not a regular file");
    const fs::path folder = fs::absolute(output).parent_path();
    if (!fs::is_directory(folder)) return fail("no such folder: " + folder.string());

    // The model is read and checked here first, so that a fault the library would
    // end the process on, or abort over mid-run, is one line about zone and face.
    // The copy is released before the run, which reads its own.
    {
        cli::ResultFile model;
        std::string error;
        if (!cli::readModel(args.input, args.block, model, error))
            return fail(args.input + ": " + error);
        const std::string problem = cli::findModelProblem(model);
        if (!problem.empty()) return fail(args.input + ": " + problem);
    }

    cli::RunRequest request{args.input,  output,     threadCount(args.threads),
                            args.binary, args.block, args.direct,
                            args.header};
    return cli::superviseRun(request);
}

// Packs a text model (plain, .gz or .Z) into a block file for in-memory runs.
int writeBlock(const std::string& input, const std::string& output, bool force) {
    const std::string refusal = cli::inputRefusal(input, false);
    if (!refusal.empty()) return fail(refusal);
    if (fs::exists(output) && !force) return fail(output + " exists; use --force to replace it");
    auto text = openInputSource(input);
    if (text->fail()) return fail("cannot read " + input);
    std::vector<std::byte> block;
    std::string error;
    if (!packTextModel(*text, block, error)) return fail(input + ": " + error);
    std::ofstream out(output, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(block.data()),
              static_cast<std::streamsize>(block.size()));
    out.close();
    if (!out) return fail("cannot write " + output);
    hemiray_block_head head{};
    std::memcpy(&head, block.data(), sizeof head);
    std::cout << output << ": " << block.size() << " bytes, " << head.nodeCount << " nodes, "
              << head.faceCount << " faces in " << head.faceZoneCount << " zones, "
              << head.periodicCount << " periodic pairs" << std::endl;
    return 0;
}

int generate(const std::string& name, const std::string& output, int n, int resolution,
             bool force) {
    if (n < 1) return fail("--n must be at least 1");
    if (resolution < 1) return fail("--res must be at least 1");
    models::Model model;
    if (!models::makeExample(name, n, resolution, model))
        return fail("unknown case '" + name + "' (hemiray gen --list shows the cases)");
    if (fs::exists(output) && !force) return fail(output + " exists; use --force to replace it");
    const fs::path folder = fs::absolute(output).parent_path();
    if (!fs::is_directory(folder)) return fail("no such folder: " + folder.string());
    OutputSink sink(output, false);
    if (!sink.ok()) return fail("cannot write " + output);
    models::writeModelText(sink.stream(), model);
    if (!sink.commit()) return fail("cannot write " + output);
    std::cout << output << ": " << name << ", " << model.faceCount() << " faces, "
              << model.globCount() << " globs" << std::endl;
    return 0;
}

void printJson(const cli::CheckSummary& s, const cli::ResultFile& r,
               const cli::BandSummary* bands) {
    std::cout << std::setprecision(10) << "{\"dimension\": " << r.sizes.dimension
              << ", \"globs\": " << r.sizes.globCount << ", \"rows\": " << r.rows.size()
              << ", \"binary\": " << (r.binaryRows ? "true" : "false")
              << ", \"hdf5\": " << (r.hdf5 ? "true" : "false")
              << ", \"rowSum\": {\"min\": " << s.minRowSum << ", \"max\": " << s.maxRowSum
              << ", \"mean\": " << s.meanRowSum << "}, \"worstReciprocity\": " << s.worstReciprocity
              << ", \"weightedReciprocity\": " << s.weightedReciprocity << ", \"perGlob\": [";
    for (size_t k = 0; k < s.globs.size(); ++k) {
        const auto& g = s.globs[k];
        std::cout << (k ? ", " : "") << "{\"glob\": " << g.glob << ", \"area\": " << g.area
                  << ", \"rowSum\": " << g.rowSum << ", \"reciprocity\": " << g.worstReciprocity
                  << ", \"partner\": " << g.worstPartner << "}";
    }
    std::cout << "], \"band\": ";
    if (bands)
        cli::printBandsJson(std::cout, *bands);
    else
        std::cout << "null";
    std::cout << "}" << std::endl;
}

void printTable(const cli::CheckSummary& s, const cli::ResultFile& r, bool perGlob) {
    if (perGlob) {
        std::cout << "  glob        area     row sum  reciprocity  (with glob)\n";
        for (const auto& g : s.globs)
            std::cout << std::setw(6) << g.glob << std::setw(12) << std::setprecision(5) << g.area
                      << std::setw(12) << std::fixed << std::setprecision(6) << g.rowSum
                      << std::setw(13) << std::scientific << std::setprecision(2)
                      << g.worstReciprocity << std::defaultfloat << "  (" << g.worstPartner
                      << ")\n";
    }
    std::cout << "rows: " << r.rows.size() << " of " << r.sizes.globCount << " globs ("
              << (r.hdf5         ? "HDF5"
                  : r.binaryRows ? "binary"
                                 : "text")
              << ")\n"
              << std::fixed << std::setprecision(6) << "closure (row sums): min " << s.minRowSum
              << ", max " << s.maxRowSum << ", mean " << s.meanRowSum << '\n'
              << std::scientific << std::setprecision(3)
              << "reciprocity: largest |A_i F_ij - A_j F_ji| / (A_i F_ij) = " << s.worstReciprocity
              << ", over all pairs sum |A_i F_ij - A_j F_ji| / sum A_i F_ij = "
              << s.weightedReciprocity << std::defaultfloat << std::endl;
}

// Closure, reciprocity and the sampling-error bands of a result read whole.
int reportResult(cli::ResultFile& result, bool json, bool perGlob) {
    const auto summary = cli::checkResult(result);
    // A result whose rows do not form a matrix of its globs (a glob with two rows)
    // still gets its totals; only the bands need the matrix.
    cli::BandSummary bands;
    std::string error;
    const bool banded = cli::checkBands(result, bands, error);
    if (json) {
        printJson(summary, result, banded ? &bands : nullptr);
        return 0;
    }
    printTable(summary, result, perGlob);
    if (banded)
        cli::printBands(std::cout, bands, result, perGlob);
    else
        std::cout << "sampling band: not available, " << error << std::endl;
    return 0;
}

int checkResultFile(const std::string& path, bool json, bool perGlob) {
    cli::ResultFile result;
    std::string error;
    if (!cli::readResultFile(path, result, error)) return fail(path + ": " + error);
    return reportResult(result, json, perGlob);
}

int checkModel(const cli::ResultFile& model, const std::string& path) {
    const std::string problem = cli::findModelProblem(model);
    if (!problem.empty()) return fail(path + ": " + problem);
    std::cout << path << ": a model of " << model.allFaces.faceCount() << " faces in "
              << model.zones.zoneCount() << " zones, " << model.sizes.globCount
              << " globs, dimension " << model.sizes.dimension << ": no faults found" << std::endl;
    return 0;
}

// libhdf5 trusts the structures of a file and can crash on a damaged one, so an
// HDF5 result is read in a child process whose end, however it comes, is told.
int checkHdf5Isolated(const std::string& path, bool json, bool perGlob) {
    std::cout.flush();
    const pid_t pid = fork();
    if (pid < 0) return fail("cannot start reading " + path);
    if (pid == 0) {
        const int status = checkResultFile(path, json, perGlob);
        std::cout.flush();
        std::cerr.flush();
        _exit(status);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return fail(path + ": the HDF5 library failed on it (signal " +
                std::to_string(WTERMSIG(status)) + "): a damaged HDF5 file");
}

// A result gets its closure and reciprocity; a model (a text without rows) its
// faults, the ones a run would refuse.
int check(const std::string& path, bool json, bool perGlob) {
    const std::string refusal = cli::fileRefusal(path);
    if (!refusal.empty()) return fail(refusal);
    if (cli::isHdf5File(path)) return checkHdf5Isolated(path, json, perGlob);
    cli::ResultFile result;
    std::string error;
    if (!cli::readTextFile(path, false, result, error)) return fail(path + ": " + error);
    if (!result.hasRows) return checkModel(result, path);
    if (!cli::checkModelBounds(result, error)) return fail(path + ": " + error);
    return reportResult(result, json, perGlob);
}

int demo(int n, int resolution) {
    const fs::path folder = fs::current_path() / "hemiray-demo";
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (!fs::is_directory(folder)) return fail("cannot create " + folder.string());
    const std::string path = (folder / "room.vf").string();
    models::Model model;
    if (!models::makeExample("room", n, resolution, model))
        return fail("cannot build the demo model");
    if (!models::writeModelFile(path, model)) return fail("cannot write " + path);

    const int threads = threadCount(0);
    std::cout << "hemiray demo: a 4 x 3 x 2.5 m room with a box obstacle, " << model.faceCount()
              << " faces in " << model.globCount() << " globs, hemisphere resolution " << resolution
              << ", " << threads << " threads\n"
              << std::endl;
    omp_set_num_threads(threads);
    const auto start = std::chrono::steady_clock::now();
    const int ok = raytracing_lib(0, path.c_str(), nullptr, 1, threads, 1, nullptr, "hemiray demo",
                                  false, false, 0);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (ok != 1) return fail("the demo run failed");

    cli::ResultFile result;
    std::string error;
    if (!cli::readResultFile(path, result, error)) return fail(path + ": " + error);
    const auto summary = cli::checkResult(result);
    cli::BandSummary bands;
    if (!cli::checkBands(result, bands, error)) return fail(path + ": " + error);
    const double rays = double(model.faceCount()) * Hemisphere(3, resolution).size_;
    std::cout << "\nSummary\n"
              << "  globs:        " << model.globCount() << '\n'
              << "  faces:        " << model.faceCount() << '\n'
              << "  rays:         " << static_cast<long long>(rays) << " (before reflections)\n"
              << std::fixed << std::setprecision(2) << "  time:         " << seconds << " s\n"
              << std::setprecision(0) << "  rays/second:  " << rays / seconds << '\n'
              << std::setprecision(6) << "  closure:      row sums " << summary.minRowSum << " to "
              << summary.maxRowSum << " (1 for a closed room)\n"
              << std::scientific << std::setprecision(2)
              << "  reciprocity:  " << summary.weightedReciprocity
              << " of the exchanged energy unbalanced, " << bands.expectedWeightedReciprocity
              << " expected from sampling at this resolution;\n                pairs beyond "
              << std::defaultfloat << cli::errorLaw(3).scatter
              << " times their band: " << bands.pairsBeyond << " of " << bands.pairs
              << " (hemiray repair balances them)\n"
              << "  result file:  " << path << std::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (const auto status = handOverToMpiRun(argc, argv)) return *status;
    // A closed standard output or a file size limit makes writes fail instead of
    // ending the tool before it has cleaned up.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    CLI::App app{
        "hemiray: radiative view factors by ray tracing\n"
        "Meshes from Gmsh, STL, OBJ or VTU: python3 -m hemiray import MESH -o MODEL; results for "
        "ParaView: python3 -m hemiray export RESULT -o OUT.vtu (docs/python.md)"};
    app.set_version_flag("--version", std::string("hemiray ") + HEMIRAY_VERSION_STRING);
    app.require_subcommand(1);

    RunArgs runArgs;
    auto* run = app.add_subcommand("run", "compute the view factors of a model file");
    run->add_option("input", runArgs.input, "model file (plain, .gz or .Z)")->required();
    run->add_option("-o,--output", runArgs.output,
                    "result file (default: the input name with .vf before a trailing .gz or .h5;"
                    " a name containing .h5 gives an HDF5 result)");
    run->add_option("--threads", runArgs.threads, "worker threads (default: every core)");
    run->add_flag("--binary", runArgs.binary, "write binary rows (section 1308)");
    run->add_option("--header", runArgs.header, "text of the result file's first line");
    run->add_flag("--force", runArgs.force, "replace an existing result file");
    run->add_flag("--block", runArgs.block,
                  "the input is a packed block (see 'block'), handed over in memory");
    run->add_flag("--direct", runArgs.direct,
                  "with --block: hand it over as a direct block of pointers to its arrays")
        ->needs("--block");
    // Per-face sampling reaches the library as it reaches any host's: HEMIRAY_SEED.
    std::string sampling;
    uint64_t samplingKey = 0;
    run->add_option("--sampling", sampling,
                    "3D frames: team (default; results depend on --threads) or per-face"
                    " (results independent of threads and processes)")
        ->check(CLI::IsMember({"team", "per-face"}));
    auto* keyOption =
        run->add_option("--seed", samplingKey, "key of per-face sampling (default 0)");
    // Chooses the tracing engine through the library's HEMIRAY_ENGINE, for comparisons.
    std::string runEngine;
    run->add_option("--engine", runEngine, "tracing engine of 3D runs: bvh (default) or bsp")
        ->check(CLI::IsMember({"bsp", "bvh"}));

    std::string blockInput, blockOutput;
    bool blockForce = false;
    auto* blk = app.add_subcommand("block", "pack a text model into an in-memory block file");
    blk->add_option("model", blockInput, "model file (plain, .gz or .Z)")->required();
    blk->add_option("-o,--output", blockOutput, "block file to write")->required();
    blk->add_flag("--force", blockForce, "replace an existing file");

    std::string genCase, genOutput;
    int genN = 4, genRes = 20;
    bool genList = false, genForce = false;
    auto* gen = app.add_subcommand("gen", "write an example model");
    gen->add_option("case", genCase, "example name (see --list)");
    gen->add_option("-o,--output", genOutput, "model file to write (.gz: compressed)");
    gen->add_option("--n", genN, "subdivisions per edge (default 4)");
    gen->add_option("--res", genRes, "hemisphere resolution (default 20)");
    gen->add_flag("--list", genList, "list the example cases");
    gen->add_flag("--force", genForce, "replace an existing file");

    std::string checkPath;
    bool checkJson = false, checkPerGlob = false;
    auto* chk = app.add_subcommand("check", "closure and reciprocity of a result file");
    chk->add_option("result", checkPath, "result file (text or binary rows, plain or .gz, or HDF5)")
        ->required();
    chk->add_flag("--json", checkJson, "print JSON for programs");
    chk->add_flag("--globs", checkPerGlob, "print every glob, not only the totals");

    cli::RepairArgs repairArgs;
    auto* rep = app.add_subcommand("repair", "balance a result's rows for reciprocity and closure");
    rep->add_option("result", repairArgs.input,
                    "result file (text or binary rows, plain or .gz, or HDF5)")
        ->required();
    rep->add_option("-o,--output", repairArgs.output,
                    "repaired result, of the input's kind (.h5 keeps it exact)")
        ->required();
    rep->add_option("--enclosure", repairArgs.enclosure,
                    "closed: rows sum to 1 (default); open: rows above 1 are capped at 1");
    rep->add_option(
        "--average", repairArgs.average,
        "weighted (default): each side of a pair by the inverse"
        " variance of its estimate under the measured error law (docs/accuracy.md); equal:"
        " S_ij = (A_i F_ij + A_j F_ji)/2");
    rep->add_flag("--force", repairArgs.force, "replace an existing file");

    int demoN = 4, demoRes = 40;
    auto* dem = app.add_subcommand("demo", "run an embedded example on every core");
    dem->add_option("--n", demoN, "subdivisions per wall edge (default 4)");
    dem->add_option("--res", demoRes, "hemisphere resolution (default 40)");

    if (argc > 1 && argv[1][0] != '-' &&
        app.get_subcommands([&](const CLI::App* sub) { return sub->get_name() == argv[1]; })
            .empty())
        return fail(std::string("unknown command '") + argv[1] +
                    "' (commands: run, block, gen, check, demo; hemiray --help)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        // One line, like every other complaint of the tool.
        return fail(e.what());
    }

    if (*run) {
        if (run->count("--threads") > 0 && runArgs.threads < 1)
            return fail("--threads must be at least 1");
        if (keyOption->count() > 0 && sampling != "per-face")
            return fail("--seed needs --sampling per-face");
        if (sampling == "per-face") setenv("HEMIRAY_SEED", std::to_string(samplingKey).c_str(), 1);
        if (sampling == "team") unsetenv("HEMIRAY_SEED");
        if (!runEngine.empty()) ::setenv("HEMIRAY_ENGINE", runEngine.c_str(), 1);
        return runModel(runArgs);
    }
    if (*blk) return writeBlock(blockInput, blockOutput, blockForce);
    if (*gen) {
        if (genList) {
            for (const auto& c : models::exampleCases())
                std::cout << std::left << std::setw(16) << c.name << c.description << '\n';
            return 0;
        }
        if (genCase.empty() || genOutput.empty()) return fail("gen needs a case and -o FILE");
        return generate(genCase, genOutput, genN, genRes, genForce);
    }
    if (*chk) return check(checkPath, checkJson, checkPerGlob);
    if (*rep) {
        std::string error;
        return cli::repairResult(repairArgs, std::cout, error) ? 0 : fail(error);
    }
    if (*dem) {
        if (demoN < 1) return fail("--n must be at least 1");
        if (demoRes < 1) return fail("--res must be at least 1");
        return demo(demoN, demoRes);
    }
    return 0;
}
