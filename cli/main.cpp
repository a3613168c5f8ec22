// hemiray: the command-line face of the library. Runs models, writes example
// models, checks results for closure and reciprocity, and runs a demonstration.
// Argument checks live here; the computation is the library's.
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <omp.h>
#include <sstream>

#include "Hemisphere"
#include "ResultFile.h"
#include "hemiray/raytracing.h"
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

// "mesh.msh" -> "mesh.msh.vf", "mesh.msh.gz" -> "mesh.msh.vf.gz", "mesh.Z" -> "mesh.vf",
// "mesh.h5" -> "mesh.vf.h5" (an HDF5 result).
std::string defaultOutputName(const std::string& input) {
    auto endsWith = [&](const std::string& tail) {
        return input.size() >= tail.size() && input.compare(input.size() - tail.size(), tail.size(), tail) == 0;
    };
    if (endsWith(".gz")) return input.substr(0, input.size() - 3) + ".vf.gz";
    if (endsWith(".Z")) return input.substr(0, input.size() - 2) + ".vf";
    if (endsWith(".h5")) return input.substr(0, input.size() - 3) + ".vf.h5";
    return input + ".vf";
}

// Copies the model text from input to output, decompressing and compressing as the
// two names ask, so that the library finds under output what its name promises.
bool copyModel(const std::string& input, const std::string& output, std::string& error) {
    auto in = openInputSource(input);
    if (in->fail()) {
        error = "cannot read " + input;
        return false;
    }
    OutputSink sink(output, false);
    if (!sink.ok()) {
        error = "cannot write " + output;
        return false;
    }
    sink.stream() << in->rdbuf();
    // A write that fails part of the way only stops the copy: the stream flags a
    // failure only when nothing at all was copied. What is left unread tells.
    const bool copiedAll = in->rdbuf()->sgetc() == std::char_traits<char>::eof();
    if (!copiedAll || !sink.commit()) {
        error = "cannot write " + output;
        return false;
    }
    return true;
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

// Reads a packed block file whole. The library trusts a packed block's length
// field as the number of bytes it may read, so it must match the file.
bool readBlockFile(const std::string& path, std::vector<std::byte>& block, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    if (!in || ec) {
        error = "cannot read " + path;
        return false;
    }
    block.resize(static_cast<size_t>(size));
    in.read(reinterpret_cast<char*>(block.data()), static_cast<std::streamsize>(block.size()));
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    hemiray_block_head head{};
    if (block.size() >= sizeof head) std::memcpy(&head, block.data(), sizeof head);
    if (block.size() < sizeof head || head.tag != HEMIRAY_PACKED_TAG) {
        error = path + " is not a packed block (hemiray block writes one)";
        return false;
    }
    if (head.totalBytes != block.size()) {
        error = path + " holds " + std::to_string(block.size()) + " bytes, its head says " +
                std::to_string(head.totalBytes);
        return false;
    }
    return true;
}

int threadCount(int requested) { return requested > 0 ? requested : omp_get_num_procs(); }

int runModel(const RunArgs& args) {
    if (!fs::exists(args.input)) return fail("no such file: " + args.input);
    const std::string output = args.output.empty() ? defaultOutputName(args.input) : args.output;
    if (namesCompress(output) && !namesGzip(output))
        return fail("output name " + output + " contains \".Z\", which would be read as compress data");
    std::error_code ec;
    const bool inPlace = fs::exists(output) && fs::equivalent(args.input, output, ec);
    if (!inPlace && fs::exists(output) && !args.force)
        return fail(output + " exists; use --force to replace it");
    const fs::path folder = fs::absolute(output).parent_path();
    if (!fs::is_directory(folder)) return fail("no such folder: " + folder.string());

    std::string error;
    std::vector<std::byte> block;
    hemiray_direct_block direct{};
    const void* meshData = nullptr;
    if (args.block) {
        if (inPlace) return fail("a block run needs an output name other than the block's");
        if (!readBlockFile(args.input, block, error)) return fail(error);
        meshData = block.data();
        if (args.direct) {
            direct = directBlockFor(block);
            meshData = &direct;
        }
    } else if (!inPlace && !copyModel(args.input, output, error)) {
        return fail(error);
    }
    const int threads = threadCount(args.threads);
    omp_set_num_threads(threads);
    const int ok = raytracing_lib(args.binary, output.c_str(), nullptr, 1, threads,
                                  args.block ? 0 : 1, meshData, args.header.c_str(), false,
                                  args.direct, 0);
    if (ok != 1) {
        if (!inPlace) fs::remove(output, ec);
        return 1;
    }
    std::cout << "# Result: " << output << std::endl;
    return 0;
}

// Packs a text model (plain, .gz or .Z) into a block file for in-memory runs.
int writeBlock(const std::string& input, const std::string& output, bool force) {
    if (!fs::exists(input)) return fail("no such file: " + input);
    if (fs::exists(output) && !force) return fail(output + " exists; use --force to replace it");
    auto text = openInputSource(input);
    if (text->fail()) return fail("cannot read " + input);
    std::vector<std::byte> block;
    std::string error;
    if (!packTextModel(*text, block, error)) return fail(input + ": " + error);
    std::ofstream out(output, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size()));
    out.close();
    if (!out) return fail("cannot write " + output);
    hemiray_block_head head{};
    std::memcpy(&head, block.data(), sizeof head);
    std::cout << output << ": " << block.size() << " bytes, " << head.nodeCount << " nodes, "
              << head.faceCount << " faces in " << head.faceZoneCount << " zones, "
              << head.periodicCount << " periodic pairs" << std::endl;
    return 0;
}

