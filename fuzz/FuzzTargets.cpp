#include "FuzzTargets.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "ModelFile.h"
#include "ResultFile.h"
#include "hemiray/raytracing.h"
#include "input/MeshBlock.h"
#include "input/SectionReader.h"

namespace hemiray::fuzz {

namespace {

// Every message the text and block readers may end a read with.
const char* const definedMessages[] = {"couldn't flush expression",
                                       "couldn't read face section body",
                                       "couldn't read face section header",
                                       "couldn't read glob section body",
                                       "couldn't read glob section header",
                                       "couldn't read node section body",
                                       "couldn't read node section header",
                                       "couldn't read periodic section body",
                                       "couldn't read periodic section header",
                                       "element type not supported",
                                       "invalid id index",
                                       "unknown sectionId",
                                       "face node count does not match the element type",
                                       "face node count is negative",
                                       "face nodes fall short of the face node count",
                                       "face nodes overrun the face node count",
                                       "mesh block array pointer is null",
                                       "mesh block counts overrun its length",
                                       "mesh block family does not match directFields",
                                       "mesh block has a negative count",
                                       "mesh block is longer than its counts need",
                                       "mesh block reserved field is not 0",
                                       "mesh block tag is unknown",
                                       "node coordinate is not a finite number",
                                       "node number out of range",
                                       "zone faces fall short of the face count",
                                       "zone faces overrun the face count"};

void expectDefined(const char* message) {
    for (const char* defined : definedMessages)
        if (std::strcmp(message, defined) == 0) return;
    std::fprintf(stderr, "undefined input error message: %s\n", message);
    std::abort();
}

void modelText(const uint8_t* data, size_t size) {
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    const ScopedInputErrorsThrow throwing;
    try {
        SizeSection sizes;
        RunParameters parameters;
        if (!readSizeSection(input, sizes) || !readParameterSection(input, parameters)) return;
        const int32_t dimension = std::clamp(sizes.dimension, 1, 3);
        NodeArray nodes;
        FaceSet allFaces(dimension, nodes), participatingFaces(dimension, nodes);
        ZoneTable zones(sizes.zoneCount);
        readMeshSections(input, dimension == 3 ? 3 : 2, nodes, allFaces, participatingFaces, zones);
    } catch (const InputError& e) {
        expectDefined(e.what());
    }
}

void block(const uint8_t* data, size_t size) {
    // The library trusts a block's length field as the bytes it may read, as the
    // tool checks before handing a file over; the field is made true here so that
    // the rest of the head is what varies.
    hemiray_block_head head{};
    if (size < sizeof head) return;
    std::vector<std::byte> bytes(size);
    std::memcpy(bytes.data(), data, size);
    std::memcpy(&head, bytes.data(), sizeof head);
    head.totalBytes = size;
    std::memcpy(bytes.data(), &head, sizeof head);
    const ScopedInputErrorsThrow throwing;
    try {
        const MeshBlockView view = openPackedBlock(bytes.data());
        const int32_t dimension = std::clamp(view.dimension, 1, 3);
        NodeArray nodes;
        FaceSet allFaces(dimension, nodes), participatingFaces(dimension, nodes);
        ZoneTable zones(view.zoneCount);
        readBlockMesh(view, dimension, nodes, allFaces, participatingFaces, zones);
    } catch (const InputError& e) {
        expectDefined(e.what());
    }
}

// A result or model text as `hemiray check` reads it, then measured.
void resultText(const uint8_t* data, size_t size) {
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    cli::ResultFile result;
    std::string error;
    const char* prefix = "file i/o error: ";
    if (!cli::readTextStream(input, false, result, error)) {
        if (error.rfind(prefix, 0) == 0) expectDefined(error.c_str() + std::strlen(prefix));
        return;
    }
    if (!result.hasRows)
        (void)cli::findModelProblem(result);
    else if (cli::checkModelBounds(result, error))
        (void)cli::checkResult(result);
}

}  // namespace

Target targetNamed(const std::string& name) {
    if (name == "model_text") return modelText;
    if (name == "block") return block;
    if (name == "result_text") return resultText;
    return nullptr;
}

}  // namespace hemiray::fuzz
