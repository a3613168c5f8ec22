// Runs from in-memory blocks that fail: a missing or implausible block fails the
// call with its lines, a block whose counts overrun it ends the process. That good
// blocks give the text's result is the end-to-end suite's (EndToEndTest).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "input/MeshBlockPacker.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using ::testing::ExitedWithCode;
using testing::RunOptions;
using testing::RunResult;
using testing::ScratchDir;

// A run of the block, with the other options as given.
RunResult runBlock(const std::string& name, const void* block, bool directFields,
                   RunOptions options) {
    options.fromFile = false;
    options.block = block;
    options.directFields = directFields;
    return testing::runLibrary(name, options);
}

TEST(InMemoryRunFailures, MissingOrImplausibleBlockFailsTheCall) {
    ScratchDir dir;
    for (const bool directFields : {false, true}) {
        const RunResult r = runBlock(dir.file("out"), nullptr, directFields, {});
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
    const RunResult r = runBlock(dir.file("out"), packed.data(), false, {});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.err,
              "error: dimension 4 in the size section is not 1 (axisymmetric), 2 (planar) or 3\n"
              "error: couldn't calculate view factors!\n");
    EXPECT_EQ(testing::fileCount(dir.path()), 0u);
}

TEST(InMemoryRunFailuresDeathTest, BadBlockEndsTheProcessBeforeAnyOutput) {
    std::vector<std::byte> packed = testing::packText(testing::exampleText("plates", 1, 6));
    hemiray_block_head head;
    std::memcpy(&head, packed.data(), sizeof head);
    head.faceNodeCount += 1;  // one node reference more than the block holds
    std::memcpy(packed.data(), &head, sizeof head);
    ScratchDir dir;
    const std::string name = dir.file("out");
    EXPECT_EXIT(raytracing_lib(0, name.c_str(), nullptr, 0, 1, 0, packed.data(), "x", false,
                               false, 0),
                ExitedWithCode(1), "file i/o error: mesh block counts overrun its length\n$");
    EXPECT_EQ(testing::fileCount(dir.path()), 0u);
}

}  // namespace
}  // namespace hemiray
