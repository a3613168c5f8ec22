// What the tool accepts as a model, and the faults of a model it finds before a run.
#include "ModelFile.h"

#include <sys/stat.h>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "hemiray/raytracing.h"
#include "input/MeshBlock.h"
#include "input/SectionReader.h"
#include "run/Model.h"

namespace hemiray::cli {

namespace {

const char* const importHint = "; convert it with python3 -m hemiray import ";

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// The first lines of a Wavefront OBJ file are comments, vertices or names.
bool looksLikeObj(const std::string& head) {
    size_t at = 0;
    while (at < head.size()) {
        const size_t end = std::min(head.find('\n', at), head.size());
        const std::string line = head.substr(at, end - at);
        at = end + 1;
        if (line.empty() || line[0] == '#') continue;
        return startsWith(line, "v ") || startsWith(line, "o ") || startsWith(line, "g ") ||
               startsWith(line, "mtllib ");
    }
    return false;
}

// Names the format of a file that is not a model text, from its first bytes.
std::string otherFormat(const std::string& path, const std::string& head, uintmax_t size) {
    const std::string convert = importHint + path + " -o MODEL";
    const size_t text = head.find_first_not_of(" \t\r\n");
    const std::string body = text == std::string::npos ? std::string() : head.substr(text);
    if (startsWith(head, "\x89HDF\r\n\x1a\n"))
        return path + " is an HDF5 file, not a model text (hemiray check reads HDF5 results)";
    if (startsWith(body, "$MeshFormat") || startsWith(body, "$NOD"))
        return path + " is a Gmsh mesh, not a model text" + convert;
    if (startsWith(body, "solid")) return path + " is an STL file, not a model text" + convert;
    if (head.size() >= 84) {
        uint32_t triangles = 0;
        std::memcpy(&triangles, head.data() + 80, sizeof triangles);
        if (size == 84 + 50 * uintmax_t{triangles})
            return path + " is a binary STL file, not a model text" + convert;
    }
    if (looksLikeObj(head)) return path + " is a Wavefront OBJ file, not a model text" + convert;
    if (head.size() >= sizeof(hemiray_block_head)) {
        hemiray_block_head block{};
        std::memcpy(&block, head.data(), sizeof block);
        if (block.tag == HEMIRAY_PACKED_TAG)
            return path + " is a packed block, not a model text (run it with hemiray run --block)";
    }
    if (startsWith(head, "\x1f\x8b"))
        return path + " is gzip data; a compressed model's name must contain .gz";
    if (!startsWith(body, "("))
        return path + " is not a model text: it does not begin with a size section \"(\"";
    return {};
}

std::string faceName(const ResultFile& model, const FaceSet& faces, int32_t f) {
    const auto z = static_cast<size_t>(faces.faceZoneIndex[static_cast<size_t>(f)]);
    const int64_t within =
        int64_t{faces.faceId[static_cast<size_t>(f)]} - model.zones.zoneFaceStart[z];
    return "zone " + std::to_string(model.zones.zoneId[z]) + " face " +
           std::to_string(model.zones.zoneFirst[z] + within);
}

}  // namespace

std::string fileRefusal(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return "no such file: " + path;
    if (S_ISDIR(info.st_mode)) return path + " is a folder, not a model file";
    if (S_ISFIFO(info.st_mode)) return path + " is a pipe (FIFO), not a model file";
    if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode))
        return path + " is a device, not a model file";
    if (!S_ISREG(info.st_mode)) return path + " is not a regular file";
    if (info.st_size == 0) return path + " is empty";
    return {};
}

std::string inputRefusal(const std::string& path, bool block) {
    std::string refusal = fileRefusal(path);
    if (!refusal.empty()) return refusal;
    std::error_code ec;
    const uintmax_t size = std::filesystem::file_size(path, ec);
    std::ifstream in(path, std::ios::binary);
    std::string head(4096, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(in.gcount()));
    if (!in && !in.eof()) return "cannot read " + path;
    if (block) return {};                                   // readBlockFile checks the block itself
    if (namesGzip(path) || namesCompress(path)) return {};  // the decompressor judges
    return otherFormat(path, head, size);
}

bool readBlockFile(const std::string& path, std::vector<std::byte>& block, std::string& error) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        error = "cannot be read";
        return false;
    }
    block.resize(static_cast<size_t>(in.tellg()));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(block.data()), static_cast<std::streamsize>(block.size()));
    if (!in) {
        error = "cannot be read";
        return false;
    }
    hemiray_block_head head{};
    if (block.size() >= sizeof head) std::memcpy(&head, block.data(), sizeof head);
    if (block.size() < sizeof head || head.tag != HEMIRAY_PACKED_TAG) {
        error = "not a packed block (hemiray block writes one)";
        return false;
    }
    // The library trusts a packed block's length field as the number of bytes it
    // may read, so it must match the file.
    if (head.totalBytes != block.size()) {
        error = "holds " + std::to_string(block.size()) + " bytes, its head says " +
                std::to_string(head.totalBytes);
        return false;
    }
    return true;
}

