// The compiled half of the hemiray Python package: the library's model, readers,
// writers and run over numpy arrays. A model is the library's own Model, built from
// arrays through a packed in-memory block (the layout hosts hand to raytracing_lib)
// and read back by the block readers, so a model made in Python is checked exactly
// as a host's block would be. Runs feed an in-memory row sink. Malformed input
// raises ValueError with the library's message instead of ending the process.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <omp.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "ResultFile.h"
#include "geometry/FaceGeometry.h"
#include "hemiray/raytracing.h"
#include "input/MeshBlock.h"
#include "input/SectionReader.h"
#include "output/RowSink.h"
#include "output/ViewFactorWriter.h"
#include "repair/ViewFactorRepair.h"
#include "run/ComputeAndWrite.h"
#include "run/InputSource.h"
#include "run/Model.h"
#include "run/OutputSink.h"
#include "run/RunError.h"
#include "viewfactor/ViewFactorRow.h"

namespace py = pybind11;
using hemiray::Model;
using namespace hemiray;

namespace {

using IntArray = py::array_t<int32_t, py::array::c_style | py::array::forcecast>;
using DoubleArray = py::array_t<double, py::array::c_style | py::array::forcecast>;

[[noreturn]] void raiseValue(const std::string& message) {
    throw py::value_error(message);
}

// While it lives, what the library prints goes here instead of the console:
// progress lines are dropped unless asked for; "error: " lines are dropped too,
// their message reaches Python as the exception.
class QuietConsole {
public:
    explicit QuietConsole(bool showProgress)
        : oldErr_(std::cerr.rdbuf(dropped_.rdbuf())),
          oldOut_(showProgress ? nullptr : std::cout.rdbuf(dropped_.rdbuf())) {}
    ~QuietConsole() {
        std::cerr.rdbuf(oldErr_);
        if (oldOut_) std::cout.rdbuf(oldOut_);
    }
    QuietConsole(const QuietConsole&) = delete;
    QuietConsole& operator=(const QuietConsole&) = delete;

private:
    std::ostringstream dropped_;
    std::streambuf* oldErr_;
    std::streambuf* oldOut_;
};

// The console and the OpenMP settings belong to the process: one library call at
// a time, whichever Python thread makes it.
std::mutex& libraryLock() {
    static std::mutex lock;
    return lock;
}

// Runs a reader of the library: malformed input and refused models raise
// ValueError with the library's message, prefixed with `what` when given;
// `silentFailure` stands for a reader that gives up without a message.
template <typename Read>
std::unique_ptr<Model> readChecked(const std::string& what, const char* silentFailure, Read read) {
    const std::lock_guard<std::mutex> lock(libraryLock());
    const QuietConsole quiet(false);
    const ScopedInputErrorsThrow throwing;
    clearRunError();
    std::unique_ptr<Model> model;
    std::string message;
    try {
        model = read();
        if (model && !checkModel(*model)) model.reset();
        if (!model) message = lastRunError().empty() ? silentFailure : lastRunError();
    } catch (const InputError& e) {
        message = e.what();
    }
    if (!model) raiseValue(what.empty() ? message : what + ": " + message);
    return model;
}

template <typename T, typename Array>
void appendArray(std::vector<std::byte>& block, const Array& array) {
    const auto* data = reinterpret_cast<const std::byte*>(array.data());
    block.insert(block.end(), data, data + static_cast<size_t>(array.size()) * sizeof(T));
}

// Visits the thirteen parameters by name, in the parameter section's order, in a
// RunParameters or in the host's block, whose fields have the same names.
template <typename Parameters, typename Visit>
void forEachParameter(Parameters& p, Visit visit) {
    visit("param1", p.param1);
    visit("hemisphereResolution", p.hemisphereResolution);
    visit("param3", p.param3);
    visit("param4", p.param4);
    visit("param5", p.param5);
    visit("param6", p.param6);
    visit("param7", p.param7);
    visit("param8", p.param8);
    visit("param9", p.param9);
    visit("param10", p.param10);
    visit("param11", p.param11);
    visit("param12", p.param12);
    visit("param13", p.param13);
}

hemiray_parameters parametersFrom(const py::dict& p) {
    hemiray_parameters host{};
    forEachParameter(host, [&](const char* name, auto& field) {
        field = p[name].cast<std::decay_t<decltype(field)>>();
    });
    return host;
}

py::dict parametersDict(const RunParameters& p) {
    py::dict d;
    forEachParameter(p, [&](const char* name, const auto& field) { d[name] = field; });
    return d;
}

// A model from arrays, through a packed block and the library's block readers,
// which check every count and index.
std::unique_ptr<Model> fromArrays(const std::vector<int32_t>& sizes, const py::dict& parameters,
                                  const DoubleArray& nodes, const IntArray& zones,
                                  const IntArray& faceNodeCounts, const IntArray& faceNodes,
                                  const IntArray& faceGlobs, const DoubleArray& periodic) {
    if (sizes.size() != 5) raiseValue("five size values are needed");
    if (nodes.ndim() != 2 || nodes.shape(1) != 3) raiseValue("nodes must have shape (N, 3)");
    if (zones.ndim() != 2 || zones.shape(1) != 5) raiseValue("zones must have shape (Z, 5)");
    if (periodic.ndim() != 2 || periodic.shape(1) != 15)
        raiseValue("periodic pairs must have shape (P, 15)");
    if (faceGlobs.size() != faceNodeCounts.size())
        raiseValue("one glob per face is needed: " + std::to_string(faceGlobs.size()) +
                   " globs for " + std::to_string(faceNodeCounts.size()) + " faces");
    constexpr auto int32Max = static_cast<py::ssize_t>(INT32_MAX);
    if (nodes.shape(0) > int32Max || faceNodes.size() > int32Max ||
        faceNodeCounts.size() > int32Max)
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

    std::vector<std::byte> block;
    block.reserve(head.totalBytes);
    const auto* headBytes = reinterpret_cast<const std::byte*>(&head);
    block.insert(block.end(), headBytes, headBytes + sizeof head);
    appendArray<double>(block, nodes);
    const auto pairs = periodic.unchecked<2>();
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
    return readChecked("", "mesh block is unreadable",
                       [&] { return readBlockModel(block.data(), false); });
}

// The text model (plain, or compressed by name) read by the run's own readers.
std::unique_ptr<Model> readModelFile(const std::string& path) {
    if (!std::filesystem::is_regular_file(path)) raiseValue("no such file: " + path);
    // The parameter reader is the one that gives up without a message.
    return readChecked(path, "reading parameter section!", [&]() -> std::unique_ptr<Model> {
        auto text = openInputSource(path);
        if (text->fail()) {
            reportRunError("couldn't open input file: " + path);
            return nullptr;
        }
        SizeSection sizes;
        if (!readSizeSection(*text, sizes)) {
            reportRunError("reading size section!");
            return nullptr;
        }
        return readTextModel(*text, sizes);
    });
}

// Writes the model in the input syntax with the result writers' head sections
// (the sections a result repeats), except that coordinates keep 17 significant
// digits so that the text reads back to the same doubles.
void writeModelFile(const Model& model, const std::string& path, const std::string& comment) {
    if (namesCompress(path) && !namesGzip(path))
        raiseValue("the name " + path + " contains \".Z\", which would be read as compress data");
    OutputSink sink(path, false);
    if (!sink.ok()) raiseValue("couldn't open output file: " + path);
    std::ostream& out = sink.stream();
    const SizeSection& s = model.sizes;
    writeFileHeader(out, s.size1, s.size2, s.zoneCount, s.globCount, s.dimension, comment.c_str(),
                    false);
    writeParameterHeader(out, model.parameters);
    out.precision(16);
    writeNodeSection(out, nodeCoordinateCount(s.dimension), model.nodes);
    writeFaceSections(out, model.zones, model.allFaces);
    writeGlobSections(out, model.zones, model.allFaces);
    writePeriodicSections(out, model.zones);
    if (!sink.commit()) raiseValue("couldn't write output file: " + path);
}

// A read-only numpy view of a vector of the model; the model outlives it.
template <typename T>
py::array_t<T> view(const std::vector<T>& values, const py::object& owner) {
    py::array_t<T> array(static_cast<py::ssize_t>(values.size()), values.data(), owner);
    array.attr("setflags")(py::arg("write") = false);
    return array;
}

// A numpy array that takes over the vector without copying it.
template <typename T>
py::array_t<T> adopt(std::vector<T>&& values) {
    auto* owned = new std::vector<T>(std::move(values));
    const py::capsule release(owned, [](void* p) { delete static_cast<std::vector<T>*>(p); });
    return py::array_t<T>(static_cast<py::ssize_t>(owned->size()), owned->data(), release);
}

py::array_t<double> nodeArray(const Model& model) {
    py::array_t<double> nodes({static_cast<py::ssize_t>(model.nodes.size()), py::ssize_t{3}});
    auto n = nodes.mutable_unchecked<2>();
    for (size_t i = 0; i < model.nodes.size(); ++i)
        for (int k = 0; k < 3; ++k) n(static_cast<py::ssize_t>(i), k) = model.nodes[i][k];
    return nodes;
}

py::list periodicPairs(const ZoneTable& z) {
    py::list pairs;
    auto vec = [](const Vec3& v) { return py::make_tuple(v[0], v[1], v[2]); };
    for (int32_t k = 0; k < z.zoneCount(); ++k) {
        const int32_t s = z.periodicShadow[k];
        if (s < 0) continue;
        pairs.append(py::make_tuple(z.zoneId[k], z.zoneId[s], z.periodicType[k], z.periodicAngle[k],
                                    vec(z.periodicAxisA[k]), vec(z.periodicAxisB[k]),
                                    vec(z.periodicShift[k])));
    }
    return pairs;
}

// The area of every glob; the model's faces were checked when it was made.
py::array_t<double> globAreas(Model& model) {
    computeFaceGeometry(model.participatingFaces);
    return adopt(globSurfaceAreas(model.participatingFaces, model.sizes.globCount));
}

py::dict rowArrays(std::vector<int32_t>&& active, std::vector<int64_t>&& rowStart,
                   std::vector<int32_t>&& columns, std::vector<double>&& values) {
    py::dict d;
    d["active"] = adopt(std::move(active));
    d["row_start"] = adopt(std::move(rowStart));
    d["columns"] = adopt(std::move(columns));
    d["values"] = adopt(std::move(values));
    return d;
}

// Reads a result (text or binary rows, plain or compressed, or HDF5): the model it
// repeats, its rows as CSR arrays, and their kind.
py::tuple readResult(const std::string& path) {
    if (!std::filesystem::is_regular_file(path)) raiseValue("no such file: " + path);
    auto result = std::make_unique<cli::ResultFile>();
    std::string error;
    auto model = readChecked(path, "not a result", [&]() -> std::unique_ptr<Model> {
        if (!cli::readResultFile(path, *result, error)) {
            reportRunError(error);
            return nullptr;
        }
        // A result is read whatever resolution made it; only its geometry needs a
        // dimension the library knows. A run of the model checks the resolution.
        RunParameters anyResolution = result->parameters;
        anyResolution.hemisphereResolution = 0;
        if (!checkDimensionAndResolution(result->sizes.dimension, anyResolution)) return nullptr;
        auto m =
            std::make_unique<Model>(result->sizes, nodeCoordinateCount(result->sizes.dimension));
        m->parameters = result->parameters;
        m->nodes = std::move(result->nodes);
        m->allFaces = std::move(result->allFaces);
        m->allFaces.nodes = &m->nodes;
        m->participatingFaces = std::move(result->participatingFaces);
        m->participatingFaces.nodes = &m->nodes;
        m->zones = std::move(result->zones);
        return m;
    });
    std::vector<int64_t> start{0};
    std::vector<int32_t> columns;
    std::vector<double> values;
    for (const auto& row : result->rows) {
        columns.insert(columns.end(), row.columns.begin(), row.columns.end());
        values.insert(values.end(), row.values.begin(), row.values.end());
        start.push_back(static_cast<int64_t>(columns.size()));
    }
    const char* kind = result->hdf5 ? "hdf5" : result->binaryRows ? "binary" : "text";
    return py::make_tuple(py::cast(std::move(model)),
                          rowArrays(std::move(result->activeGlobs), std::move(start),
                                    std::move(columns), std::move(values)),
                          kind);
}

// Every worker's generator back at its first state, so that a run in this process
// gives the rows of a fresh process (the tool's) for the same thread count.
void restartGenerators(int threads) {
#pragma omp parallel num_threads(threads)
    setThreadRandomState(1);
}

// One run of the library on the model into an in-memory sink, with the given
// thread count and, when resolution >= 0, that hemisphere resolution instead of
// the model's own (set for the run and restored after it).
py::dict compute(Model& model, int threads, int resolution, bool showProgress, bool perFace,
                 uint64_t key) {
    if (threads < 1) threads = omp_get_num_procs();
    CsrRowSink sink;
    clearRunError();
    bool ok = false;
    std::string message;
    {
        const py::gil_scoped_release released;
        const std::lock_guard<std::mutex> lock(libraryLock());
        const QuietConsole quiet(showProgress);
        const RunParameters modelParameters = model.parameters;
        if (resolution >= 0) model.parameters.hemisphereResolution = resolution;
        if (checkDimensionAndResolution(model.sizes.dimension, model.parameters)) {
            const int previousThreads = omp_get_max_threads();
            omp_set_num_threads(threads);
            restartGenerators(threads);
            RunOptions options;
            options.slotCount = threads;
            options.numThreads = threads;
            options.sampling = Sampling{perFace, key};
            try {
                ok = computeAndWrite(model, options, sink);
            } catch (const std::bad_alloc&) {
                reportRunError("out of memory");
            }
            omp_set_num_threads(previousThreads);
        }
        model.parameters = modelParameters;
        if (!ok)
            message = lastRunError().empty() ? "couldn't calculate view factors!" : lastRunError();
    }
    if (!ok) raiseValue(message);
    return rowArrays(std::move(sink.activeGlobs), std::move(sink.rowStart), std::move(sink.columns),
                     std::move(sink.values));
}

// Repairs a square glob-by-glob CSR matrix with the library's repair; the repaired
// matrix's arrays and the report.
py::tuple repairMatrix(std::vector<int64_t> rowStart, std::vector<int32_t> columns,
                       std::vector<double> values, std::vector<double> areas,
                       std::vector<uint8_t> active, bool open) {
    repair::CsrMatrix F;
    F.rowStart = std::move(rowStart);
    F.columns = std::move(columns);
    F.values = std::move(values);
    repair::RepairOptions options;
    options.enclosure = open ? repair::Enclosure::open : repair::Enclosure::closed;
    repair::CsrMatrix repaired;
    repair::RepairReport report;
    std::string error;
    bool ok = false;
    {
        const py::gil_scoped_release released;
        ok = repair::repairViewFactors(F, areas, active, options, repaired, report, error);
    }
    if (!ok) raiseValue(error);
    const auto residuals = [](const repair::Residuals& r) {
        py::dict d;
        d["worst_closure"] = r.worstClosure;
        d["weighted_closure"] = r.weightedClosure;
        d["worst_reciprocity"] = r.worstReciprocity;
        d["weighted_reciprocity"] = r.weightedReciprocity;
        return d;
    };
    py::dict summary;
    summary["before"] = residuals(report.before);
    summary["after"] = residuals(report.after);
    summary["largest_change"] = report.largestChange;
    summary["energy_before"] = report.energyBefore;
    summary["energy_after"] = report.energyAfter;
    summary["sweeps"] = report.sweeps;
    summary["converged"] = report.converged;
    return py::make_tuple(adopt(std::move(repaired.rowStart)), adopt(std::move(repaired.columns)),
                          adopt(std::move(repaired.values)), summary);
}

}  // namespace

