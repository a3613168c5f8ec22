// The result-bytes guard. Every example model of every mode (mirror and periodic
// variants included), each big enough that its tree has interior nodes, through every
// way a host can run it: text or binary rows, gzip input and output, a packed or a
// direct block in memory, an HDF5 result, a result file read again as input, the BSP
// walk instead of the BVH of 3D runs, and more threads. Each run's result has a
// recorded checksum; a block, gzip, a rerun, the BSP walk and (planar and
// axisymmetric models, which draw no random numbers) three threads must give the
// text run's bytes, so their checksum is the text's (axisymmetric blocks write one
// coordinate per node, so theirs is recorded apart); in 3D the two engines must give
// the same bytes with two threads. The console lines are the text run's, except that
// an HDF5 run (here from gzip input: ".h5" and ".gz" anywhere in the name) has no
// closing "100% done" line; every run prints its timing lines. Then the rows in full
// double precision and the traced hits of random meshes, through the BSP tree, its
// flat tracing copy and the run's tracer.
//
// The text, binary, row and hit checksums were recorded from the code as it stood
// BEFORE the first performance change: any optimisation that changes a single byte, a
// row value's last bit, a hit face or a hit point fails here. They are not
// independent truth; the other suites check correctness. A deliberate change of the
// results must re-record them and say why. The block and HDF5 checksums were
// recorded when the separate comparisons of those paths with the text run passed.
//
// Runs in 3D start the generator at 1, so the random frames are the same in every run.
#include <gtest/gtest.h>

#include <omp.h>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "ResultFile.h"
#include "SparseRowVector"
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "input/MeshBlockPacker.h"
#include "models/ExampleModels.h"
#include "models/RandomMeshes.h"
#include "support/Checksum.h"
#include "support/Hdf5Read.h"
#include "support/LoadedModel.h"
#include "support/RecursiveTraversal.h"
#include "support/RunHelpers.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using testing::exampleText;
using testing::Fnv1a;
using testing::hex;
using testing::readFile;
using testing::RunOptions;
using testing::ScratchDir;
using testing::withoutTimings;
using testing::writeFile;

struct ModelSums {
    const char* model;
    int n;           // subdivisions per edge
    int resolution;  // hemisphere resolution
    uint64_t text;
    uint64_t binary;
    uint64_t block;
    uint64_t hdf5;  // of what the result reader reads back
    uint64_t rows;  // every active glob's row, values as doubles
};

const ModelSums modelSums[] = {
    {"plates", 5, 8, 0xd525bd93451fafa9, 0xdbd43dc4b3ea12b7, 0xd525bd93451fafa9, 0x02b0f1de07039ef5,
     0xfeb6455b697631a7},
    {"plates-mirror", 5, 8, 0x4ffbac0d29f407a4, 0x9d1277bebbbc55bf, 0x4ffbac0d29f407a4,
     0xef26f18e1166515f, 0x1b839d619037b46c},
    {"plates-periodic", 5, 8, 0xf2fef9973c267f48, 0xc32a9bdae9dfc676, 0xf2fef9973c267f48,
     0xb60ac091819aabf8, 0xe707b68af03ea647},
    {"room", 4, 8, 0xa93c346798414838, 0xfacdf269fd0b751b, 0xa93c346798414838, 0xc1875bfc3251efc2,
     0x28e5135f24aa13ee},
    {"room-mirror", 4, 8, 0xabf5cb088e09962c, 0xc7ec200634650b56, 0xabf5cb088e09962c,
     0x0bbf59e7988469af, 0x843afb3810d132b9},
    {"sphere", 5, 8, 0x03e4f2fb8fbff379, 0xd5dd5cc53099ba77, 0x03e4f2fb8fbff379, 0x6080cb7f6a83358d,
     0x7195d7ae2fce3b68},
    {"cylinder", 12, 12, 0xe94b44fe5ce2cca2, 0x81ad4773edc3ddef, 0x0bb097a10ee76700,
     0x2f4bda5e2ee6fa0e, 0xfea33785115603cb},
    {"polygon", 12, 16, 0xf140598fca65b540, 0xd1c465fdac86d899, 0xf140598fca65b540,
     0x9b652f42611ef9a2, 0xbce635a3643119fe},
    {"ring", 12, 16, 0x3b82b626a8d52f41, 0xe6e5d2b92a1e0042, 0x3b82b626a8d52f41, 0xd3417ef1edfb7e30,
     0xef6996f2d82440c1},
    {"ring-periodic", 16, 16, 0x29a7f1a58c1bc929, 0x74c112f728394b28, 0x29a7f1a58c1bc929,
     0xb12b1d4cab35f57e, 0x9cee7a9b64eac368},
};

