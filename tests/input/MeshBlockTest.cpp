// The in-memory block readers against blocks written byte by byte from the layout
// in hemiray/raytracing.h: both families give the model that the text readers give
// for the same mesh, and every defined error. Blocks lie right before an
// inaccessible page, so a read past a block's end crashes the test instead of
// passing unnoticed.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "MeshFixture.h"
#include "input/MeshBlock.h"

namespace hemiray {
namespace {

using ::testing::ExitedWithCode;

// Little-endian bytes appended field by field, with patching at known offsets.
struct Bytes {
    std::vector<unsigned char> data;

    void u64(uint64_t v, int width = 8) {
        for (int i = 0; i < width; ++i) data.push_back(static_cast<unsigned char>(v >> (8 * i)));
    }
    void i32(int32_t v) { u64(static_cast<uint32_t>(v), 4); }
    void f64(double v) { u64(std::bit_cast<uint64_t>(v)); }
    void patch(size_t offset, uint64_t v, int width) {
        for (int i = 0; i < width; ++i) data[offset + i] = static_cast<unsigned char>(v >> (8 * i));
    }
    void patchI32(size_t offset, int32_t v) { patch(offset, static_cast<uint32_t>(v), 4); }
    void patchU64(size_t offset, uint64_t v) { patch(offset, v, 8); }
    void append(const Bytes& part) { data.insert(data.end(), part.data.begin(), part.data.end()); }
};

// Head offsets, from the layout table.
constexpr size_t atDimension = 16, atTag = 20, atTotalBytes = 88, atReserved = 116;
constexpr size_t countOffsets[] = {96, 100, 104, 108, 112};  // nodes .. periodic pairs

// The sample model, a planar unit square:
//   zone 5: walls (type 3), two line faces 0-1, 1-2, globs 0 and 1;
//   zone 6: periodic (2012), mixed, one face 2-3, no glob;
//   zone 7: outlet (2010), polygons, one face 3-0 (glob 2) and one face without
//           nodes (glob 3);
//   one rotational pair 6 -> 5, angle 0.5 about the axis through (1,2,3) along z.
// Nodes carry z = 99, which a planar run must not read.
void appendHead(Bytes& b, uint32_t tag, uint64_t totalBytes) {
    for (int32_t v : {7, 8, 3, 4, 2}) b.i32(v);  // size values; dimension 2
    b.u64(tag, 4);
    for (double v : {0.5, 0.25, 1e-3}) b.f64(v);  // param4, param7, param10
    for (int32_t v : {1, 8, 0, 1, 1, 2, 3, 4}) b.i32(v);  // param1 .. param11
    b.i32(9);  // param13 stands before param12
    b.i32(7);
    b.u64(totalBytes);
    for (int32_t v : {4, 3, 5, 8, 1, 0}) b.i32(v);  // nodes, zones, faces, references, pairs
}

// The sample's mesh and parameters as text.
const std::string sampleNodesText = "(10 (1 1 4 1 2)(0 0 1 0 1 1 0 1))";
const std::string sampleFacesText =
    "(311 (5 1 2 3 2)(1 2 2 3))(311 (6 3 3 2012 0)(2 3 4))(311 (7 4 5 2010 5)(2 4 1 0))"
    "(309 (5 1 2 3 2)(0 1))(309 (7 4 5 2010 5)(2 3))";
const std::string samplePairText = "(18 (6 5) 1 0.5 1 2 3 0 0 1)";
const char* sampleParameterText = "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 7 9)";

struct SampleArrays {
    Bytes nodes, periodic, zones, faceNodeCounts, faceNodes, faceGlobs;
    std::vector<const Bytes*> inOrder() const {
        return {&nodes, &periodic, &zones, &faceNodeCounts, &faceNodes, &faceGlobs};
    }
};

SampleArrays sampleArrays() {
    SampleArrays a;
    for (double v : {0, 0, 99, 1, 0, 99, 1, 1, 99, 0, 1, 99}) a.nodes.f64(v);
    for (int32_t v : {6, 5, 1, 0}) a.periodic.i32(v);  // rotational; reserved
    for (double v : {0.5, 1.0, 2.0, 3.0, 0.0, 0.0, 1.0, 9.0, 9.0, 9.0}) a.periodic.f64(v);
    for (int32_t v : {5, 1, 2, 3, 2, 6, 3, 3, 2012, 0, 7, 4, 5, 2010, 5}) a.zones.i32(v);
    for (int32_t v : {2, 2, 2, 2, 0}) a.faceNodeCounts.i32(v);
    for (int32_t v : {0, 1, 1, 2, 2, 3, 3, 0}) a.faceNodes.i32(v);
    for (int32_t v : {0, 1, -1, 2, 3}) a.faceGlobs.i32(v);
    return a;
}

// Offsets in the packed block: a 120-byte head, then 24 per node, 96 per pair, 20
// per zone, 4 per face count, 4 per node reference, 4 per glob.
constexpr size_t atPair = 120 + 4 * 24, atZones = atPair + 96;
constexpr size_t atFaceNodeCounts = atZones + 3 * 20, atFaceNodes = atFaceNodeCounts + 5 * 4;
constexpr uint64_t samplePackedBytes = atFaceNodes + 8 * 4 + 5 * 4;

Bytes samplePackedBlock() {
    Bytes b;
    appendHead(b, 0x50425248u, samplePackedBytes);
    const SampleArrays arrays = sampleArrays();
    for (const Bytes* part : arrays.inOrder()) b.append(*part);
    return b;
}

// A direct block over arrays the caller keeps alive: the head, then six 8-byte
// pointers in the order of the packed arrays.
Bytes directBlockOver(const SampleArrays& a) {
    Bytes b;
    appendHead(b, 0x44425248u, 168);
    for (const Bytes* part : a.inOrder()) b.u64(reinterpret_cast<uintptr_t>(part->data.data()));
    return b;
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

// The block read against the text read, parameters included.
void expectModelOfText(const std::vector<unsigned char>& bytes, bool direct, int32_t dimension,
                       const std::string& text) {
    test::Mesh expected(dimension), mesh(dimension);
    expected.read(text, dimension);
    std::istringstream parameterText(sampleParameterText);
    RunParameters expectedParameters, parameters;
    ASSERT_TRUE(readParameterSection(parameterText, expectedParameters));
    readWholeBlock(bytes, direct, mesh, parameters);
    test::expectSameMesh(mesh, expected);
    EXPECT_EQ(test::fields(parameters), test::fields(expectedParameters));
}

TEST(MeshBlock, BothFamiliesGiveTheModelOfTheText) {
    const std::string text = sampleNodesText + sampleFacesText + samplePairText;
    expectModelOfText(samplePackedBlock().data, false, 2, text);
    const SampleArrays arrays = sampleArrays();
    expectModelOfText(directBlockOver(arrays).data, true, 2, text);

    // Three-dimensional blocks read z; a translational pair shifts by its own vector.
    Bytes b = samplePackedBlock();
    b.patchI32(atDimension, 3);
    expectModelOfText(b.data, false, 3,
                      "(10 (1 1 4 1 3)(0 0 99 1 0 99 1 1 99 0 1 99))" + sampleFacesText +
                          samplePairText);
    b = samplePackedBlock();
    b.patchI32(atPair + 8, 0);
    expectModelOfText(b.data, false, 2, sampleNodesText + sampleFacesText + "(18 (6 5) 0 9 9 9)");
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
         [](Bytes& b) { b.patchU64(atTotalBytes, samplePackedBytes - 1); b.data.pop_back(); }},
        {false, overrun, [](Bytes& b) { b.patchU64(atTotalBytes, 100); }},  // shorter than the head
        {false, longer,
         [](Bytes& b) { b.patchU64(atTotalBytes, samplePackedBytes + 4); b.i32(0); }},
        {false, "",
         [](Bytes& b) {
             b.data.resize(120);
             b.patchU64(atTotalBytes, 120);
             for (size_t at : countOffsets) b.patchI32(at, 0);
         }},
        // A direct block's length is that of its own head.
        {true, overrun, [](Bytes& b) { b.patchU64(atTotalBytes, 160); }},
        {true, longer, [](Bytes& b) { b.patchU64(atTotalBytes, 176); b.u64(0); }},
        // Without elements an array may be null.
        {true, "", [](Bytes& b) { b.patchI32(112, 0); b.patchU64(128, 0); }},
        {false, "element type not supported", [](Bytes& b) { b.patchI32(atZones + 16, 1); }},
        {false, "element type not supported", [](Bytes& b) { b.patchI32(atZones + 36, 6); }},
        // Zone 7 spans faces 4 to 6, three where the block has two left; or one face,
        // and the last face is left over.
        {false, "zone faces overrun the face count",
         [](Bytes& b) { b.patchI32(atZones + 48, 6); }},
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

    const SampleArrays arrays = sampleArrays();
    for (const Damage& d : damages) {
        Bytes b = d.direct ? directBlockOver(arrays) : samplePackedBlock();
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
    EXPECT_EXIT(readAndExit(directBlockOver(arrays).data, false), ExitedWithCode(1), family);
}

TEST(MeshBlockDeathTest, CorruptedBlocksNeverCrash) {
    // Random values in random int32 fields, counts and arrays alike: every result is
    // either a model or a defined error, never a signal or a read past the end.
    const Bytes good = samplePackedBlock();
    std::mt19937 random(12345);
    std::vector<size_t> fields(std::begin(countOffsets), std::end(countOffsets));
    fields.push_back(atReserved);
    for (size_t at = atZones; at < good.data.size(); at += 4) fields.push_back(at);
    const int32_t values[] = {-1, 0, 1, 2, 3, 5, 6, 7, 8, 100, INT32_MAX, INT32_MIN};
    auto exitedCleanly = [](int status) {
        return WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 1);
    };
    for (int trial = 0; trial < 60; ++trial) {
        Bytes b = good;
        for (int k = 0; k < 3; ++k)
            b.patchI32(fields[random() % fields.size()], values[random() % std::size(values)]);
        EXPECT_EXIT(readAndExit(b.data, false), exitedCleanly, "") << "trial " << trial;
    }
}

}  // namespace
}  // namespace hemiray
