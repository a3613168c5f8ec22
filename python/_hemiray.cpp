// The compiled half of the hemiray Python package: the library's readers, writers
// and run driver over numpy arrays. A model crosses into Python as a packed
// in-memory block (bytes), the layout hosts hand to raytracing_lib; every entry
// point reads it back through the library's own block readers, so a model built in
// Python is checked exactly as a host's block would be. Malformed input raises
// (ValueError with the library's message) instead of ending the process.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <omp.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "ResultFile.h"
#include "geometry/FaceGeometry.h"
#include "hemiray/raytracing.h"
#include "input/MeshBlock.h"
#include "input/MeshBlockPacker.h"
#include "input/SectionReader.h"
#include "output/ViewFactorWriter.h"
#include "run/BlockFromText.h"
#include "run/InputSource.h"
#include "run/OutputSink.h"
#include "run/RunDriver.h"
#include "viewfactor/ViewFactorRow.h"

namespace py = pybind11;
using namespace hemiray;

namespace {

using Block = std::vector<std::byte>;
using IntArray = py::array_t<int32_t, py::array::c_style | py::array::forcecast>;
using DoubleArray = py::array_t<double, py::array::c_style | py::array::forcecast>;

[[noreturn]] void raiseValue(const std::string& message) { throw py::value_error(message); }

// A model read from a block, as a run holds it. Not copyable: the face sets point
// at the node array.
struct Model {
    BlockSizes sizes;
    RunParameters parameters;
    NodeArray nodes;
    FaceSet allFaces{0, nodes};
    FaceSet participatingFaces{0, nodes};
    ZoneTable zones{0};