std::string testName(const ModelSums& sums) {
    std::string name = sums.model;
    for (char& ch : name)
        if (ch == '-') ch = '_';
    return name;
}

enum class Path { Text, Binary, Gzip, PackedBlock, DirectBlock, Hdf5, Rerun, BspWalk, MoreThreads };
const char* const pathNames[] = {"Text", "Binary", "Gzip",    "PackedBlock", "DirectBlock",
                                 "Hdf5", "Rerun",  "BspWalk", "MoreThreads"};

// Everything an HDF5 result holds, as the result reader gives it back.
uint64_t resultSum(const cli::ResultFile& r) {
    testing::Fnv1a hash;
    const auto ints = [&](const std::vector<int32_t>& v) {
        hash.value(static_cast<int64_t>(v.size()));
        for (int32_t x : v) hash.value(int64_t{x});
    };
    const SizeSection& s = r.sizes;
    ints({s.size1, s.size2, s.zoneCount, s.globCount, s.dimension,
          r.parameters.hemisphereResolution});
    for (const Vec3& p : r.nodes) hash.value(p);
    for (const FaceSet* f : {&r.allFaces, &r.participatingFaces})
        for (const auto* v : {&f->faceNodeStart, &f->faceNodes, &f->faceGlob, &f->faceId,
                              &f->faceZoneType, &f->faceZoneIndex})
            ints(*v);
    const ZoneTable& z = r.zones;
    for (const auto* v : {&z.zoneFaceStart, &z.zoneId, &z.zoneType, &z.zoneElementType,
                          &z.zoneFirst, &z.zoneLast, &z.periodicType, &z.periodicShadow})
        ints(*v);
    for (double a : z.periodicAngle) hash.value(a);
    for (const auto* v : {&z.periodicAxisA, &z.periodicAxisB, &z.periodicShift})
        for (const Vec3& p : *v) hash.value(p);
    ints(r.activeGlobs);
    for (const cli::SparseRow& row : r.rows) {
        ints(row.columns);
        for (double v : row.values) hash.value(v);
    }
    return hash.digest();
}

