// The exported entry point: input selection by name, the size section, the failure
// lines and results, in-memory blocks that fail, the console lines of repeated
// calls, compressed input and output under names that are never shell syntax, and
// the output sink.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "input/MeshBlockPacker.h"
#include "run/InputSource.h"
#include "run/OutputSink.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using testing::fileCount;
using testing::readFile;
using testing::runLibrary;
using testing::ScratchDir;
using testing::writeFile;

// A small planar model: rows need no random numbers, so results are reproducible.
std::string planarModelText() {
    return testing::exampleText("polygon", 1, 8);
}

// Runs a shell command line built only from names the test chose itself.
void shell(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

TEST(InputNames, SubstringAnywhereSelectsTheDecompressor) {
    EXPECT_TRUE(namesGzip("mesh.gz.old"));
    EXPECT_FALSE(namesGzip("gz"));
    EXPECT_FALSE(namesGzip("a.GZ"));
    EXPECT_TRUE(namesCompress("a.Zip"));
    EXPECT_FALSE(namesCompress("a.z"));
    EXPECT_FALSE(namesCompress("Z"));
    EXPECT_TRUE(namesGzip("x.gz.Z"));  // both: gzip is tested first
    EXPECT_TRUE(namesHdf5("result.h5.tmp"));
    EXPECT_FALSE(namesHdf5("h5"));
}

TEST(SizeSection, ReadsFiveValuesWithOptionalOneWordComment) {
    SizeSection s;
    std::istringstream commented("(0 grid) (10 20 3 400 3)");
    ASSERT_TRUE(readSizeSection(commented, s));
    EXPECT_EQ(std::tuple(s.size1, s.size2, s.zoneCount, s.globCount, s.dimension),
              std::tuple(10, 20, 3, 400, 3));
    // Extra values go with the section, nothing more.
    std::istringstream extra("(12 20 3 400 3 7) (1 2)");
    ASSERT_TRUE(readSizeSection(extra, s));
    EXPECT_EQ(s.size1, 12);
    char next = 0;
    extra >> next;
    EXPECT_EQ(next, '(');
    for (const char* text : {"(0 my grid) (10 20 3 400 3)", "10 20 3 400 3)", "(10 20 3", ""}) {
        std::istringstream bad(text);
        EXPECT_FALSE(readSizeSection(bad, s)) << text;
    }
}

// Each failure: result 0, exactly its lines, the input as it was and nothing else.
TEST(EntryPoint, FailuresPrintTheirLinesAndKeepTheInput) {
    ScratchDir dir;
    for (const char* name : {"missing", "missing.gz", "missing.Z"}) {
        const auto r = runLibrary(dir.file(name));
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.err, "error: couldn't open input file: " + dir.file(name) + "\n");
        EXPECT_EQ(fileCount(dir.path()), 0u);
    }
    const std::string params = "(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)\n";
    const std::string size = "error: reading size section!\n";
    const std::string failed = "error: couldn't calculate view factors!\n";
    const char* read = "# Read parameter section...\n";
    // The size section is read before the run starts; the resolution and the glob
    // count can only be checked after the parameter section. nullptr: not checked.
    struct Case {
        std::string text;
        const char* out;
        std::string err;
    };
    const Case cases[] = {
        {"", "", size},
        {"(0 my grid) (1 2 3 4 3)", "", size},
        {"garbage", "", size},
        {"(1 2 3", "", size},
        {"(1 0 1 1 2)\n(1 8 0 0.5 1 1 0.25 2 3", read, failed},
        {"(1 0 1 1 4)\n" + params, nullptr,
         "error: dimension 4 in the size section is not 1 (axisymmetric), 2 (planar) or 3\n" +
             failed},
        // The bound is on directions: 3 R^2 on the hemicube, 2 R on the planar fan.
        {"(1 0 1 1 2)\n(1 -2 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)", read,
         "error: hemisphere resolution -2 is outside 0 to 6291456\n" + failed},
        {"(1 0 1 1 2)\n(1 6291457 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)", read,
         "error: hemisphere resolution 6291457 is outside 0 to 6291456\n" + failed},
        {"(1 0 1 1 1)\n(1 2049 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)", read,
         "error: hemisphere resolution 2049 is outside 0 to 2048\n" + failed},
        {"(1 0 1 2000000000 2)\n" + params, read,
         "error: glob count 2000000000 in the size section does not fit 0 faces\n" + failed},
        {"(1 0 1 -1 2)\n" + params, read,
         "error: glob count -1 in the size section does not fit 0 faces\n" + failed},
        // Node numbers are stored as read; 3 of 2 nodes, and 0, are caught before
        // the geometry would index past the node array.
        {"(1 0 1 1 2)\n" + params +
             "(10 (1 1 2 1 2)(0 0 1 0))(311 (1 1 1 3 2)(1 3))(309 (1 1 1 3 2)(0))",
         read, "error: face 1 refers to node 3, outside the 2 nodes of the mesh\n" + failed},
        {"(1 0 1 1 2)\n" + params +
             "(10 (1 1 2 1 2)(0 0 1 0))(311 (1 1 1 3 2)(0 2))(309 (1 1 1 3 2)(0))",
         read, "error: face 1 refers to node 0, outside the 2 nodes of the mesh\n" + failed},
    };
    for (const Case& c : cases) {
        writeFile(dir.file("m"), c.text);
        const auto r = runLibrary(dir.file("m"));
        EXPECT_EQ(r.result, 0) << c.text;
        if (c.out) {
            EXPECT_EQ(testing::withoutTimings(r.out), c.out) << c.text;
        }
        EXPECT_EQ(r.err, c.err) << c.text;
        EXPECT_EQ(readFile(dir.file("m")), c.text);
        EXPECT_EQ(fileCount(dir.path()), 1u);
    }
}