    Model() = default;
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;
};

std::string_view blockBytes(const py::bytes& data) {
    return static_cast<std::string_view>(data);
}

hemiray_block_head headOf(std::string_view block) {
    if (block.size() < sizeof(hemiray_block_head)) raiseValue("mesh block is shorter than its head");
    hemiray_block_head head;
    std::memcpy(&head, block.data(), sizeof head);
    if (head.totalBytes != block.size()) raiseValue("mesh block counts overrun its length");
    return head;
}

void checkDimension(int32_t dimension) {
    // The block's node reader takes a known dimension only; a run refuses any other
    // with these words before the mesh is read.
    if (dimension < 1 || dimension > 3)
        raiseValue("dimension " + std::to_string(dimension) +
                   " in the size section is not 1 (axisymmetric), 2 (planar) or 3");
}

// Reads a packed block with the library's readers; bad content raises.
std::unique_ptr<Model> readModel(std::string_view block) {
    (void)headOf(block);
    auto model = std::make_unique<Model>();
    const ScopedInputErrorsThrow throwing;
    try {
        const MeshBlockView view = openPackedBlock(block.data());
        checkDimension(view.dimension);
        model->sizes = {view.size1, view.size2, view.zoneCount, view.globCount, view.dimension};
        copyParameterBlock(view.parameters, model->parameters);
        model->allFaces = FaceSet(view.dimension, model->nodes);
        model->participatingFaces = FaceSet(view.dimension, model->nodes);
        model->zones = ZoneTable(std::max(view.zoneCount, 0));
        readBlockMesh(view, view.dimension, model->nodes, model->allFaces,
                      model->participatingFaces, model->zones);
    } catch (const InputError& e) {
        raiseValue(e.what());
    }
    return model;
}

// The readers give zone k the next max(0, last - first + 1) faces; the packer
// stops the process on a model where these do not add up, so such a model (from
// a result file whose headers disagree with their bodies) is refused here.
py::bytes packModel(const Model& model) {
    int64_t total = 0;
    for (int32_t z = 0; z < model.zones.zoneCount(); ++z)
        total += std::max<int64_t>(int64_t{model.zones.zoneLast[z]} - model.zones.zoneFirst[z] + 1, 0);
    if (total != model.allFaces.faceCount())
        raiseValue("the zone headers count " + std::to_string(total) + " faces, the model holds " +
                   std::to_string(model.allFaces.faceCount()));
    const Block block =
        packMeshBlock(model.sizes, model.parameters, model.nodes, model.allFaces, model.zones);
    return py::bytes(reinterpret_cast<const char*>(block.data()), block.size());
}

template <typename T, typename Array>
void appendArray(Block& block, const Array& array) {
    const auto bytes = static_cast<size_t>(array.size()) * sizeof(T);
    const auto* data = reinterpret_cast<const std::byte*>(array.data());
    block.insert(block.end(), data, data + bytes);
}

hemiray_parameters parametersFrom(const py::dict& p) {
    hemiray_parameters host{};
    auto integer = [&](const char* name) { return p[name].cast<int32_t>(); };
    auto real = [&](const char* name) { return p[name].cast<double>(); };
    host.param1 = integer("param1");
    host.hemisphereResolution = integer("hemisphereResolution");
    host.param3 = integer("param3");
    host.param4 = real("param4");
    host.param5 = integer("param5");
    host.param6 = integer("param6");
    host.param7 = real("param7");
    host.param8 = integer("param8");
    host.param9 = integer("param9");
    host.param10 = real("param10");
    host.param11 = integer("param11");
    host.param12 = integer("param12");
    host.param13 = integer("param13");
    return host;
}

py::dict parametersDict(const RunParameters& p) {
    py::dict d;
    d["param1"] = p.param1;
    d["hemisphereResolution"] = p.hemisphereResolution;
    d["param3"] = p.param3;
    d["param4"] = p.param4;
    d["param5"] = p.param5;
    d["param6"] = p.param6;
    d["param7"] = p.param7;
    d["param8"] = p.param8;
    d["param9"] = p.param9;
    d["param10"] = p.param10;
    d["param11"] = p.param11;
    d["param12"] = p.param12;
    d["param13"] = p.param13;
    return d;
}

// Builds a packed block from arrays and reads it back through the library's
// readers, which check every count and index; returns the block.
py::bytes pack(const std::vector<int32_t>& sizes, const py::dict& parameters,
               const DoubleArray& nodes, const IntArray& zones, const IntArray& faceNodeCounts,
               const IntArray& faceNodes, const IntArray& faceGlobs, const DoubleArray& periodic) {
    if (sizes.size() != 5) raiseValue("five size values are needed");
    checkDimension(sizes[4]);
    if (nodes.ndim() != 2 || nodes.shape(1) != 3) raiseValue("nodes must have shape (N, 3)");
    if (zones.ndim() != 2 || zones.shape(1) != 5) raiseValue("zones must have shape (Z, 5)");
    if (periodic.ndim() != 2 || periodic.shape(1) != 15)
        raiseValue("periodic pairs must have shape (P, 15)");
    if (faceGlobs.size() != faceNodeCounts.size())
        raiseValue("one glob per face is needed: " + std::to_string(faceGlobs.size()) +
                   " globs for " + std::to_string(faceNodeCounts.size()) + " faces");
    constexpr auto int32Max = static_cast<py::ssize_t>(INT32_MAX);
    if (nodes.shape(0) > int32Max || faceNodes.size() > int32Max || faceNodeCounts.size() > int32Max)
        raiseValue("the model is too large for 32-bit indices");

    hemiray_block_head head{};
    head.size1 = sizes[0];
    head.size2 = sizes[1];
    head.zoneCount = sizes[2];
    head.globCount = sizes[3];
    head.dimension = sizes[4];
    head.tag = HEMIRAY_PACKED_TAG;
    head.parameters = parametersFrom(parameters);
    head.nodeCount = static_cast<int32_t>(nodes.shape(0));
    head.faceZoneCount = static_cast<int32_t>(zones.shape(0));
    head.faceCount = static_cast<int32_t>(faceNodeCounts.size());
    head.faceNodeCount = static_cast<int32_t>(faceNodes.size());
    head.periodicCount = static_cast<int32_t>(periodic.shape(0));
    head.totalBytes = HEMIRAY_PACKED_BYTES(head.nodeCount, head.periodicCount, head.faceZoneCount,
                                           head.faceCount, head.faceNodeCount);

    Block block;
    block.reserve(head.totalBytes);
    const auto* headBytes = reinterpret_cast<const std::byte*>(&head);
    block.insert(block.end(), headBytes, headBytes + sizeof head);
    appendArray<double>(block, nodes);
    auto pairs = periodic.unchecked<2>();
    for (py::ssize_t p = 0; p < pairs.shape(0); ++p) {
        // zone id, shadow id, type, angle, axis point (3), axis direction (3), shift (3)
        hemiray_periodic_pair pair{};
        pair.zoneId = static_cast<int32_t>(pairs(p, 0));
        pair.shadowZoneId = static_cast<int32_t>(pairs(p, 1));
        pair.periodicType = static_cast<int32_t>(pairs(p, 2));
        pair.angle = pairs(p, 3);
        for (int k = 0; k < 3; ++k) {
            pair.axisPoint[k] = pairs(p, 4 + k);
            pair.axisDirection[k] = pairs(p, 7 + k);
            pair.shift[k] = pairs(p, 10 + k);
        }
        const auto* bytes = reinterpret_cast<const std::byte*>(&pair);
        block.insert(block.end(), bytes, bytes + sizeof pair);
    }
    appendArray<int32_t>(block, zones);
    appendArray<int32_t>(block, faceNodeCounts);
    appendArray<int32_t>(block, faceNodes);
    appendArray<int32_t>(block, faceGlobs);
    if (block.size() != head.totalBytes) raiseValue("mesh block counts overrun its length");

    const std::string_view view(reinterpret_cast<const char*>(block.data()), block.size());
    (void)readModel(view);  // raises on anything the library would refuse
    return py::bytes(view.data(), view.size());
}

template <typename T>
py::array_t<T> copyOut(const std::vector<T>& values) {
    return py::array_t<T>(static_cast<py::ssize_t>(values.size()), values.data());
}

// The model's arrays for Python, copied out of the block through the readers.
py::dict unpack(const py::bytes& data) {
    const auto model = readModel(blockBytes(data));
    py::dict d;
    d["sizes"] = std::vector<int32_t>{model->sizes.size1, model->sizes.size2,
                                      model->sizes.zoneCount, model->sizes.globCount,
                                      model->sizes.dimension};
    d["parameters"] = parametersDict(model->parameters);
    py::array_t<double> nodes({static_cast<py::ssize_t>(model->nodes.size()), py::ssize_t{3}});
    auto n = nodes.mutable_unchecked<2>();
    for (size_t i = 0; i < model->nodes.size(); ++i)
        for (int k = 0; k < 3; ++k) n(static_cast<py::ssize_t>(i), k) = model->nodes[i][k];
    d["nodes"] = nodes;
    const FaceSet& faces = model->allFaces;
    d["face_node_start"] = copyOut(faces.faceNodeStart);
    d["face_nodes"] = copyOut(faces.faceNodes);
    d["face_globs"] = copyOut(faces.faceGlob);
    d["face_zones"] = copyOut(faces.faceZoneIndex);
    const ZoneTable& z = model->zones;
    d["zone_ids"] = copyOut(z.zoneId);
    d["zone_first"] = copyOut(z.zoneFirst);
    d["zone_last"] = copyOut(z.zoneLast);
    d["zone_types"] = copyOut(z.zoneType);
    d["zone_element_types"] = copyOut(z.zoneElementType);
    py::list pairs;
    for (int32_t k = 0; k < z.zoneCount(); ++k) {
        const int32_t s = z.periodicShadow[k];
        if (s < 0) continue;
        auto vec = [](const Vec3& v) { return py::make_tuple(v[0], v[1], v[2]); };
        pairs.append(py::make_tuple(z.zoneId[k], z.zoneId[s], z.periodicType[k],
                                    z.periodicAngle[k], vec(z.periodicAxisA[k]),
                                    vec(z.periodicAxisB[k]), vec(z.periodicShift[k])));
    }
    d["periodic"] = pairs;
    return d;
}

// The text model (plain, or compressed by name) read by the run's own readers.
py::bytes readModelText(const std::string& path) {
    if (!std::filesystem::is_regular_file(path)) throw py::value_error("no such file: " + path);
    Block block;
    std::string error;
    {
        const ScopedInputErrorsThrow throwing;
        auto text = openInputSource(path);
        if (text->fail()) raiseValue("couldn't open input file: " + path);
        try {
            if (!packTextModel(*text, block, error)) raiseValue(path + ": " + error);
        } catch (const InputError& e) {
            raiseValue(path + ": " + e.what());
        }
    }
    return py::bytes(reinterpret_cast<const char*>(block.data()), block.size());
}

// Writes the model in the input syntax with the result writers' head sections
// (the same bytes a result repeats), except that coordinates keep 17 significant
// digits so that the text reads back to the same doubles.
void writeModelText(const py::bytes& data, const std::string& path, const std::string& comment) {
    const auto model = readModel(blockBytes(data));
    if (namesCompress(path) && !namesGzip(path))
        raiseValue("the name " + path + " contains \".Z\", which would be read as compress data");
    OutputSink sink(path, false);
    if (!sink.ok()) raiseValue("couldn't open output file: " + path);
    std::ostream& out = sink.stream();
    const BlockSizes& s = model->sizes;
    writeFileHeader(out, s.size1, s.size2, s.zoneCount, s.globCount, s.dimension, comment.c_str(),
                    false);
    writeParameterHeader(out, model->parameters);
    out.precision(16);
    writeNodeSection(out, s.dimension == 3 ? 3 : 2, model->nodes);
    writeFaceSections(out, model->zones, model->allFaces);
    writeGlobSections(out, model->zones, model->allFaces);
    writePeriodicSections(out, model->zones);
    if (!sink.commit()) raiseValue("couldn't write output file: " + path);
}

py::array_t<double> globAreas(const py::bytes& data) {
    const auto model = readModel(blockBytes(data));
    FaceSet& faces = model->participatingFaces;
    for (int32_t f = 0; f < faces.faceCount(); ++f)
        for (int32_t k = faces.faceNodeStart[f]; k < faces.faceNodeStart[f + 1]; ++k)
            if (faces.faceNodes[k] < 0 || static_cast<size_t>(faces.faceNodes[k]) >= model->nodes.size())
                raiseValue("node number out of range");
    computeFaceGeometry(faces);
    return copyOut(globSurfaceAreas(faces, model->sizes.globCount));
}

// Rows as numpy CSR arrays, one row per active glob.
py::dict rowsDict(const std::vector<int32_t>& active, const std::vector<cli::SparseRow>& rows) {
    std::vector<int64_t> start{0};
    size_t entries = 0;
    for (const auto& row : rows) entries += row.columns.size();
    std::vector<int32_t> columns;
    std::vector<double> values;
    columns.reserve(entries);
    values.reserve(entries);
    for (const auto& row : rows) {
        columns.insert(columns.end(), row.columns.begin(), row.columns.end());
        values.insert(values.end(), row.values.begin(), row.values.end());
        start.push_back(static_cast<int64_t>(columns.size()));
    }
    py::dict d;
    d["active"] = copyOut(active);
    d["row_start"] = copyOut(start);
    d["columns"] = copyOut(columns);
    d["values"] = copyOut(values);
    return d;
}

// Reads a result (text or binary rows, plain or compressed, or HDF5); returns the
// model it repeats as a block, its rows and their kind.
py::tuple readResult(const std::string& path) {
    if (!std::filesystem::is_regular_file(path)) throw py::value_error("no such file: " + path);
    cli::ResultFile result;
    std::string error;
    bool ok = false;
    {
        const ScopedInputErrorsThrow throwing;
        try {
            ok = cli::readResultFile(path, result, error);
        } catch (const InputError& e) {
            raiseValue(path + ": " + e.what());
        }
    }
    if (!ok) raiseValue(path + ": " + error);
    checkDimension(result.sizes.dimension);
    Model model;
    model.sizes = {result.sizes.size1, result.sizes.size2, result.sizes.zoneCount,
                   result.sizes.globCount, result.sizes.dimension};
    model.parameters = result.parameters;
    model.nodes = result.nodes;
    model.allFaces = result.allFaces;
    model.allFaces.nodes = &model.nodes;
    model.zones = result.zones;
    const char* kind = result.hdf5 ? "hdf5" : result.binaryRows ? "binary" : "text";
    return py::make_tuple(packModel(model), rowsDict(result.activeGlobs, result.rows), kind);
}

// Collects what the library prints while it runs: progress lines are dropped
// unless asked for, error lines are kept for the exception.
class ConsoleCapture {
public:
    explicit ConsoleCapture(bool showProgress)
        : oldErr_(std::cerr.rdbuf(errors_.rdbuf())),
          oldOut_(showProgress ? nullptr : std::cout.rdbuf(progress_.rdbuf())) {}
    ~ConsoleCapture() {
        std::cerr.rdbuf(oldErr_);
        if (oldOut_) std::cout.rdbuf(oldOut_);
    }
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

