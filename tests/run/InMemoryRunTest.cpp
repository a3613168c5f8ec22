// Whole runs from in-memory blocks: for every example model, the result file a
// block gives (packed and direct alike) is the one its text gives, byte for byte,
// with the same console lines; and a missing or bad block fails as documented.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "input/MeshBlockPacker.h"
#include "run/BlockFromText.h"
#include "support/RunHelpers.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

using ::testing::ExitedWithCode;
using testing::readFile;
using testing::RunOptions;
using testing::RunResult;
using testing::ScratchDir;
using testing::withoutTimings;
using testing::writeFile;

// A run of the block, with the other options as given.
RunResult runBlock(const std::string& name, const void* block, bool directFields,
                   RunOptions options) {
    options.fromFile = false;
    options.block = block;
    options.directFields = directFields;
    return testing::runLibrary(name, options);
}

std::vector<std::byte> packText(const std::string& text) {
    std::istringstream input(text);
    std::vector<std::byte> block;
    std::string error;
    EXPECT_TRUE(packTextModel(input, block, error)) << error;
    return block;
}

// The text path's result as an axisymmetric block writes it: the node section
// carries the block's dimension value, 1, as its coordinate count, so each node
// line keeps its first coordinate only.
std::string withFirstCoordinateOnly(const std::string& result) {
    std::istringstream in(result);
    std::string line, out;
    bool inNodes = false;
    while (std::getline(in, line)) {
        if (line.rfind("(10 (", 0) == 0) {
            inNodes = true;
        } else if (inNodes && line != "(") {
            const bool last = line.size() >= 2 && line.compare(line.size() - 2, 2, "))") == 0;
            if (last) line.resize(line.size() - 2);
            line = line.substr(0, line.find(' ')) + (last ? "))" : "");
            inNodes = !last;
        }
        out += line + '\n';
    }
    return out;
}

struct AcceptanceCase {
    std::string name;
    int32_t dimension;
    int threads;
    bool binary;
};

std::ostream& operator<<(std::ostream& os, const AcceptanceCase& c) {
    return os << c.name << ", " << c.threads << (c.threads == 1 ? " thread" : " threads")
              << (c.binary ? ", binary rows" : "");
}

// Every example case on one thread; planar and axisymmetric ones also on two.
// Three-dimensional rows draw from each thread's generator, which carries over
// between calls: on one thread it is reset before each call here, and the hemiray
// tool's test compares two-thread runs, each in a fresh process.
std::vector<AcceptanceCase> acceptanceCases() {
    std::vector<AcceptanceCase> cases;
    for (const auto& example : models::exampleCases()) {
        models::Model model;
        if (!models::makeExample(example.name, 1, 6, model)) continue;
        cases.push_back({example.name, model.dimension, 1, false});
        if (model.dimension != 3) cases.push_back({example.name, model.dimension, 2, false});
    }
    cases.push_back({"ring-periodic", 2, 2, true});
    cases.push_back({"plates-mirror", 3, 1, true});
    return cases;
}

class InMemoryRun : public ::testing::TestWithParam<AcceptanceCase> {};

TEST_P(InMemoryRun, WritesTheTextPathsResult) {
    const AcceptanceCase& c = GetParam();
    const std::string text = testing::exampleText(c.name, 2, 6);
    ScratchDir dir;
    writeFile(dir.file("text"), text);
    const std::vector<std::byte> packed = packText(text);
    const hemiray_direct_block direct = directBlockFor(packed);

    RunOptions options;
    options.binary = c.binary;
    options.threads = c.threads;
    options.useOpenMP = c.threads > 1;
    options.header = "in-memory";

    if (c.threads == 1) setThreadRandomState(1);
    const RunResult fromText = testing::runLibrary(dir.file("text"), options);
    ASSERT_EQ(fromText.result, 1) << fromText.err;
    std::string expected = readFile(dir.file("text"));
    if (c.dimension == 1) expected = withFirstCoordinateOnly(expected);

    for (const bool directFields : {false, true}) {
        SCOPED_TRACE(directFields ? "direct block" : "packed block");
        const std::string name = dir.file(directFields ? "direct" : "packed");
        if (c.threads == 1) setThreadRandomState(1);
        const RunResult fromBlock =
            runBlock(name, directFields ? static_cast<const void*>(&direct) : packed.data(),
                     directFields, options);
        ASSERT_EQ(fromBlock.result, 1) << fromBlock.err;
        EXPECT_EQ(fromBlock.err, "");
        EXPECT_EQ(withoutTimings(fromBlock.out), withoutTimings(fromText.out));
        EXPECT_TRUE(readFile(name) == expected) << "the result differs from the text path's";
    }
}

INSTANTIATE_TEST_SUITE_P(ExampleModels, InMemoryRun, ::testing::ValuesIn(acceptanceCases()),
                         [](const ::testing::TestParamInfo<AcceptanceCase>& caseInfo) {
                             const AcceptanceCase& c = caseInfo.param;
                             std::string name = c.name + "_" + std::to_string(c.threads) +
                                                "threads" + (c.binary ? "_binary" : "");
                             for (char& ch : name)
                                 if (ch == '-') ch = '_';
                             return name;
                         });

TEST(InMemoryRunFailures, MissingOrImplausibleBlockFailsTheCall) {
    ScratchDir dir;
    for (const bool directFields : {false, true}) {
        const RunResult r = runBlock(dir.file("out"), nullptr, directFields, {});
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.out, "# Read parameter section...\n");
        EXPECT_EQ(r.err, "error: no mesh data given\nerror: couldn't calculate view factors!\n");
    }
    // The size values and the resolution of a block meet the same checks as text.
    std::vector<std::byte> packed = packText(testing::exampleText("polygon", 1, 6));
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
    std::vector<std::byte> packed = packText(testing::exampleText("plates", 1, 6));
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