bool readModel(const std::string& path, bool block, ResultFile& model, std::string& error) {
    if (!block) return readTextFile(path, true, model, error);
    std::vector<std::byte> bytes;
    if (!readBlockFile(path, bytes, error)) return false;
    const ScopedInputErrorsThrow throwing;
    try {
        const MeshBlockView view = openPackedBlock(bytes.data());
        model.sizes = {view.size1, view.size2, view.zoneCount, view.globCount, view.dimension};
        copyParameterBlock(view.parameters, model.parameters);
        model.allFaces.dimension = view.dimension;
        model.participatingFaces.dimension = view.dimension;
        model.zones = ZoneTable(view.zoneCount);
        readBlockMesh(view, view.dimension, model.nodes, model.allFaces, model.participatingFaces,
                      model.zones);
    } catch (const InputError& e) {
        error = std::string("file i/o error: ") + e.what();
        return false;
    }
    return true;
}

bool checkModelBounds(const ResultFile& model, std::string& error) {
    const int32_t dimension = model.sizes.dimension;
    if (dimension < 1 || dimension > 3) {
        error = "dimension " + std::to_string(dimension) + " is not 1, 2 or 3";
        return false;
    }
    // As in a run: rows are as wide as the glob count, so a count far beyond the
    // faces comes from a damaged size section, not from a model.
    const int32_t globs = model.sizes.globCount, faces = model.allFaces.faceCount();
    if (globs < 0 || (globs > faces && globs > (1 << 20))) {
        error = "glob count " + std::to_string(globs) + " does not fit " + std::to_string(faces) +
                " faces";
        return false;
    }
    const FaceSet& part = model.participatingFaces;
    const auto nodeCount = static_cast<int64_t>(model.nodes.size());
    for (int32_t f = 0; f < part.faceCount(); ++f)
        for (int32_t k = part.faceNodeStart[f]; k < part.faceNodeStart[f + 1]; ++k) {
            const int32_t node = part.faceNodes[static_cast<size_t>(k)];
            if (node >= 0 && node < nodeCount) continue;
            error = faceName(model, part, f) + " names node " + std::to_string(int64_t{node} + 1) +
                    ", outside the " + std::to_string(nodeCount) + " nodes";
            return false;
        }
    return true;
}

std::string findModelProblem(const ResultFile& model) {
    std::string error;
    if (!checkModelBounds(model, error)) return error;
    const int32_t resolution = model.parameters.hemisphereResolution;
    const int64_t largest = largestHemisphereResolution(model.sizes.dimension);
    if (resolution < 0 || resolution > largest)
        return "hemisphere resolution " + std::to_string(resolution) + " is outside 0 to " +
               std::to_string(largest);
    const FaceSet& part = model.participatingFaces;
    const int32_t globs = model.sizes.globCount;
    for (int32_t f = 0; f < part.faceCount(); ++f) {
        if (part.faceZoneType[static_cast<size_t>(f)] >= zoneTypeSpecial) continue;
        const int32_t glob = part.faceGlob[static_cast<size_t>(f)];
        if (glob >= globs)
            return faceName(model, part, f) + " is in glob " + std::to_string(glob) +
                   ", at or above the glob count " + std::to_string(globs);
        if (glob < 0)
            return faceName(model, part, f) +
                   " is a wall in no glob: a ray that reaches it would have nowhere to score";
    }
    const ZoneTable& zones = model.zones;
    std::vector<bool> named(static_cast<size_t>(zones.zoneCount()), false);
    for (int32_t z = 0; z < zones.zoneCount(); ++z)
        if (zones.periodicShadow[z] >= 0)
            named[static_cast<size_t>(zones.periodicShadow[z])] = true;
    for (int32_t z = 0; z < zones.zoneCount(); ++z) {
        const std::string zone = "zone " + std::to_string(zones.zoneId[z]);
        const int32_t type = zones.zoneType[z];
        if (type == zoneTypePeriodic && zones.periodicShadow[z] == z)
            return zone + " is a periodic zone paired with itself";
        if (type == zoneTypePeriodic && zones.periodicShadow[z] < 0)
            return zone + " is a periodic zone without a partner (no periodic section names it)";
        if (type == zoneTypePeriodicShadow && !named[static_cast<size_t>(z)])
            return zone + " is a periodic shadow zone that no periodic section pairs";
    }
    return {};
}

}  // namespace hemiray::cli