    // The first error line without its "error: " prefix.
    std::string firstError() const {
        std::istringstream lines(errors_.str());
        std::string line;
        while (std::getline(lines, line)) {
            constexpr std::string_view prefix = "error: ";
            if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
            if (!line.empty()) return line;
        }
        return "couldn't calculate view factors!";
    }

private:
    std::ostringstream errors_;
    std::ostringstream progress_;
    std::streambuf* oldErr_;
    std::streambuf* oldOut_;
};

// A private folder in the temporary directory, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "hemiray-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) raiseValue("cannot create a temporary folder");
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// Every worker's generator back at its first state, so that a run in this process
// gives the rows of a fresh process (the tool's) for the same thread count.
void restartGenerators(int threads) {
#pragma omp parallel num_threads(threads)
    setThreadRandomState(1);
}

// One run of the library's driver on the block, with the given thread count and,
// when resolution >= 0, that hemisphere resolution instead of the model's.
py::dict compute(const py::bytes& data, int threads, int resolution, bool showProgress) {
    std::string block(blockBytes(data));
    hemiray_block_head head = headOf(block);
    if (resolution >= 0) head.parameters.hemisphereResolution = resolution;
    std::memcpy(block.data(), &head, sizeof head);
    if (threads < 1) threads = omp_get_num_procs();

    // The console and the OpenMP settings are the process's: one run at a time.
    static std::mutex oneRunAtATime;
    const TemporaryFolder folder;
    const std::string output = (folder.path() / "result.h5").string();
    bool ok = false;
    std::string message;
    {
        const py::gil_scoped_release released;
        const std::lock_guard<std::mutex> lock(oneRunAtATime);
        const int previousThreads = omp_get_max_threads();
        const ConsoleCapture console(showProgress);
        const ScopedInputErrorsThrow throwing;
        omp_set_num_threads(threads);
        restartGenerators(threads);
        try {
            ok = calculateViewFactors(nullptr, output, "", true, false, 0, 0, 0, 0, 0, threads, false,
                                      block.data(), "hemiray-python", false, false, 0);
            if (!ok) message = console.firstError();
        } catch (const InputError& e) {
            message = e.what();
        } catch (const std::bad_alloc&) {
            message = "out of memory";
        }
        omp_set_num_threads(previousThreads);
    }
    if (!ok) raiseValue(message);

    cli::ResultFile result;
    std::string error;
    if (!cli::readHdf5ResultFile(output, result, error)) raiseValue(error);
    return rowsDict(result.activeGlobs, result.rows);
}

}  // namespace

PYBIND11_MODULE(_hemiray, m) {
    m.doc() = "The library side of the hemiray package; use the hemiray package itself.";
    m.def("pack", &pack, py::arg("sizes"), py::arg("parameters"), py::arg("nodes"),
          py::arg("zones"), py::arg("face_node_counts"), py::arg("face_nodes"),
          py::arg("face_globs"), py::arg("periodic"));
    m.def("unpack", &unpack, py::arg("block"));
    m.def("read_model", &readModelText, py::arg("path"));
    m.def("write_model", &writeModelText, py::arg("block"), py::arg("path"), py::arg("comment"));
    m.def("glob_areas", &globAreas, py::arg("block"));
    m.def("read_result", &readResult, py::arg("path"));
    m.def("compute", &compute, py::arg("block"), py::arg("threads"), py::arg("resolution"),
          py::arg("progress"));
}
