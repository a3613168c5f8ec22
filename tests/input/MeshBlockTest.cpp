// The in-memory block readers against blocks written byte by byte from the layout
// in hemiray/raytracing.h: the model they fill, both families, and every defined
// error. Blocks lie right before an inaccessible page, so a read past a block's end
// crashes the test instead of passing unnoticed.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "MeshFixture.h"
#include "input/MeshBlock.h"
#include "input/ParameterSection.h"

namespace hemiray {
namespace {

using ::testing::ExitedWithCode;

// Little-endian bytes appended field by field, with patching at known offsets.
struct Bytes {
    std::vector<unsigned char> data;

    void u32(uint32_t v) {
        for (int i = 0; i < 4; ++i) data.push_back(static_cast<unsigned char>(v >> (8 * i)));
    }
    void i32(int32_t v) { u32(static_cast<uint32_t>(v)); }
    void u64(uint64_t v) {
        for (int i = 0; i < 8; ++i) data.push_back(static_cast<unsigned char>(v >> (8 * i)));
    }
    void f64(double v) { u64(std::bit_cast<uint64_t>(v)); }
    void text(const char* s) { data.insert(data.end(), s, s + std::strlen(s)); }

    void patchI32(size_t offset, int32_t v) {
        for (int i = 0; i < 4; ++i)
            data[offset + i] = static_cast<unsigned char>(static_cast<uint32_t>(v) >> (8 * i));
    }
    void patchU64(size_t offset, uint64_t v) {
        for (int i = 0; i < 8; ++i) data[offset + i] = static_cast<unsigned char>(v >> (8 * i));
    }
};

// Head offsets, from the layout table.
constexpr size_t atTag = 20;
constexpr size_t atTotalBytes = 88;
constexpr size_t atNodeCount = 96;
constexpr size_t atFaceZoneCount = 100;
constexpr size_t atFaceCount = 104;
constexpr size_t atFaceNodeCount = 108;
constexpr size_t atPeriodicCount = 112;
constexpr size_t atReserved = 116;

// The sample model, a planar unit square:
//   zone 5: walls (type 3), two line faces 0-1, 1-2, globs 0 and 1;
//   zone 6: periodic (2012), mixed, one face 2-3, no glob;
//   zone 7: outlet (2010), polygons, one face 3-0 (glob 2) and one face without
//           nodes (glob 3);
//   one rotational pair 6 -> 5, angle 0.5 about the axis through (1,2,3) along z.
// Nodes carry z = 99, which a planar run must not read.
constexpr int32_t sampleNodes = 4, sampleZones = 3, sampleFaces = 5, sampleFaceNodes = 8,
                  samplePairs = 1;

void appendHead(Bytes& b, uint32_t tag, uint64_t totalBytes) {
    for (int32_t v : {7, 8, 3, 4, 2}) b.i32(v);  // size values; dimension 2
    b.u32(tag);
    b.f64(0.5);    // param4
    b.f64(0.25);   // param7
    b.f64(1e-3);   // param10
    for (int32_t v : {1, 8, 0, 1, 1, 2, 3, 4}) b.i32(v);  // param1 .. param11
    b.i32(9);      // param13 stands before param12
    b.i32(7);      // param12
    b.u64(totalBytes);
    for (int32_t v : {sampleNodes, sampleZones, sampleFaces, sampleFaceNodes, samplePairs, 0})
        b.i32(v);
}

struct SampleArrays {
    Bytes nodes, periodic, zones, faceNodeCounts, faceNodes, faceGlobs;
};

SampleArrays sampleArrays() {
    SampleArrays a;
    for (auto [x, y] : {std::pair{0.0, 0.0}, {1.0, 0.0}, {1.0, 1.0}, {0.0, 1.0}}) {
        a.nodes.f64(x);
        a.nodes.f64(y);
        a.nodes.f64(99.0);
    }
    a.periodic.i32(6);
    a.periodic.i32(5);
    a.periodic.i32(1);  // rotational
    a.periodic.i32(0);
    a.periodic.f64(0.5);
    for (double v : {1.0, 2.0, 3.0, 0.0, 0.0, 1.0, 9.0, 9.0, 9.0}) a.periodic.f64(v);
    for (int32_t v : {5, 1, 2, 3, 2, 6, 3, 3, 2012, 0, 7, 4, 5, 2010, 5}) a.zones.i32(v);
    for (int32_t v : {2, 2, 2, 2, 0}) a.faceNodeCounts.i32(v);
    for (int32_t v : {0, 1, 1, 2, 2, 3, 3, 0}) a.faceNodes.i32(v);
    for (int32_t v : {0, 1, -1, 2, 3}) a.faceGlobs.i32(v);
    return a;
}

// 120-byte head, then 24 per node, 96 per pair, 20 per zone, 4 per face count,
// 4 per node reference, 4 per glob.
constexpr uint64_t samplePackedBytes = 120 + 4 * 24 + 96 + 3 * 20 + 5 * 4 + 8 * 4 + 5 * 4;

Bytes samplePackedBlock() {
    Bytes b;
    appendHead(b, 0x50425248u, samplePackedBytes);
    const SampleArrays a = sampleArrays();
    for (const Bytes* part : {&a.nodes, &a.periodic, &a.zones, &a.faceNodeCounts, &a.faceNodes,
                              &a.faceGlobs})
        b.data.insert(b.data.end(), part->data.begin(), part->data.end());
    EXPECT_EQ(b.data.size(), samplePackedBytes);
    return b;
}

// A direct block over arrays the caller keeps alive: head, then six 8-byte pointers
// in the order nodes, periodic, zones, faceNodeCounts, faceNodes, faceGlobs.
Bytes directBlockOver(const SampleArrays& a) {
    Bytes b;
    appendHead(b, 0x44425248u, 168);
    for (const Bytes* part : {&a.nodes, &a.periodic, &a.zones, &a.faceNodeCounts, &a.faceNodes,
                              &a.faceGlobs})
        b.u64(reinterpret_cast<uintptr_t>(part->data.data()));
    return b;
}

// Bytes placed so that the first byte after them is on a page that cannot be read.
class GuardedCopy {
public:
    explicit GuardedCopy(const std::vector<unsigned char>& bytes) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        dataPages_ = (bytes.size() + page - 1) / page * page;
        mappedBytes_ = dataPages_ + page;
        base_ = static_cast<unsigned char*>(mmap(nullptr, mappedBytes_, PROT_READ | PROT_WRITE,
                                                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_NE(base_, MAP_FAILED);
        EXPECT_EQ(mprotect(base_ + dataPages_, page, PROT_NONE), 0);
        start_ = base_ + dataPages_ - bytes.size();
        std::memcpy(start_, bytes.data(), bytes.size());
    }
    ~GuardedCopy() { munmap(base_, mappedBytes_); }
    GuardedCopy(const GuardedCopy&) = delete;
    GuardedCopy& operator=(const GuardedCopy&) = delete;

    const void* data() const { return start_; }

private:
    unsigned char* base_ = nullptr;
    unsigned char* start_ = nullptr;
    size_t dataPages_ = 0;
    size_t mappedBytes_ = 0;
};

// What a run does with a block: open it, take the parameters, read the mesh.
void readWholeBlock(const void* block, bool direct, test::Mesh& mesh, RunParameters& parameters) {
    const MeshBlockView view = direct ? openDirectBlock(block) : openPackedBlock(block);
    if (direct)
        copyParameterBlock(view.parameters, parameters);
    else
        readBlockParameters(view, parameters);
    readBlockMesh(view, view.dimension, mesh.nodes, mesh.allFaces, mesh.participatingFaces,
                  mesh.zones);
}

void expectSampleModel(const test::Mesh& m, const RunParameters& p) {
    EXPECT_EQ(p.param1, 1);
    EXPECT_EQ(p.hemisphereResolution, 8);
    EXPECT_EQ(p.param3, 0);
    EXPECT_EQ(p.param4, 0.5);
    EXPECT_EQ(p.param5, 1);
    EXPECT_EQ(p.param6, 1);
    EXPECT_EQ(p.param7, 0.25);
    EXPECT_EQ(p.param8, 2);
    EXPECT_EQ(p.param9, 3);
    EXPECT_EQ(p.param10, 1e-3);
    EXPECT_EQ(p.param11, 4);
    EXPECT_EQ(p.param12, 7);
    EXPECT_EQ(p.param13, 9);

    EXPECT_EQ(m.nodes, (NodeArray{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}}));