PYBIND11_MODULE(_hemiray, m) {
    m.doc() = "The library side of the hemiray package; use the hemiray package itself.";
    py::class_<Model, std::unique_ptr<Model>>(m, "Model")
        .def_property_readonly("sizes",
                               [](const Model& model) {
                                   const SizeSection& s = model.sizes;
                                   return std::vector<int32_t>{s.size1, s.size2, s.zoneCount,
                                                               s.globCount, s.dimension};
                               })
        .def_property_readonly("parameters",
                               [](const Model& model) { return parametersDict(model.parameters); })
        .def_property_readonly("nodes", &nodeArray)
        .def_property_readonly("face_node_start",
                               [](py::object self) {
                                   return view(self.cast<const Model&>().allFaces.faceNodeStart,
                                               self);
                               })
        .def_property_readonly("face_nodes",
                               [](py::object self) {
                                   return view(self.cast<const Model&>().allFaces.faceNodes, self);
                               })
        .def_property_readonly(
            "face_globs",
            [](py::object self) { return view(self.cast<const Model&>().allFaces.faceGlob, self); })
        .def_property_readonly("face_zones",
                               [](py::object self) {
                                   return view(self.cast<const Model&>().allFaces.faceZoneIndex,
                                               self);
                               })
        .def_property_readonly(
            "zone_ids",
            [](py::object self) { return view(self.cast<const Model&>().zones.zoneId, self); })
        .def_property_readonly(
            "zone_types",
            [](py::object self) { return view(self.cast<const Model&>().zones.zoneType, self); })
        .def_property_readonly("periodic",
                               [](const Model& model) { return periodicPairs(model.zones); });
    m.def("from_arrays", &fromArrays, py::arg("sizes"), py::arg("parameters"), py::arg("nodes"),
          py::arg("zones"), py::arg("face_node_counts"), py::arg("face_nodes"),
          py::arg("face_globs"), py::arg("periodic"));
    m.def("read_model", &readModelFile, py::arg("path"));
    m.def("write_model", &writeModelFile, py::arg("model"), py::arg("path"), py::arg("comment"));
    m.def("glob_areas", &globAreas, py::arg("model"));
    m.def("read_result", &readResult, py::arg("path"));
    m.def("compute", &compute, py::arg("model"), py::arg("threads"), py::arg("resolution"),
          py::arg("progress"), py::arg("per_face"), py::arg("key"));
    m.def("repair", &repairMatrix, py::arg("row_start"), py::arg("columns"), py::arg("values"),
          py::arg("areas"), py::arg("active"), py::arg("open"));
}
