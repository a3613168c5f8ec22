// In-memory blocks: the packed block of a sample model, byte for byte, against a
// hex dump written from the layout in hemiray/raytracing.h; both families read back
// as the model the text readers give, for text that exercises the readers' odd
// corners; and every defined error of a damaged block. Blocks lie right before an
// inaccessible page, so a read past a block's end crashes the test instead of
// passing unnoticed.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iomanip>
#include <string>
#include <vector>

#include "MeshFixture.h"
#include "input/MeshBlock.h"
#include "input/MeshBlockPacker.h"
#include "run/InputSource.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using ::testing::ExitedWithCode;

// Little-endian patches at known offsets.
struct Bytes {
    std::vector<unsigned char> data;

    void patch(size_t offset, uint64_t v, int width) {
        for (int i = 0; i < width; ++i) data[offset + i] = static_cast<unsigned char>(v >> (8 * i));
    }
    void patchI32(size_t offset, int32_t v) { patch(offset, static_cast<uint32_t>(v), 4); }
    void patchU64(size_t offset, uint64_t v) { patch(offset, v, 8); }
    void grow(size_t bytes) { data.resize(data.size() + bytes); }
};

// Head offsets, from the layout table.
constexpr size_t atTag = 20, atTotalBytes = 88, atReserved = 116;
constexpr size_t countOffsets[] = {96, 100, 104, 108, 112};  // nodes .. periodic pairs

// The sample model, a planar unit square:
//   zone 5: walls (type 3), two line faces 0-1, 1-2, globs 0 and 1;
//   zone 6: periodic (2012), mixed, one face 2-3, no glob;
//   zone 7: outlet (2010), polygons, one face 3-0 (glob 2) and one face without
//           nodes (glob 3);
//   one rotational pair 6 -> 5, angle 0.5 about the axis through (1,2,3) along z.
const std::string sampleText =
    "(0 sample)\n(7 8 3 4 2)\n(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 7 9)\n"
    "(10 (1 1 4 1 2)(0 0 1 0 1 1 0 1))"
    "(311 (5 1 2 3 2)(1 2 2 3))(311 (6 3 3 2012 0)(2 3 4))(311 (7 4 5 2010 5)(2 4 1 0))"
    "(309 (5 1 2 3 2)(0 1))(309 (7 4 5 2010 5)(2 3))(18 (6 5) 1 0.5 1 2 3 0 0 1)";

// Offsets in the packed block: a 120-byte head, then 24 per node, 96 per pair, 20
// per zone, 4 per face count, 4 per node reference, 4 per glob.
constexpr size_t atPair = 120 + 4 * 24, atZones = atPair + 96;
constexpr size_t atFaceNodeCounts = atZones + 3 * 20, atFaceNodes = atFaceNodeCounts + 5 * 4;
constexpr uint64_t samplePackedBytes = atFaceNodes + 8 * 4 + 5 * 4;

Bytes asBytes(const void* data, size_t size) {
    const auto* p = static_cast<const unsigned char*>(data);
    return {{p, p + size}};
}

Bytes samplePackedBlock() {
    const std::vector<std::byte> packed = testing::packText(sampleText);
    return asBytes(packed.data(), packed.size());
}

// A direct block over the arrays of a packed block, which the caller keeps alive.
Bytes directBlockOver(const std::vector<std::byte>& packed) {
    const hemiray_direct_block direct = directBlockFor(packed);
    return asBytes(&direct, sizeof direct);
}

