// Every example model through every way a host can run it: text or binary rows,
// gzip input and output, a packed or a direct block in memory, an HDF5 result, a
// result file read again as input, and (planar and axisymmetric models, which draw
// no random numbers) three threads. Each run's result has a recorded checksum; a
// block, gzip, a rerun and three threads must give the text run's bytes, so their
// checksum is the text's (axisymmetric blocks write one coordinate per node, so
// theirs is recorded apart). The console lines are the text run's, except that an
// HDF5 run (here from gzip input: ".h5" and ".gz" anywhere in the name) has no
// closing "100% done" line; every run prints its timing lines. The checksums were
// recorded when the separate comparisons of these paths with the text run all passed.
#include <gtest/gtest.h>

#include <omp.h>
#include <cstdlib>
#include <string>
#include <vector>

#include "ResultFile.h"
#include "input/MeshBlockPacker.h"
#include "support/Checksum.h"
#include "support/Hdf5Read.h"
#include "support/RunHelpers.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using testing::readFile;
using testing::RunOptions;
using testing::ScratchDir;
using testing::withoutTimings;
using testing::writeFile;

enum class Path { Text, Binary, Gzip, PackedBlock, DirectBlock, Hdf5, Rerun, ThreeThreads };
const char* const pathNames[] = {"Text",        "Binary", "Gzip",  "PackedBlock",
                                 "DirectBlock", "Hdf5",   "Rerun", "ThreeThreads"};

struct ModelSums {
    const char* model;
    uint64_t text;
    uint64_t binary;
    uint64_t block;
    uint64_t hdf5;  // of what the result reader reads back
};

// n = 2, hemisphere resolution 6.
const ModelSums modelSums[] = {
    {"plates", 0x3968bdc7eb184759, 0x01dc6cd7899d9a06, 0x3968bdc7eb184759, 0x0ce4426e31022226},
    {"plates-mirror", 0xd300eadf6be21233, 0xcf5d0c01d2a8516f, 0xd300eadf6be21233,
     0x4dd9ab09e9980f87},
    {"plates-periodic", 0xda2b711c71a1015a, 0xcc190cecc1993eee, 0xda2b711c71a1015a,
     0xf997b650df546138},
    {"room", 0x7eb144a006d6526b, 0x4ccfafd37a88866a, 0x7eb144a006d6526b, 0x32dde1428f779bd0},
    {"room-mirror", 0x758331d7d2f86856, 0x5f39aa51d70be3bd, 0x758331d7d2f86856, 0xc28e2ab81e39da75},
    {"sphere", 0xfb80bd03f5270e48, 0xd858e18027794578, 0xfb80bd03f5270e48, 0x960e73b380ed0ae4},
    {"cylinder", 0xdef34d4e05feb6fe, 0x781c4d45347d28a7, 0xf1305cd3dcafbab0, 0xe364a849888f277d},
    {"polygon", 0xeedad5d525b5a269, 0xf85c907452566194, 0xeedad5d525b5a269, 0x17799820199b2bb7},
    {"ring", 0x34a11a13b986961e, 0x4192720d70af916b, 0x34a11a13b986961e, 0x0b5a51ab0b686fac},
    {"ring-periodic", 0x338cc1097109e300, 0x9498824f45b1bbd3, 0x338cc1097109e300,
     0x25d888554960fbb9},
};

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
    for (const ModelSums& sums : modelSums) {
        models::Model model;
        EXPECT_TRUE(models::makeExample(sums.model, 2, 6, model));
        for (int p = 0; p < 8; ++p)
            if (Path(p) != Path::ThreeThreads || model.dimension != 3)
                cases.push_back({sums, Path(p)});
    }
    return cases;
}

class EndToEnd : public ::testing::TestWithParam<EndToEndCase> {};

TEST_P(EndToEnd, ResultHasItsRecordedChecksum) {
    const ModelSums& sums = GetParam().sums;
    const Path path = GetParam().path;
    const std::string text = testing::exampleText(sums.model, 2, 6);
    ScratchDir dir;
    RunOptions options;
    options.header = "end-to-end";
    const auto run = [&](const std::string& name) {
        setThreadRandomState(1);  // 3D frames: the same draws in every run
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
            EXPECT_NE(testing::h5dump(name + ".h5.gz", "-a /headerText").find("\"end-to-end\""),
                      std::string::npos);
            return;
        }
        case Path::Rerun:  // a result read as input skips its rows
            writeFile(name, readFile(dir.file("text")));
            EXPECT_EQ(run(name), console);
            result = readFile(name);
            break;
        case Path::ThreeThreads: {  // three slots per block of rows, three threads
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
                             std::string name = param.param.sums.model;
                             for (char& ch : name)
                                 if (ch == '-') ch = '_';
                             return name + "_" + pathNames[static_cast<int>(param.param.path)];
                         });

}  // namespace
}  // namespace hemiray