void shell(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

struct EndToEndCase {
    ModelSums sums;
    Path path;
};

void PrintTo(const EndToEndCase& c, std::ostream* os) {
    *os << c.sums.model << " " << pathNames[static_cast<int>(c.path)];
}

std::vector<EndToEndCase> endToEndCases() {
    std::vector<EndToEndCase> cases;
    for (const ModelSums& sums : modelSums)
        for (size_t p = 0; p < std::size(pathNames); ++p)
            cases.push_back({sums, static_cast<Path>(p)});
    return cases;
}

class EndToEnd : public ::testing::TestWithParam<EndToEndCase> {};

TEST_P(EndToEnd, ResultHasItsRecordedChecksum) {
    const ModelSums& sums = GetParam().sums;
    const Path path = GetParam().path;
    const std::string text = exampleText(sums.model, sums.n, sums.resolution);
    ScratchDir dir;
    RunOptions options;
    options.header = "guard";
    const auto run = [&](const std::string& name) {
        setThreadRandomState(1);
        const auto r = testing::runLibrary(name, options);
        EXPECT_EQ(r.result, 1) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_NE(r.out.find(" (s)\n# Wall time: "), std::string::npos) << r.out;
        return withoutTimings(r.out);
    };
    writeFile(dir.file("text"), text);
    const std::string console = run(dir.file("text"));
    std::string expectedConsole = console;
    std::string result;
    uint64_t expected = sums.text;

    const std::string name = dir.file("m");
    std::vector<std::byte> packed;
    hemiray_direct_block direct{};
    switch (path) {
        case Path::Text:
            result = readFile(dir.file("text"));
            break;
        case Path::Binary:
            options.binary = true;
            writeFile(name, text);
            run(name);
            result = readFile(name);
            expected = sums.binary;
            break;
        case Path::Gzip:  // gzip in, gzip out under the same name
            writeFile(name, text);
            shell("gzip -c " + name + " > " + name + ".gz");
            EXPECT_EQ(run(name + ".gz"), console);
            shell("gzip -dc < " + name + ".gz > " + name);
            result = readFile(name);
            break;
        case Path::PackedBlock:
        case Path::DirectBlock: {
            packed = testing::packText(text);
            direct = directBlockFor(packed);
            options.fromFile = false;
            options.directFields = path == Path::DirectBlock;
            options.block =
                options.directFields ? static_cast<const void*>(&direct) : packed.data();
            EXPECT_EQ(run(name), console);
            result = readFile(name);
            expected = sums.block;
            break;
        }
        case Path::Hdf5: {
            writeFile(name, text);
            shell("gzip -c " + name + " > " + name + ".h5.gz");
            expectedConsole = console.substr(0, console.rfind("#\t100% done!\n"));
            EXPECT_EQ(run(name + ".h5.gz"), expectedConsole);
            cli::ResultFile read;
            std::string error;
            ASSERT_TRUE(cli::readResultFile(name + ".h5.gz", read, error)) << error;
            EXPECT_EQ(testing::hex(resultSum(read)), testing::hex(sums.hdf5));
            EXPECT_NE(testing::h5dump(name + ".h5.gz", "-a /headerText").find("\"guard\""),
                      std::string::npos);
            return;
        }
        case Path::Rerun:  // a result read as input skips its rows
            writeFile(name, readFile(dir.file("text")));
            EXPECT_EQ(run(name), console);
            result = readFile(name);
            break;
        case Path::BspWalk:
            ::setenv("HEMIRAY_ENGINE", "bsp", 1);
            writeFile(name, text);
            EXPECT_EQ(run(name), console);
            ::unsetenv("HEMIRAY_ENGINE");
            result = readFile(name);
            break;
        case Path::MoreThreads: {
            models::Model model;
            ASSERT_TRUE(models::makeExample(sums.model, sums.n, sums.resolution, model));
            if (model.dimension == 3) {  // two slots, both engines
                options.threads = 2;
                std::string results[2];
                for (const char* engine : {"bsp", "bvh"}) {
                    ::setenv("HEMIRAY_ENGINE", engine, 1);
                    writeFile(name, text);
                    run(name);
                    results[engine[1] == 'v'] = readFile(name);
                }
                ::unsetenv("HEMIRAY_ENGINE");
                EXPECT_TRUE(results[0] == results[1]);
                return;
            }
            // Planar and axisymmetric rows draw nothing: three slots, three threads.
            const int available = omp_get_max_threads();
            omp_set_num_threads(3);
            options.useOpenMP = true;
            options.threads = 3;
            writeFile(name, text);
            run(name);  // the console names the threads, and the steps come per block
            omp_set_num_threads(available);
            result = readFile(name);
            break;
        }
    }
    EXPECT_EQ(testing::hex(result), testing::hex(expected));
}

INSTANTIATE_TEST_SUITE_P(ExampleModels, EndToEnd, ::testing::ValuesIn(endToEndCases()),
                         [](const ::testing::TestParamInfo<EndToEndCase>& param) {
                             return testName(param.param.sums) + "_" +
                                    pathNames[static_cast<int>(param.param.path)];
                         });

// The rows through the BSP tree itself, through its flat copy and through the run's
// tracer: all must give the recorded bits.
class ResultRows : public ::testing::TestWithParam<ModelSums> {};

void PrintTo(const ModelSums& c, std::ostream* os) {
    *os << c.model << " n=" << c.n << " resolution=" << c.resolution;
}

TEST_P(ResultRows, KeepEveryBit) {
    const ModelSums& c = GetParam();
    testing::LoadedModel loaded;
    ASSERT_TRUE(testing::loadModel(exampleText(c.model, c.n, c.resolution), loaded));
    const Model& m = *loaded.model;
    const FaceSet& faces = m.participatingFaces;
    const TraversalTree flat(*loaded.tree);
    const RayTracer tracer(flat, faces, TraceEngine::Bvh);
    for (const int way : {0, 1, 2}) {  // the node tree, its flat copy, the run's tracer
        SparseRowVector row;
        row.resize(m.sizes.globCount);
        Fnv1a hash;
        setThreadRandomState(1);
        for (int32_t g = 0; g < loaded.globs->globCount(); ++g) {
            if (!loaded.globs->globActive[g]) continue;
            const auto compute = [&](const auto& through) {
                computeViewFactorRow(g, m.sizes.dimension, *loaded.hemisphere, faces, *loaded.globs,
                                     m.zones, through, row);
            };
            if (way == 2)
                compute(tracer);
            else if (way == 1)
                compute(flat);
            else
                compute(*loaded.tree);
            hash.value(int64_t{g});
            hash.value(int64_t{row.np});
            for (int k = 0; k < row.np; ++k) {
                hash.value(int64_t{row.columnAt(k)});
                hash.value(row.valueAt(row.columnAt(k)));
            }
            row.clear();
        }
        EXPECT_EQ(hex(hash.digest()), hex(c.rows)) << c.model << " way " << way;
    }
}

INSTANTIATE_TEST_SUITE_P(ExampleModels, ResultRows, ::testing::ValuesIn(modelSums),
                         [](const auto& param) { return testName(param.param); });

// Random rays through the trees of the random test meshes: whether the root box is
// entered and where, whether a face is hit, which one and where, bit for bit.
struct TraceCase {
    meshes::Kind kind;
    uint64_t trace;
};

void PrintTo(const TraceCase& c, std::ostream* os) {
    *os << meshes::nameOf(c.kind);
}

class TraceGuard : public ::testing::TestWithParam<TraceCase> {};

TEST_P(TraceGuard, HitsKeepEveryBit) {
    const TraceCase& c = GetParam();
    const auto mesh = meshes::withFaceCount(c.kind, 3000, 2024);
    const MeshView view{&mesh->nodes, &mesh->faces};
    std::ostringstream quiet;
    auto* previous = std::cout.rdbuf(quiet.rdbuf());
    const BspNode root(mesh->faces.dimension, &view, true);
    std::cout.rdbuf(previous);
    const TraversalTree flat(root);
    const auto rays = meshes::randomRays(*mesh, 4096, 99);
    for (const bool throughFlatCopy : {false, true}) {
        Fnv1a hash;
        for (const meshes::Ray& ray : rays) {
            double tEnter = 0, tExit = 0;
            const bool entered = flat.clip(ray.origin, ray.direction, tEnter, tExit);
            hash.value(int64_t{entered});
            if (!entered) continue;
            hash.value(tEnter);
            hash.value(tExit);
            Vec3 point;
            int32_t face = -1;
            bool hit = false;
            if (throughFlatCopy)
                hit = flat.traverse(ray.origin, ray.direction, point, face, tEnter, tExit);
            else if (root.dimension == 1)
                hit = traverseAxisymmetric(root, ray.origin, ray.direction, point, face, tEnter,
                                           tExit);
            else
                hit = traversePlanar(root, ray.origin, ray.direction, point, face, tEnter, tExit);
            hash.value(int64_t{hit});
            hash.value(int64_t{face});
            hash.value(point);
        }
        EXPECT_EQ(hex(hash.digest()), hex(c.trace))
            << meshes::nameOf(c.kind) << (throughFlatCopy ? " flat copy" : " node tree");
    }
}

INSTANTIATE_TEST_SUITE_P(RandomMeshes, TraceGuard,
                         ::testing::Values(TraceCase{meshes::Kind::Axisymmetric,
                                                     0x4210ab8172687e96},
                                           TraceCase{meshes::Kind::Planar, 0x3e911336a2fcfb1c},
                                           TraceCase{meshes::Kind::Triangles, 0x48a45993a7ed8ae5},
                                           TraceCase{meshes::Kind::Quads, 0xce0ad6e553d643bf}),
                         [](const auto& param) { return meshes::nameOf(param.param.kind); });

}  // namespace
}  // namespace hemiray