    using V = std::vector<int32_t>;
    const FaceSet& all = m.allFaces;
    EXPECT_EQ(all.faceNodeStart, (V{0, 2, 4, 6, 8, 8}));
    EXPECT_EQ(all.faceNodes, (V{0, 1, 1, 2, 2, 3, 3, 0}));
    EXPECT_EQ(all.faceId, (V{0, 1, 2, 3, 4}));
    EXPECT_EQ(all.faceGlob, (V{0, 1, -1, 2, 3}));
    EXPECT_EQ(all.faceZoneType, (V{3, 3, 2012, 2010, 2010}));
    EXPECT_EQ(all.faceZoneIndex, (V{0, 0, 1, 2, 2}));

    // The outlet zone (2010) does not take part; its globs stay in allFaces only.
    const FaceSet& part = m.participatingFaces;
    EXPECT_EQ(part.faceNodeStart, (V{0, 2, 4, 6}));
    EXPECT_EQ(part.faceNodes, (V{0, 1, 1, 2, 2, 3}));
    EXPECT_EQ(part.faceId, (V{0, 1, 2}));
    EXPECT_EQ(part.faceGlob, (V{0, 1, -1}));
    EXPECT_EQ(part.faceZoneType, (V{3, 3, 2012}));
    EXPECT_EQ(part.faceZoneIndex, (V{0, 0, 1}));