// Bytes placed so that the first byte after them is on a page that cannot be read.
class GuardedCopy {
public:
    explicit GuardedCopy(const std::vector<unsigned char>& bytes) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t dataPages = (bytes.size() + page - 1) / page * page;
        mappedBytes_ = dataPages + page;
        base_ = static_cast<unsigned char*>(mmap(nullptr, mappedBytes_, PROT_READ | PROT_WRITE,
                                                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_NE(base_, MAP_FAILED);
        EXPECT_EQ(mprotect(base_ + dataPages, page, PROT_NONE), 0);
        start_ = base_ + dataPages - bytes.size();
        std::memcpy(start_, bytes.data(), bytes.size());
    }
    ~GuardedCopy() { munmap(base_, mappedBytes_); }
    GuardedCopy(const GuardedCopy&) = delete;
    GuardedCopy& operator=(const GuardedCopy&) = delete;

    const void* data() const { return start_; }

private:
    unsigned char* base_ = nullptr;
    unsigned char* start_ = nullptr;
    size_t mappedBytes_ = 0;
};

// What a run does with a block: open it, take the parameters, read the mesh.
void readWholeBlock(const std::vector<unsigned char>& bytes, bool direct, test::Mesh& mesh,
                    RunParameters& parameters) {
    const GuardedCopy block(bytes);
    const MeshBlockView view =
        direct ? openDirectBlock(block.data()) : openPackedBlock(block.data());
    copyParameterBlock(view.parameters, parameters);
    readBlockMesh(view, view.dimension, mesh.nodes, mesh.allFaces, mesh.participatingFaces,
                  mesh.zones);
}

// Reads the text as a run does.
void readText(const std::string& text, SizeSection& sizes, RunParameters& parameters,
              test::Mesh& mesh) {
    std::istringstream input(text);
    ASSERT_TRUE(readSizeSection(input, sizes));
    ASSERT_TRUE(readParameterSection(input, parameters));
    readMeshSections(input, nodeCoordinateCount(sizes.dimension), mesh.nodes, mesh.allFaces,
                     mesh.participatingFaces, mesh.zones);
}

// Packs the text, reads the block through both families and compares each model
// with the one the text readers fill.
void expectBlockMatchesText(const std::string& text) {
    SizeSection sizes;
    RunParameters parameters;
    std::istringstream head(text);
    ASSERT_TRUE(readSizeSection(head, sizes));
    test::Mesh fromText(sizes.dimension);
    readText(text, sizes, parameters, fromText);
    std::vector<std::byte> packed = testing::packText(text);
    // Below 3D a node's z is not read: make it one that would show.
    int32_t nodeCount = 0;
    std::memcpy(&nodeCount, packed.data() + countOffsets[0], 4);
    const double z = 99;
    for (int32_t k = 0; k < nodeCount && sizes.dimension != 3; ++k)
        std::memcpy(packed.data() + 120 + 24 * k + 16, &z, 8);
    for (const bool direct : {false, true}) {
        SCOPED_TRACE(direct ? "direct" : "packed");
        test::Mesh mesh(sizes.dimension);
        RunParameters fromBlock;
        readWholeBlock(
            direct ? directBlockOver(packed).data : asBytes(packed.data(), packed.size()).data,
            direct, mesh, fromBlock);
        test::expectSameMesh(mesh, fromText);
        EXPECT_EQ(test::fields(fromBlock), test::fields(parameters));
    }
}

TEST(MeshBlock, PackedSampleHasTheDocumentedBytes) {
    std::ostringstream dump;  // four bytes a word, eight words a line
    const Bytes block = samplePackedBlock();
    ASSERT_EQ(block.data.size(), samplePackedBytes);
    for (size_t k = 0; k < block.data.size(); ++k)
        dump << std::hex << std::setfill('0') << std::setw(2) << int{block.data[k]}
             << (k % 32 == 31 ? "\n"
                 : k % 4 == 3 ? " "
                              : "");
    EXPECT_EQ(dump.str() + "\n", testing::readFile(testing::goldenPath("sample-block.hex")));
}

TEST(MeshBlock, BothFamiliesGiveTheModelOfTheText) {
    expectBlockMatchesText(sampleText);
    // Three-dimensional nodes keep z; a translational pair shifts by its own vector.
    std::string text = sampleText;
    text.replace(text.find("(7 8 3 4 2)"), 11, "(7 8 3 4 3)");
    text.replace(text.find("(0 0 1 0 1 1 0 1)"), 17, "(0 0 9 1 0 9 1 1 9 0 1 9)");
    expectBlockMatchesText(text);
    text = sampleText;
    text.replace(text.find("1 0.5 1 2 3 0 0 1)"), 18, "0 9 8 7)");
    expectBlockMatchesText(text);
    // Axisymmetric nodes keep two coordinates.
    expectBlockMatchesText(
        "(5 0 1 1 1)\n(1 4 0 0 0 0 0 0 0 0 0 0 0)\n"
        "(10 (1 1 2 1 2)(0 1  2 3))\n(311 (1 1 1 1 2)(1 2))\n(309 (1 1 1 1 2)(0))\n");
    // A reversed face range (zone 9) that lowers the running face total, a zone id
    // used twice (4), a face without nodes, zones that do not take part, a glob
    // section whose range comes from the shifted total, one translational and one
    // rotational pair, and a zone count that differs from the zones.
    const std::string quirks =
        "(0 quirks)\n(11 12 7 6 3)\n(2 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)\n"
        "(10 (1 1 5 1 3)(0 0 0  1 0 0  1 1 0  0 1 0  0.5 0.5 1))\n"
        "(311 (4 1 2 1 3)(1 2 3 1 3 4))\n(311 (9 3 1 3 4)())\n"
        "(311 (4 3 4 2012 0)(3 1 2 5 -1))\n(311 (12 5 6 2010 5)(4 1 2 3 4 0))\n"
        "(311 (13 7 7 2007 2)(5 1))\n(309 (4 1 2 1 3)(0 1))\n(309 (12 5 6 0 0)(2 3))\n"
        "(18 (4 12) 0 1.5 -2 0)\n(18 (13 9) 1 0.25 0 0 0 0 0 1)\n";
    expectBlockMatchesText(quirks);
    // A zone paired with itself, translational then rotational: the text readers
    // leave it the negated transform, and the block must give the same.
    expectBlockMatchesText(quirks + "(18 (12 12) 0 1.5 -2 0.25)\n");
    expectBlockMatchesText(quirks + "(18 (12 12) 1 0.5 1 2 3 0 0 1)\n");
}

TEST(MeshBlock, UnreadableSectionsAreReportedByThePacker) {
    std::vector<std::byte> block;
    std::string error;
    std::istringstream noSizes("(0 two words)(1 2 3 4 3)");
    EXPECT_FALSE(packTextModel(noSizes, block, error));
    EXPECT_EQ(error, "reading size section!");
    std::istringstream noParameters("(5 0 1 1 3)(1 8 0");
    EXPECT_FALSE(packTextModel(noParameters, block, error));
    EXPECT_EQ(error, "reading parameter section!");
    std::istringstream badDimension("(5 0 1 1 4)(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)");
    EXPECT_FALSE(packTextModel(badDimension, block, error));
    EXPECT_EQ(error, "dimension 4 in the size section is not 1 (axisymmetric), 2 (planar) or 3");
    EXPECT_TRUE(block.empty());
}

TEST(MeshBlock, HostParameterBlockIsCopiedByNameFromAnyAddress) {
    // Three doubles, then ten int32 with param13 before param12, at an odd address:
    // the host promises no alignment.
    const double doubles[3] = {0.5, 0.25, 1e-3};
    const int32_t ints[10] = {1, 8, 0, 1, 1, 2, 3, 4, /*param13*/ 9, /*param12*/ 7};
    unsigned char bytes[1 + sizeof doubles + sizeof ints];
    std::memcpy(bytes + 1, doubles, sizeof doubles);
    std::memcpy(bytes + 1 + sizeof doubles, ints, sizeof ints);
    RunParameters parameters;
    copyParameterBlock(bytes + 1, parameters);
    EXPECT_EQ(test::fields(parameters),
              test::fields(RunParameters{1, 8, 0, 0.5, 1, 1, 0.25, 2, 3, 1e-3, 4, 7, 9}));
}

// Reads the block as a run would and exits 0; bad blocks exit 1 on their own.
[[noreturn]] void readAndExit(const std::vector<unsigned char>& bytes, bool direct) {
    test::Mesh mesh(2);
    RunParameters parameters;
    readWholeBlock(bytes, direct, mesh, parameters);
    std::exit(0);
}

// Every defined error, from the sample damaged in one place; an empty message means
// that the changed block is still a valid one, like a block of an empty model.
TEST(MeshBlockDeathTest, DamagedBlocksEndTheProcessWithTheirMessage) {
    struct Damage {
        bool direct;
        std::string message;
        std::function<void(Bytes&)> apply;
    };
    const char* overrun = "mesh block counts overrun its length";
    const char* longer = "mesh block is longer than its counts need";
    const char* mismatch = "face node count does not match the element type";
    std::vector<Damage> damages = {
        {false, "mesh block tag is unknown", [](Bytes& b) { b.patchI32(atTag, 0x12345678); }},
        {true, "mesh block tag is unknown", [](Bytes& b) { b.patchI32(atTag, 0x12345678); }},
        {false, "mesh block reserved field is not 0", [](Bytes& b) { b.patchI32(atReserved, 1); }},
        {false, overrun,
         [](Bytes& b) {
             b.patchU64(atTotalBytes, samplePackedBytes - 1);
             b.data.pop_back();
         }},
        {false, overrun, [](Bytes& b) { b.patchU64(atTotalBytes, 100); }},  // shorter than the head
        {false, longer,
         [](Bytes& b) {
             b.patchU64(atTotalBytes, samplePackedBytes + 4);
             b.grow(4);
         }},
        {false, "",
         [](Bytes& b) {
             b.data.resize(120);
             b.patchU64(atTotalBytes, 120);
             for (size_t at : countOffsets) b.patchI32(at, 0);
         }},
        // A direct block's length is that of its own head.
        {true, overrun, [](Bytes& b) { b.patchU64(atTotalBytes, 160); }},
        {true, longer,
         [](Bytes& b) {
             b.patchU64(atTotalBytes, 176);
             b.grow(8);
         }},
        // Without elements an array may be null.
        {true, "",
         [](Bytes& b) {
             b.patchI32(112, 0);
             b.patchU64(128, 0);
         }},
        {false, "element type not supported", [](Bytes& b) { b.patchI32(atZones + 16, 1); }},
        {false, "element type not supported", [](Bytes& b) { b.patchI32(atZones + 36, 6); }},
        // Zone 7 spans faces 4 to 6, three where the block has two left; or one face,
        // and the last face is left over.
        {false, "zone faces overrun the face count", [](Bytes& b) { b.patchI32(atZones + 48, 6); }},
        {false, "zone faces fall short of the face count",
         [](Bytes& b) { b.patchI32(atZones + 48, 4); }},
        {false, "face node count is negative",
         [](Bytes& b) { b.patchI32(atFaceNodeCounts + 8, -1); }},
        {false, mismatch, [](Bytes& b) { b.patchI32(atFaceNodeCounts + 4, 3); }},  // a line of 3
        // The polygon's node count grows past the node references, or falls short.
        {false, "face nodes overrun the face node count",
         [](Bytes& b) { b.patchI32(atFaceNodeCounts + 12, 3); }},
        {false, "face nodes fall short of the face node count",
         [](Bytes& b) { b.patchI32(atFaceNodeCounts + 12, 1); }},
        {false, "node number out of range", [](Bytes& b) { b.patchI32(atFaceNodes + 4, -1); }},
        {false, "node number out of range", [](Bytes& b) { b.patchI32(atFaceNodes + 28, 4); }},
        // Node 0's y: an infinity, then a NaN (their IEEE bit patterns).
        {false, "node coordinate is not a finite number",
         [](Bytes& b) { b.patchU64(120 + 8, 0x7ff0000000000000u); }},
        {false, "node coordinate is not a finite number",
         [](Bytes& b) { b.patchU64(120 + 8, 0x7ff8000000000000u); }},
        // The pair names zone 8, which no face zone has.
        {false, "invalid id index", [](Bytes& b) { b.patchI32(atPair + 4, 8); }},
        {false, "invalid id index", [](Bytes& b) { b.patchI32(atPair, 8); }},
    };
    for (size_t at : countOffsets) {
        damages.push_back(
            {false, "mesh block has a negative count", [at](Bytes& b) { b.patchI32(at, -1); }});
        // One too many needs more bytes than the block has, and near the int32 limit
        // the length arithmetic must not wrap: nothing is read.
        damages.push_back({false, overrun, [at](Bytes& b) {
                               int32_t count = 0;
                               std::memcpy(&count, b.data.data() + at, 4);
                               b.patchI32(at, count + 1);
                           }});
        damages.push_back({false, overrun, [at](Bytes& b) { b.patchI32(at, INT32_MAX); }});
    }
    for (size_t pointer = 0; pointer < 6; ++pointer)
        damages.push_back({true, "mesh block array pointer is null",
                           [pointer](Bytes& b) { b.patchU64(120 + 8 * pointer, 0); }});
    // Zone 7's faces have 2 and 0 nodes: counted zones (0 and 5) take both, a line
    // zone stops at the empty face, triangles and quadrilaterals at the first one.
    for (int32_t elementType : {0, 2, 3, 4, 5})
        damages.push_back({false, elementType == 0 || elementType == 5 ? "" : mismatch,
                           [elementType](Bytes& b) { b.patchI32(atZones + 56, elementType); }});

    const std::vector<std::byte> packed = testing::packText(sampleText);
    for (const Damage& d : damages) {
        Bytes b = d.direct ? directBlockOver(packed) : samplePackedBlock();
        d.apply(b);
        if (d.message.empty())
            EXPECT_EXIT(readAndExit(b.data, d.direct), ExitedWithCode(0), "^$");
        else
            EXPECT_EXIT(readAndExit(b.data, d.direct), ExitedWithCode(1),
                        "^file i/o error: " + d.message + "\n$");
    }
    // Each family's tag read as the other family.
    const std::string family = "^file i/o error: mesh block family does not match directFields\n$";
    EXPECT_EXIT(readAndExit(samplePackedBlock().data, true), ExitedWithCode(1), family);
    EXPECT_EXIT(readAndExit(directBlockOver(packed).data, false), ExitedWithCode(1), family);
}

}  // namespace
}  // namespace hemiray
