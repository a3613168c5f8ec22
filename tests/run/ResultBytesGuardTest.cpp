// Guard for the tracing hot path: the example models of every mode (mirror and
// periodic variants included) must give the same result-file bytes, the same rows
// in full double precision and the same traced hits as before any tuning, through
// the BSP tree, through its flat tracing copy and through the run's tracer, with
// both engines (HEMIRAY_ENGINE bsp and bvh) and one or two threads.
//
// The expected checksums were recorded from the code as it stood BEFORE the first
// performance change: they pin today's results, so any optimisation that changes a
// single byte, a row value's last bit, a hit face or a hit point fails here. They
// are not independent truth; the other suites check correctness. A deliberate change
// of the results must re-record them and say why.
//
// Runs use one thread and, in 3D, start the thread's generator at 1, so the random
// frames are the same in every run.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "SparseRowVector"
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "models/ExampleModels.h"
#include "models/RandomMeshes.h"
#include "support/Checksum.h"
#include "support/LoadedModel.h"
#include "support/RecursiveTraversal.h"
#include "support/RunHelpers.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using testing::exampleText;
using testing::Fnv1a;
using testing::hex;

struct GuardCase {
    const char* model;
    int n;           // subdivisions per edge
    int resolution;  // hemisphere resolution
    uint64_t textFile;
    uint64_t binaryFile;
    uint64_t rows;  // every active glob's row, values as doubles
};

// Every example model, each big enough that its tree has interior nodes.
const GuardCase guardCases[] = {
    {"plates", 5, 8, 0xd525bd93451fafa9, 0xdbd43dc4b3ea12b7, 0xfeb6455b697631a7},
    {"plates-mirror", 5, 8, 0x4ffbac0d29f407a4, 0x9d1277bebbbc55bf, 0x1b839d619037b46c},
    {"plates-periodic", 5, 8, 0xf2fef9973c267f48, 0xc32a9bdae9dfc676, 0xe707b68af03ea647},
    {"room", 4, 8, 0xa93c346798414838, 0xfacdf269fd0b751b, 0x28e5135f24aa13ee},
    {"room-mirror", 4, 8, 0xabf5cb088e09962c, 0xc7ec200634650b56, 0x843afb3810d132b9},
    {"sphere", 5, 8, 0x03e4f2fb8fbff379, 0xd5dd5cc53099ba77, 0x7195d7ae2fce3b68},
    {"cylinder", 12, 12, 0xe94b44fe5ce2cca2, 0x81ad4773edc3ddef, 0xfea33785115603cb},
    {"polygon", 12, 16, 0xf140598fca65b540, 0xd1c465fdac86d899, 0xbce635a3643119fe},
    {"ring", 12, 16, 0x3b82b626a8d52f41, 0xe6e5d2b92a1e0042, 0xef6996f2d82440c1},
    {"ring-periodic", 16, 16, 0x29a7f1a58c1bc929, 0x74c112f728394b28, 0x9cee7a9b64eac368},
};

void PrintTo(const GuardCase& c, std::ostream* os) {
    *os << c.model << " n=" << c.n << " resolution=" << c.resolution;
}

class ResultBytesGuard : public ::testing::TestWithParam<GuardCase> {};

TEST_P(ResultBytesGuard, ResultFilesKeepTheirBytes) {
    const GuardCase& c = GetParam();
    const std::string text = exampleText(c.model, c.n, c.resolution);
    testing::ScratchDir dir;
    // Both engines, one thread against the recorded bytes; two threads against each other.
    for (const bool binary : {false, true}) {
        std::string twoThreads[2];
        for (const int engine : {0, 1}) {
            ::setenv("HEMIRAY_ENGINE", engine == 0 ? "bsp" : "bvh", 1);
            for (const int threads : {1, 2}) {
                testing::writeFile(dir.file("m"), text);
                setThreadRandomState(1);
                const auto r =
                    testing::runLibrary(dir.file("m"), {binary, false, threads, "guard", false});
                ASSERT_EQ(r.result, 1) << r.err;
                const std::string result = testing::readFile(dir.file("m"));
                if (threads == 2) {
                    twoThreads[engine] = result;
                    continue;
                }
                Fnv1a hash;
                hash.bytes(result.data(), result.size());
                EXPECT_EQ(hex(hash.digest()), hex(binary ? c.binaryFile : c.textFile))
                    << c.model << (binary ? " binary" : " text") << (engine == 0 ? " bsp" : " bvh");
            }
        }
        EXPECT_TRUE(twoThreads[0] == twoThreads[1]) << c.model << " two threads";
    }
    ::unsetenv("HEMIRAY_ENGINE");
}

// The rows through the BSP tree itself and through its flat copy, which the runs
// use: both must give the recorded bits.
TEST_P(ResultBytesGuard, RowsKeepEveryBit) {
    const GuardCase& c = GetParam();
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

INSTANTIATE_TEST_SUITE_P(ExampleModels, ResultBytesGuard, ::testing::ValuesIn(guardCases),
                         [](const auto& param) {
                             std::string name = param.param.model;
                             for (char& ch : name)
                                 if (ch == '-') ch = '_';
                             return name;
                         });

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
            const bool entered =
                throughFlatCopy ? flat.clip(ray.origin, ray.direction, tEnter, tExit)
                                : clipToRootBox(root, ray.origin, ray.direction, tEnter, tExit);
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