// A wall's glob id at or above the glob count is bad input, refused once the model
// is read, before the result is opened; a mirror's id is never used.
TEST(EntryPoint, WallGlobIdBeyondTheGlobCountIsBadInput) {
    ScratchDir dir;
    const std::string head =
        "(1 0 1 1 2)\n(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)\n"
        "(10 (1 1 4 1 2)(0 0 1 0 1 1 0 1))";
    const std::string wall = "(311 (1 1 1 3 2)(1 2))(309 (1 1 1 3 2)(1))";
    writeFile(dir.file("m"), head + wall);
    const std::string name = dir.file("m");
    EXPECT_EXIT(raytracing_lib(0, name.c_str(), nullptr, 0, 1, 1, nullptr, "h", false, false, 0),
                ::testing::ExitedWithCode(1),
                "^file i/o error: glob id at or above the glob count\n$");
    const std::string mirror =
        "(311 (1 1 1 2007 2)(1 2))(309 (1 1 1 2007 2)(5))"
        "(311 (2 2 2 1 2)(3 4))(309 (2 2 2 1 2)(0))";
    writeFile(dir.file("m"), head + mirror);
    EXPECT_EQ(runLibrary(dir.file("m")).result, 1);
}

TEST(EntryPoint, RepeatedCallsPrintTheSameLinesAndWriteTheSameFile) {
    ScratchDir dir;
    for (const char* name : {"a", "b"}) {
        writeFile(dir.file(name), planarModelText());
        const auto r = runLibrary(dir.file(name));
        ASSERT_EQ(r.result, 1) << r.err;
        EXPECT_EQ(r.err, "");
        // 4 segments of the room and 4 of the pillar: 8 faces, so the depth is
        // trunc(1.2 log2 8) + 2 = 5. One slot, 8 blocks: block b prints k0% when
        // b + 1 = (8 k) / 10, so 10% never shows and block 3 prints both 50% and 60%.
        EXPECT_EQ(testing::withoutTimings(r.out),
                  "# Read parameter section...\n"
                  "# Create BSP tree...\n"
                  "# Maximum tree depth = 5\n"
                  "# Calculate and write view factors...\n"
                  "#\t 20% done...\n#\t 30% done...\n#\t 40% done...\n"
                  "#\t 50% done...\n#\t 60% done...\n#\t 70% done...\n#\t 80% done...\n"
                  "#\t 90% done...\n"
                  "#\t100% done!\n");
        EXPECT_NE(r.out.find("\n# CPU  time: "), std::string::npos);
        EXPECT_NE(r.out.find(" (s)\n# Wall time: "), std::string::npos);
    }
    EXPECT_EQ(readFile(dir.file("a")), readFile(dir.file("b")));
}

TEST(EntryPoint, FileNamesAreNeverShellSyntax) {
    ScratchDir dir;
    const std::string text = planarModelText();
    writeFile(dir.file("plain"), text);
    ASSERT_EQ(runLibrary(dir.file("plain")).result, 1);
    const std::string expected = readFile(dir.file("plain"));

    // Each name would run "touch pwned" if it reached a shell unquoted.
    const std::string names[] = {
        "a \"$(touch pwned)\".gz", "b `touch pwned`; x.gz", "c;touch pwned;.gz.old", "-d $HOME.gz",
        "e'$(touch pwned)'.Z",
    };
    for (const auto& name : names) {
        writeFile(dir.file("src"), text);
        const bool gzip = name.find(".gz") != std::string::npos;
        shell((gzip ? "gzip" : "compress") + std::string(" -c ") + dir.file("src") + " > " +
              dir.file("tmp"));
        std::filesystem::rename(dir.file("tmp"), dir.file(name));
        const auto r = runLibrary(dir.file(name));
        ASSERT_EQ(r.result, 1) << name << ": " << r.err;
        if (gzip) {
            std::filesystem::copy_file(dir.file(name), dir.file("check.gz"));
            shell("gzip -d " + dir.file("check.gz"));
            EXPECT_EQ(readFile(dir.file("check")), expected) << name;
            std::filesystem::remove(dir.file("check"));
        } else {
            EXPECT_EQ(readFile(dir.file(name)), expected) << name;
        }
        EXPECT_FALSE(std::filesystem::exists(dir.file("pwned")));
        EXPECT_FALSE(std::filesystem::exists("pwned"));
    }
}