    const ZoneTable& z = m.zones;
    EXPECT_EQ(z.zoneFaceStart, (V{0, 2, 3, 5}));
    EXPECT_EQ(z.zoneId, (V{5, 6, 7}));
    EXPECT_EQ(z.zoneType, (V{3, 2012, 2010}));
    EXPECT_EQ(z.zoneElementType, (V{2, 0, 5}));
    EXPECT_EQ(z.zoneFirst, (V{1, 3, 4}));
    EXPECT_EQ(z.zoneLast, (V{2, 3, 5}));
    // Zone 6 names 5 as its shadow; the shadow turns back and keeps no shadow of its
    // own. A rotational pair leaves the shifts alone.
    EXPECT_EQ(z.periodicType, (V{1, 1, 0}));
    EXPECT_EQ(z.periodicShadow, (V{-1, 0, -1}));
    EXPECT_EQ(z.periodicAngle, (std::vector<double>{-0.5, 0.5, 0}));
    EXPECT_EQ(z.periodicAxisA, (std::vector<Vec3>{{1, 2, 3}, {1, 2, 3}, {}}));
    EXPECT_EQ(z.periodicAxisB, (std::vector<Vec3>{{0, 0, 1}, {0, 0, 1}, {}}));
    EXPECT_EQ(z.periodicShift, (std::vector<Vec3>(3)));
}

TEST(MeshBlock, PackedBlockFillsTheModel) {
    const GuardedCopy block(samplePackedBlock().data);
    test::Mesh mesh(2);
    RunParameters parameters;
    readWholeBlock(block.data(), false, mesh, parameters);
    expectSampleModel(mesh, parameters);
}

TEST(MeshBlock, DirectBlockFillsTheSameModel) {
    const SampleArrays arrays = sampleArrays();
    const GuardedCopy block(directBlockOver(arrays).data);
    test::Mesh mesh(2);
    RunParameters parameters;
    readWholeBlock(block.data(), true, mesh, parameters);
    expectSampleModel(mesh, parameters);
}

TEST(MeshBlock, SameModelAsTheTextForm) {
    // The sample written as mesh text, read by the text readers.
    test::Mesh text(2);
    text.read("(10 (1 1 4 1 2)(0 0 1 0 1 1 0 1))"
              "(311 (5 1 2 3 2)(1 2 2 3))"
              "(311 (6 3 3 2012 0)(2 3 4))"
              "(311 (7 4 5 2010 5)(2 4 1 0))"
              "(309 (5 1 2 3 2)(0 1))"
              "(309 (7 4 5 2010 5)(2 3))"
              "(18 (6 5) 1 0.5 1 2 3 0 0 1)",
              2);
    std::istringstream parameterText("(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 7 9)");
    RunParameters parameters;
    ASSERT_TRUE(readParameterSection(parameterText, parameters));
    expectSampleModel(text, parameters);
}

TEST(MeshBlock, ThreeDimensionalBlocksReadZ) {
    Bytes b = samplePackedBlock();
    b.patchI32(16, 3);
    const GuardedCopy block(b.data);
    test::Mesh mesh(3);
    RunParameters parameters;
    readWholeBlock(block.data(), false, mesh, parameters);
    EXPECT_EQ(mesh.nodes, (NodeArray{{0, 0, 99}, {1, 0, 99}, {1, 1, 99}, {0, 1, 99}}));
}

TEST(MeshBlock, TranslationalPairShiftsTheShadowBack) {
    Bytes b = samplePackedBlock();
    const size_t pair = 120 + 4 * 24;
    b.patchI32(pair + 8, 0);  // periodicType
    const GuardedCopy block(b.data);
    test::Mesh mesh(2);
    RunParameters parameters;
    readWholeBlock(block.data(), false, mesh, parameters);
    EXPECT_EQ(mesh.zones.periodicType, (std::vector<int32_t>{0, 0, 0}));
    EXPECT_EQ(mesh.zones.periodicShift, (std::vector<Vec3>{{-9, -9, -9}, {9, 9, 9}, {}}));
    EXPECT_EQ(mesh.zones.periodicAngle, (std::vector<double>{0, 0, 0}));
}

TEST(MeshBlock, TheTwoParameterReadersAgree) {
    const Bytes b = samplePackedBlock();
    const MeshBlockView view = openPackedBlock(b.data.data());
    RunParameters packed, copied;
    readBlockParameters(view, packed);
    copyParameterBlock(b.data.data() + 24, copied);
    EXPECT_EQ(std::memcmp(&packed, &copied, sizeof packed), 0);
    EXPECT_EQ(packed.param12, 7);
    EXPECT_EQ(packed.param13, 9);
}

TEST(MeshBlock, EmptyModelIsAValidBlock) {
    Bytes b;
    for (int32_t v : {0, 0, 0, 0, 3}) b.i32(v);
    b.text("HRBP");  // the tag's bytes
    for (int i = 0; i < 64; ++i) b.data.push_back(0);
    b.u64(120);
    for (int i = 0; i < 6; ++i) b.i32(0);
    const GuardedCopy block(b.data);
    test::Mesh mesh(3);
    RunParameters parameters;
    readWholeBlock(block.data(), false, mesh, parameters);
    EXPECT_TRUE(mesh.nodes.empty());
    EXPECT_EQ(mesh.allFaces.faceCount(), 0);
    EXPECT_EQ(mesh.zones.zoneCount(), 0);
}

// Reads the block as a run would and exits 0; bad blocks exit 1 on their own.
[[noreturn]] void readAndExit(const std::vector<unsigned char>& bytes, bool direct) {
    const GuardedCopy block(bytes);
    test::Mesh mesh(2);
    RunParameters parameters;
    const MeshBlockView view = direct ? openDirectBlock(block.data()) : openPackedBlock(block.data());
    // A run refuses other dimensions before it reads the mesh.
    if (view.dimension < 1 || view.dimension > 3) std::exit(0);
    readWholeBlock(block.data(), direct, mesh, parameters);
    std::exit(0);
}

#define EXPECT_BLOCK_ERROR(bytes, direct, message) \
    EXPECT_EXIT(readAndExit(bytes, direct), ExitedWithCode(1), "file i/o error: " message "\n$")

TEST(MeshBlockDeathTest, HeadErrors) {
    const Bytes good = samplePackedBlock();
    Bytes b = good;
    b.patchI32(atTag, 0x12345678);
    EXPECT_BLOCK_ERROR(b.data, false, "mesh block tag is unknown");
    EXPECT_BLOCK_ERROR(b.data, true, "mesh block tag is unknown");
    EXPECT_BLOCK_ERROR(good.data, true, "mesh block family does not match directFields");
    const SampleArrays arrays = sampleArrays();
    EXPECT_BLOCK_ERROR(directBlockOver(arrays).data, false,
                       "mesh block family does not match directFields");

    b = good;
    b.patchI32(atReserved, 1);
    EXPECT_BLOCK_ERROR(b.data, false, "mesh block reserved field is not 0");

    for (size_t at : {atNodeCount, atFaceZoneCount, atFaceCount, atFaceNodeCount, atPeriodicCount}) {
        b = good;
        b.patchI32(at, -1);
        EXPECT_BLOCK_ERROR(b.data, false, "mesh block has a negative count");
    }
}

TEST(MeshBlockDeathTest, CountsAreCheckedAgainstTheLength) {
    const Bytes good = samplePackedBlock();
    // Each count one too high needs more bytes than the block has: nothing is read.
    for (size_t at : {atNodeCount, atFaceZoneCount, atFaceCount, atFaceNodeCount, atPeriodicCount}) {
        Bytes b = good;
        int32_t count = 0;
        std::memcpy(&count, b.data.data() + at, 4);
        b.patchI32(at, count + 1);
        EXPECT_BLOCK_ERROR(b.data, false, "mesh block counts overrun its length");
        // Counts near the int32 limit must not wrap the length arithmetic.
        b.patchI32(at, INT32_MAX);
        EXPECT_BLOCK_ERROR(b.data, false, "mesh block counts overrun its length");
    }
    Bytes b = good;
    b.patchU64(atTotalBytes, samplePackedBytes - 1);
    b.data.pop_back();
    EXPECT_BLOCK_ERROR(b.data, false, "mesh block counts overrun its length");
    b = good;
    b.patchU64(atTotalBytes, 100);  // shorter than the head itself
    EXPECT_BLOCK_ERROR(b.data, false, "mesh block counts overrun its length");
    b = good;
    b.patchU64(atTotalBytes, samplePackedBytes + 4);
    b.i32(0);
    EXPECT_BLOCK_ERROR(b.data, false, "mesh block is longer than its counts need");

    // A direct block's length is that of its own head.
    const SampleArrays arrays = sampleArrays();
    Bytes direct = directBlockOver(arrays);
    direct.patchU64(atTotalBytes, 160);
    EXPECT_BLOCK_ERROR(direct.data, true, "mesh block counts overrun its length");
    direct.patchU64(atTotalBytes, 176);
    direct.u64(0);
    EXPECT_BLOCK_ERROR(direct.data, true, "mesh block is longer than its counts need");
}

TEST(MeshBlockDeathTest, NullArrayInADirectBlock) {
    const SampleArrays arrays = sampleArrays();
    for (size_t pointer = 0; pointer < 6; ++pointer) {
        Bytes b = directBlockOver(arrays);
        b.patchU64(120 + 8 * pointer, 0);
        EXPECT_BLOCK_ERROR(b.data, true, "mesh block array pointer is null");
    }
    // Without elements an array may be null.
    Bytes b = directBlockOver(arrays);
    b.patchI32(atPeriodicCount, 0);
    b.patchU64(120 + 8, 0);
    EXPECT_EXIT(readAndExit(b.data, true), ExitedWithCode(0), "");
}

// Offsets of the sample's arrays in its packed block.
constexpr size_t atZones = 120 + 4 * 24 + 96;
constexpr size_t atFaceNodeCounts = atZones + 3 * 20;
constexpr size_t atFaceNodes = atFaceNodeCounts + 5 * 4;

TEST(MeshBlockDeathTest, FaceErrors) {
    const Bytes good = samplePackedBlock();
    const std::pair<std::pair<size_t, int32_t>, const char*> cases[] = {
        {{atZones + 16, 1}, "element type not supported"},
        {{atZones + 20 + 16, 6}, "element type not supported"},
        // Zone 7 spans faces 4 to 6: three faces where the block has two left.
        {{atZones + 40 + 8, 6}, "zone faces overrun the face count"},
        // Zone 7 spans one face: the last face is left over.
        {{atZones + 40 + 8, 4}, "zone faces fall short of the face count"},
        {{atFaceNodeCounts + 8, -1}, "face node count is negative"},
        // Line faces have exactly two nodes.
        {{atFaceNodeCounts + 4, 3}, "face node count does not match the element type"},
        // The polygon's node count grows past the node references.
        {{atFaceNodeCounts + 12, 3}, "face nodes overrun the face node count"},
        {{atFaceNodeCounts + 12, 1}, "face nodes fall short of the face node count"},
        {{atFaceNodes + 4, -1}, "node number out of range"},
        {{atFaceNodes + 28, 4}, "node number out of range"},
        // The pair names zone 8, which no face zone has.
        {{120 + 4 * 24 + 4, 8}, "invalid id index"},
        {{120 + 4 * 24, 8}, "invalid id index"},
    };
    for (const auto& [patch, message] : cases) {
        Bytes b = good;
        b.patchI32(patch.first, patch.second);
        EXPECT_EXIT(readAndExit(b.data, false), ExitedWithCode(1),
                    std::string("file i/o error: ") + message + "\n$")
            << "offset " << patch.first << " value " << patch.second;
    }
}

TEST(MeshBlockDeathTest, NodeCountsFollowTheElementType) {
    // Zone 7's faces have 2 and 0 nodes: counted zones (0 and 5) take both, a line
    // zone stops at the empty face, triangles and quadrilaterals at the first one.
    for (int32_t elementType : {0, 2, 3, 4, 5}) {
        Bytes b = samplePackedBlock();
        b.patchI32(atZones + 40 + 16, elementType);
        const bool fits = elementType == 0 || elementType == 5;
        if (fits)
            EXPECT_EXIT(readAndExit(b.data, false), ExitedWithCode(0), "");
        else
            EXPECT_EXIT(readAndExit(b.data, false), ExitedWithCode(1),
                        "file i/o error: face node count does not match the element type\n$");
    }
}

TEST(MeshBlockDeathTest, CorruptedBlocksNeverCrash) {
    // Random values in random int32 fields, counts and arrays alike: every result is
    // either a model or a defined error, never a signal or a read past the end.
    const Bytes good = samplePackedBlock();
    std::mt19937 random(12345);
    const std::vector<size_t> fields = [&] {
        std::vector<size_t> f;
        for (size_t at = 96; at < 120; at += 4) f.push_back(at);
        for (size_t at = atZones; at < good.data.size(); at += 4) f.push_back(at);
        return f;
    }();
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
