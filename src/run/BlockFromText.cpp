// Text model to packed block: the text readers fill the model exactly as a run
// would, with the same mapping of the dimension to coordinates per node, and the
// packer writes it out.
#include "run/BlockFromText.h"

#include "input/MeshBlockPacker.h"
#include "input/MeshModel.h"
#include "input/ParameterSection.h"
#include "input/SectionReader.h"
#include "run/InputSource.h"

namespace hemiray {

bool packTextModel(std::istream& text, std::vector<std::byte>& block, std::string& error) {
    SizeSection sizes;
    if (!readSizeSection(text, sizes)) {
        error = "reading size section!";
        return false;
    }
    RunParameters parameters;
    if (!readParameterSection(text, parameters)) {
        error = "reading parameter section!";
        return false;
    }
    // The node reader needs a dimension it knows; a run refuses any other before the
    // mesh is read, and so does this.
    if (sizes.dimension < 1 || sizes.dimension > 3) {
        error = "dimension " + std::to_string(sizes.dimension) +
                " in the size section is not 1 (axisymmetric), 2 (planar) or 3";
        return false;
    }
    NodeArray nodes;
    FaceSet allFaces(sizes.dimension, nodes);
    FaceSet participatingFaces(sizes.dimension, nodes);
    ZoneTable zones(sizes.zoneCount);
    readMeshSections(text, sizes.dimension == 3 ? 3 : 2, nodes, allFaces, participatingFaces,
                     zones);
    const BlockSizes blockSizes{sizes.size1, sizes.size2, sizes.zoneCount, sizes.globCount,
                                sizes.dimension};
    block = packMeshBlock(blockSizes, parameters, nodes, allFaces, zones);
    return true;
}

}  // namespace hemiray