// A run of an in-memory block (packed or direct).
testing::RunResult runBlock(const std::string& name, const void* block, bool directFields) {
    testing::RunOptions options;
    options.fromFile = false;
    options.block = block;
    options.directFields = directFields;
    return runLibrary(name, options);
}

TEST(EntryPoint, UnopenableOutputFailsWithItsLine) {
    // In-memory input reads no file, so the output name may point anywhere.
    const std::vector<std::byte> block = testing::packText(planarModelText());
    ScratchDir dir;
    const std::string name = dir.file("no/such/folder/result");
    const auto r = runBlock(name, block.data(), false);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.err, "error: couldn't open output file: " + name +
                         "\nerror: couldn't calculate view factors!\n");
    EXPECT_EQ(r.out.find("# Create BSP tree"), std::string::npos);
}

// Blocks that fail: a missing or implausible block fails the call with its lines,
// a block whose counts overrun it ends the process. That good blocks give the
// text's result is the end-to-end suite's (EndToEndTest).
TEST(InMemoryRunFailures, MissingOrImplausibleBlockFailsTheCall) {
    ScratchDir dir;
    for (const bool directFields : {false, true}) {
        const auto r = runBlock(dir.file("out"), nullptr, directFields);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.out, "# Read parameter section...\n");
        EXPECT_EQ(r.err, "error: no mesh data given\nerror: couldn't calculate view factors!\n");
    }
    // The size values and the resolution of a block meet the same checks as text.
    std::vector<std::byte> packed = testing::packText(testing::exampleText("polygon", 1, 6));
    hemiray_block_head head;
    std::memcpy(&head, packed.data(), sizeof head);
    head.dimension = 4;
    std::memcpy(packed.data(), &head, sizeof head);
    const auto r = runBlock(dir.file("out"), packed.data(), false);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.err,
              "error: dimension 4 in the size section is not 1 (axisymmetric), 2 (planar) or 3\n"
              "error: couldn't calculate view factors!\n");
    EXPECT_EQ(fileCount(dir.path()), 0u);
}

TEST(InMemoryRunFailuresDeathTest, BadBlockEndsTheProcessBeforeAnyOutput) {
    std::vector<std::byte> packed = testing::packText(testing::exampleText("plates", 1, 6));
    hemiray_block_head head;
    std::memcpy(&head, packed.data(), sizeof head);
    head.faceNodeCount += 1;  // one node reference more than the block holds
    std::memcpy(packed.data(), &head, sizeof head);
    ScratchDir dir;
    const std::string name = dir.file("out");
    EXPECT_EXIT(
        raytracing_lib(0, name.c_str(), nullptr, 0, 1, 0, packed.data(), "x", false, false, 0),
        ::testing::ExitedWithCode(1), "file i/o error: mesh block counts overrun its length\n$");
    EXPECT_EQ(fileCount(dir.path()), 0u);
}

TEST(OutputSink, TargetIsReplacedOnlyByACommit) {
    ScratchDir dir;
    for (const char* name : {"out", "out.gz"}) {
        // Nothing can be written into a missing folder, and nothing is left behind.
        EXPECT_FALSE(OutputSink(dir.file(std::string("no/such/dir/") + name), false).ok());
        writeFile(dir.file(name), "user data");
        {
            OutputSink sink(dir.file(name), false);
            ASSERT_TRUE(sink.ok());
            sink.stream() << "half a result";
            // Destroyed without commit, as when a run fails midway.
        }
        EXPECT_EQ(readFile(dir.file(name)), "user data");
        {
            OutputSink sink(dir.file(name), false);
            ASSERT_TRUE(sink.ok());
            sink.stream() << "whole result\n";
            ASSERT_TRUE(sink.commit());
        }
        EXPECT_EQ(fileCount(dir.path()), name == std::string("out") ? 1u : 2u);
    }
    EXPECT_EQ(readFile(dir.file("out")), "whole result\n");
    shell("gzip -dc < " + dir.file("out.gz") + " > " + dir.file("plain"));
    EXPECT_EQ(readFile(dir.file("plain")), "whole result\n");
}

TEST(OutputSink, SymbolicLinkIsFollowedAndKept) {
    ScratchDir dir;
    writeFile(dir.file("real"), "old");
    std::filesystem::create_symlink(dir.file("real"), dir.file("link"));
    OutputSink sink(dir.file("link"), false);
    ASSERT_TRUE(sink.ok());
    sink.stream() << "new";
    ASSERT_TRUE(sink.commit());
    EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link")));
    EXPECT_EQ(readFile(dir.file("real")), "new");
}

}  // namespace
}  // namespace hemiray
