// Text models packed into blocks: read back through either block family, a block
// must give the model the text readers give, field for field and bit for bit, for
// text that exercises the readers' odd corners. (That every example case gives the
// text's result file through either family is InMemoryRunTest's acceptance.)
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "input/MeshBlock.h"
#include "input/MeshBlockPacker.h"
#include "input/MeshFixture.h"
#include "input/ParameterSection.h"
#include "run/BlockFromText.h"
#include "run/InputSource.h"

namespace hemiray {
namespace {

// Reads the text as a run does.
void readText(const std::string& text, SizeSection& sizes, RunParameters& parameters,
              test::Mesh& mesh) {
    std::istringstream input(text);
    ASSERT_TRUE(readSizeSection(input, sizes));
    ASSERT_TRUE(readParameterSection(input, parameters));
    readMeshSections(input, sizes.dimension == 3 ? 3 : 2, mesh.nodes, mesh.allFaces,
                     mesh.participatingFaces, mesh.zones);
}

// Packs the text, reads the block through both families and compares each model
// with the one the text readers fill.
void expectBlockMatchesText(const std::string& text, int32_t dimension) {
    SizeSection sizes;
    RunParameters parameters;
    test::Mesh fromText(dimension);
    readText(text, sizes, parameters, fromText);

    std::istringstream input(text);
    std::vector<std::byte> packed;
    std::string error;
    ASSERT_TRUE(packTextModel(input, packed, error)) << error;
    const hemiray_direct_block direct = directBlockFor(packed);

    for (const bool directFields : {false, true}) {
        SCOPED_TRACE(directFields ? "direct" : "packed");
        const MeshBlockView view =
            directFields ? openDirectBlock(&direct) : openPackedBlock(packed.data());
        EXPECT_EQ(std::tie(view.size1, view.size2, view.zoneCount, view.globCount, view.dimension),
                  std::tie(sizes.size1, sizes.size2, sizes.zoneCount, sizes.globCount,
                           sizes.dimension));
        RunParameters fromBlock;
        copyParameterBlock(view.parameters, fromBlock);
        EXPECT_EQ(test::fields(fromBlock), test::fields(parameters));

        test::Mesh mesh(dimension);
        readBlockMesh(view, view.dimension, mesh.nodes, mesh.allFaces, mesh.participatingFaces,
                      mesh.zones);
        test::expectSameMesh(mesh, fromText);
    }
}

TEST(BlockFromText, OddCornersOfTheTextReadBackAlike) {
    // A reversed face range (zone 9) that lowers the running face total, a zone id
    // used twice (4), a face without nodes, zones that do not take part, a glob
    // section whose range comes from the shifted total, one translational and one
    // rotational pair, nodes in 3D and a zone count that differs from the zones.
    // Then zones paired with themselves.
    const std::string text =
        "(0 quirks)\n(11 12 7 6 3)\n(2 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)\n"
        "(10 (1 1 5 1 3)(0 0 0  1 0 0  1 1 0  0 1 0  0.5 0.5 1))\n"
        "(311 (4 1 2 1 3)(1 2 3 1 3 4))\n"
        "(311 (9 3 1 3 4)())\n"
        "(311 (4 3 4 2012 0)(3 1 2 5 -1))\n"
        "(311 (12 5 6 2010 5)(4 1 2 3 4 0))\n"
        "(311 (13 7 7 2007 2)(5 1))\n"
        "(309 (4 1 2 1 3)(0 1))\n"
        "(309 (12 5 6 0 0)(2 3))\n"
        "(18 (4 12) 0 1.5 -2 0)\n"
        "(18 (13 9) 1 0.25 0 0 0 0 0 1)\n";
    expectBlockMatchesText(text, 3);
    // A zone paired with itself, translational then rotational: the text readers
    // leave it the negated transform, and the block must give the same.
    expectBlockMatchesText(text + "(18 (12 12) 0 1.5 -2 0.25)\n", 3);
    expectBlockMatchesText(text + "(18 (12 12) 1 0.5 1 2 3 0 0 1)\n", 3);
}

TEST(BlockFromText, AxisymmetricNodesKeepTwoCoordinates) {
    const std::string text =
        "(5 0 1 1 1)\n(1 4 0 0 0 0 0 0 0 0 0 0 0)\n"
        "(10 (1 1 2 1 2)(0 1  2 3))\n"
        "(311 (1 1 1 1 2)(1 2))\n(309 (1 1 1 1 2)(0))\n";
    expectBlockMatchesText(text, 1);
}

TEST(BlockFromText, UnreadableSectionsAreReported) {
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

}  // namespace
}  // namespace hemiray