int generate(const std::string& name, const std::string& output, int n, int resolution, bool force) {
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

void printJson(const cli::CheckSummary& s, const cli::ResultFile& r) {
    std::cout << std::setprecision(10) << "{\"dimension\": " << r.sizes.dimension
              << ", \"globs\": " << r.sizes.globCount << ", \"rows\": " << r.rows.size()
              << ", \"binary\": " << (r.binaryRows ? "true" : "false")
              << ", \"hdf5\": " << (r.hdf5 ? "true" : "false")
              << ", \"rowSum\": {\"min\": " << s.minRowSum << ", \"max\": " << s.maxRowSum
              << ", \"mean\": " << s.meanRowSum << "}, \"worstReciprocity\": " << s.worstReciprocity
              << ", \"weightedReciprocity\": " << s.weightedReciprocity
              << ", \"perGlob\": [";
    for (size_t k = 0; k < s.globs.size(); ++k) {
        const auto& g = s.globs[k];
        std::cout << (k ? ", " : "") << "{\"glob\": " << g.glob << ", \"area\": " << g.area
                  << ", \"rowSum\": " << g.rowSum << ", \"reciprocity\": " << g.worstReciprocity
                  << ", \"partner\": " << g.worstPartner << "}";
    }
    std::cout << "]}" << std::endl;
}

void printTable(const cli::CheckSummary& s, const cli::ResultFile& r, bool perGlob) {
    if (perGlob) {
        std::cout << "  glob        area     row sum  reciprocity  (with glob)\n";
        for (const auto& g : s.globs)
            std::cout << std::setw(6) << g.glob << std::setw(12) << std::setprecision(5) << g.area
                      << std::setw(12) << std::fixed << std::setprecision(6) << g.rowSum
                      << std::setw(13) << std::scientific << std::setprecision(2)
                      << g.worstReciprocity << std::defaultfloat << "  (" << g.worstPartner << ")\n";
    }
    std::cout << "rows: " << r.rows.size() << " of " << r.sizes.globCount << " globs ("
              << (r.hdf5 ? "HDF5" : r.binaryRows ? "binary" : "text") << ")\n"
              << std::fixed << std::setprecision(6) << "closure (row sums): min " << s.minRowSum
              << ", max " << s.maxRowSum << ", mean " << s.meanRowSum << '\n'
              << std::scientific << std::setprecision(3)
              << "reciprocity: largest |A_i F_ij - A_j F_ji| / (A_i F_ij) = " << s.worstReciprocity
              << ", over all pairs sum |A_i F_ij - A_j F_ji| / sum A_i F_ij = "
              << s.weightedReciprocity << std::defaultfloat << std::endl;
}

int check(const std::string& path, bool json, bool perGlob) {
    if (!fs::exists(path)) return fail("no such file: " + path);
    cli::ResultFile result;
    std::string error;
    if (!cli::readResultFile(path, result, error)) return fail(path + ": " + error);
    const auto summary = cli::checkResult(result);
    if (json) printJson(summary, result);
    else printTable(summary, result, perGlob);
    return 0;
}

int demo(int n, int resolution) {
    const fs::path folder = fs::current_path() / "hemiray-demo";
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (!fs::is_directory(folder)) return fail("cannot create " + folder.string());
    const std::string path = (folder / "room.vf").string();
    models::Model model;
    if (!models::makeExample("room", n, resolution, model)) return fail("cannot build the demo model");
    if (!models::writeModelFile(path, model)) return fail("cannot write " + path);

    const int threads = omp_get_num_procs();
    std::cout << "hemiray demo: a 4 x 3 x 2.5 m room with a box obstacle, " << model.faceCount()
              << " faces in " << model.globCount() << " globs, hemisphere resolution "
              << resolution << ", " << threads << " threads\n" << std::endl;
    omp_set_num_threads(threads);
    const auto start = std::chrono::steady_clock::now();
    const int ok = raytracing_lib(0, path.c_str(), nullptr, 1, threads, 1, nullptr, "hemiray demo",
                                  false, false, 0);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (ok != 1) return fail("the demo run failed");

    cli::ResultFile result;
    std::string error;
    if (!cli::readResultFile(path, result, error)) return fail(path + ": " + error);
    const auto summary = cli::checkResult(result);
    const double rays = double(model.faceCount()) * Hemisphere(3, resolution).size_;
    std::cout << "\nSummary\n"
              << "  globs:        " << model.globCount() << '\n'
              << "  faces:        " << model.faceCount() << '\n'
              << "  rays:         " << static_cast<long long>(rays) << " (before reflections)\n"
              << std::fixed << std::setprecision(2)
              << "  time:         " << seconds << " s\n"
              << std::setprecision(0) << "  rays/second:  " << rays / seconds << '\n'
              << std::setprecision(6) << "  closure:      row sums " << summary.minRowSum << " to "
              << summary.maxRowSum << " (1 for a closed room)\n"
              << std::scientific << std::setprecision(2)
              << "  reciprocity:  " << summary.weightedReciprocity
              << " of the exchanged energy unbalanced (worst single pair "
              << summary.worstReciprocity << ", a factor few rays reach)\n"
              << "  result file:  " << path << std::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"hemiray: radiative view factors by ray tracing"};
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
    chk->add_option("result", checkPath, "result file (text or binary rows, plain or .gz, or HDF5)")->required();
    chk->add_flag("--json", checkJson, "print JSON for programs");
    chk->add_flag("--globs", checkPerGlob, "print every glob, not only the totals");

    int demoN = 4, demoRes = 40;
    auto* dem = app.add_subcommand("demo", "run an embedded example on every core");
    dem->add_option("--n", demoN, "subdivisions per wall edge (default 4)");
    dem->add_option("--res", demoRes, "hemisphere resolution (default 40)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        // One line, like every other complaint of the tool.
        return fail(e.what());
    }

    if (*run) {
        if (run->count("--threads") > 0 && runArgs.threads < 1)
            return fail("--threads must be at least 1");
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
    if (*dem) {
        if (demoN < 1) return fail("--n must be at least 1");
        if (demoRes < 1) return fail("--res must be at least 1");
        return demo(demoN, demoRes);
    }
    return 0;
}
