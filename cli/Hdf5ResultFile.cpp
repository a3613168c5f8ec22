// HDF5 results read back into a ResultFile. Nothing in the file is trusted: every
// array's type and shape are checked, and every index against what it indexes,
// before the model is assembled.
#include <hdf5.h>
#include <algorithm>
#include <filesystem>
#include <type_traits>

#include "ResultFile.h"
#include "output/Hdf5Handles.h"
#include "output/Hdf5Layout.h"

namespace hemiray::cli {

namespace layout = hemiray::hdf5layout;

namespace {

// Deflate expands at most about 1000-fold, so a dataset that claims much more than
// its stored size times that is damaged; reading it would only allocate memory for
// data the file does not hold. Small datasets are let through whatever they claim.
constexpr double maxExpansion = 1100.0;
constexpr double alwaysAllowedBytes = 1 << 20;
// No number of a result is wider than a double.
constexpr size_t maxElementBytes = 16;

class Reader {
public:
    explicit Reader(std::string& error) : error_(error) {}

    bool fail(const std::string& message) {
        if (error_.empty()) error_ = message;
        return false;
    }

    Hdf5Id group(hid_t location, const char* name) {
        if (H5Lexists(location, name, H5P_DEFAULT) <= 0) {
            fail(std::string("group ") + name + " is missing");
            return {};
        }
        Hdf5Id id(H5Gopen2(location, name, H5P_DEFAULT), H5Gclose);
        if (!id.valid()) fail(std::string(name) + " is not a group");
        return id;
    }

    bool integer(hid_t location, const char* name, int32_t& value) {
        return scalar(location, name, H5T_NATIVE_INT32, H5T_INTEGER, &value, "an integer");
    }
    bool number(hid_t location, const char* name, double& value) {
        return scalar(location, name, H5T_NATIVE_DOUBLE, H5T_FLOAT, &value, "a number");
    }

    // A whole dataset of rank 1, or of rank 2 when `columns` is given; on return
    // `rows` holds its first dimension and `columns` its second.
    template <typename T>
    bool array(hid_t location, const char* name, std::vector<T>& values, hsize_t& rows,
               hsize_t* columns = nullptr) {
        static_assert(std::is_same_v<T, int32_t> || std::is_same_v<T, int64_t> ||
                      std::is_same_v<T, double>);
        const std::string what = std::string("dataset ") + name;
        if (H5Lexists(location, name, H5P_DEFAULT) <= 0) return fail(what + " is missing");
        const Hdf5Id dataset(H5Dopen2(location, name, H5P_DEFAULT), H5Dclose);
        if (!dataset.valid()) return fail(what + " cannot be opened");
        const Hdf5Id space(H5Dget_space(dataset.get()), H5Sclose);
        const Hdf5Id type(H5Dget_type(dataset.get()), H5Tclose);
        const int wantedRank = columns ? 2 : 1;
        hsize_t dims[2] = {0, 0};
        if (!space.valid() || !type.valid() ||
            H5Sget_simple_extent_ndims(space.get()) != wantedRank ||
            H5Sget_simple_extent_dims(space.get(), dims, nullptr) != wantedRank)
            return fail(what + " does not have rank " + std::to_string(wantedRank));
        const H5T_class_t wantedClass = std::is_same_v<T, double> ? H5T_FLOAT : H5T_INTEGER;
        if (H5Tget_class(type.get()) != wantedClass)
            return fail(what +
                        (wantedClass == H5T_FLOAT ? " is not floating-point" : " is not integer"));
        // The library converts element by element through buffers sized by the
        // file's type: a damaged type claiming gigabits per element is refused.
        if (H5Tget_size(type.get()) == 0 || H5Tget_size(type.get()) > maxElementBytes)
            return fail(what + " has elements of " + std::to_string(H5Tget_size(type.get())) +
                        " bytes");
        const double elements = double(dims[0]) * double(wantedRank == 2 ? dims[1] : 1);
        const double bytes = elements * sizeof(T);
        if (bytes > alwaysAllowedBytes &&
            bytes > maxExpansion * double(H5Dget_storage_size(dataset.get())))
            return fail(what + " claims more data than the file holds");
        rows = dims[0];
        if (columns) *columns = dims[1];
        values.resize(static_cast<size_t>(elements));
        hid_t memoryType = H5T_NATIVE_DOUBLE;
        if constexpr (std::is_same_v<T, int32_t>) memoryType = H5T_NATIVE_INT32;
        if constexpr (std::is_same_v<T, int64_t>) memoryType = H5T_NATIVE_INT64;
        if (!values.empty() &&
            H5Dread(dataset.get(), memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()) < 0)
            return fail(what + " cannot be read");
        return true;
    }

    // A rank-1 dataset of exactly `length` entries.
    template <typename T>
    bool arrayOf(hid_t location, const char* name, hsize_t length, std::vector<T>& values) {
        hsize_t rows = 0;
        if (!array(location, name, values, rows)) return false;
        if (rows != length)
            return fail(std::string("dataset ") + name + " has " + std::to_string(rows) +
                        " entries, not " + std::to_string(length));
        return true;
    }

    // An n x 3 dataset as vectors.
    bool vectors(hid_t location, const char* name, hsize_t length, std::vector<Vec3>& out) {
        std::vector<double> flat;
        hsize_t rows = 0, columns = 0;
        if (!array(location, name, flat, rows, &columns)) return false;
        if (rows != length || columns != 3)
            return fail(std::string("dataset ") + name + " is not " + std::to_string(length) +
                        " x 3");
        out.resize(length);
        for (size_t i = 0; i < length; ++i)
            out[i] = Vec3(flat[3 * i], flat[3 * i + 1], flat[3 * i + 2]);
        return true;
    }

private:
    bool scalar(hid_t location, const char* name, hid_t memoryType, H5T_class_t typeClass,
                void* value, const char* kind) {
        const std::string what = std::string("attribute ") + name;
        if (H5Aexists(location, name) <= 0) return fail(what + " is missing");
        const Hdf5Id attribute(H5Aopen(location, name, H5P_DEFAULT), H5Aclose);
        if (!attribute.valid()) return fail(what + " cannot be opened");
        const Hdf5Id space(H5Aget_space(attribute.get()), H5Sclose);
        const Hdf5Id type(H5Aget_type(attribute.get()), H5Tclose);
        if (!space.valid() || !type.valid() || H5Sget_simple_extent_npoints(space.get()) != 1 ||
            H5Tget_class(type.get()) != typeClass || H5Tget_size(type.get()) == 0 ||
            H5Tget_size(type.get()) > maxElementBytes ||
            H5Aread(attribute.get(), memoryType, value) < 0)
            return fail(what + " is not " + kind);
        return true;
    }

    std::string& error_;
};

// Offsets of a compressed-row array: start at 0, never decrease, end at the
// length of the array they index.
template <typename T>
bool validOffsets(const std::vector<T>& start, size_t indexed) {
    if (start.empty() || start.front() != 0 || static_cast<size_t>(start.back()) != indexed)
        return false;
    return std::is_sorted(start.begin(), start.end());
}

bool readSizes(Reader& read, hid_t root, ResultFile& result) {
    int32_t version = 0;
    if (!read.integer(root, layout::version, version)) return false;
    if (version != layout::formatVersion)
        return read.fail("format version " + std::to_string(version) + " is not supported");
    SizeSection& s = result.sizes;
    if (!read.integer(root, layout::size1, s.size1) ||
        !read.integer(root, layout::size2, s.size2) ||
        !read.integer(root, layout::zoneCount, s.zoneCount) ||
        !read.integer(root, layout::globCount, s.globCount) ||
        !read.integer(root, layout::dimension, s.dimension))
        return false;
    if (s.dimension < 1 || s.dimension > 3)
        return read.fail("dimension " + std::to_string(s.dimension) + " is not 1, 2 or 3");
    if (s.globCount < 0) return read.fail("negative glob count");
    return true;
}

bool readParameters(Reader& read, hid_t root, RunParameters& p) {
    const Hdf5Id group = read.group(root, layout::parameters);
    if (!group.valid()) return false;
    const hid_t g = group.get();
    return read.integer(g, "param1", p.param1) &&
           read.integer(g, "hemisphereResolution", p.hemisphereResolution) &&
           read.integer(g, "param3", p.param3) && read.number(g, "param4", p.param4) &&
           read.integer(g, "param5", p.param5) && read.integer(g, "param6", p.param6) &&
           read.number(g, "param7", p.param7) && read.integer(g, "param8", p.param8) &&
           read.integer(g, "param9", p.param9) && read.number(g, "param10", p.param10) &&
           read.integer(g, "param11", p.param11) && read.integer(g, "param12", p.param12) &&
           read.integer(g, "param13", p.param13);
}

bool readNodes(Reader& read, hid_t root, NodeArray& nodes) {
    std::vector<double> flat;
    hsize_t count = 0, coordinates = 0;
    if (!read.array(root, layout::nodes, flat, count, &coordinates)) return false;
    if (coordinates < 1 || coordinates > 3)
        return read.fail("nodes have " + std::to_string(coordinates) + " coordinates");
    nodes.assign(count, Vec3());
    for (size_t i = 0; i < count; ++i)
        for (size_t k = 0; k < coordinates; ++k) nodes[i][int(k)] = flat[i * coordinates + k];
    return true;
}

bool readZones(Reader& read, hid_t root, ZoneTable& zones) {
    const Hdf5Id group = read.group(root, layout::zones);
    if (!group.valid()) return false;
    const hid_t g = group.get();
    hsize_t count = 0;
    if (!read.array(g, layout::zoneId, zones.zoneId, count)) return false;
    if (!read.arrayOf(g, layout::zoneFirst, count, zones.zoneFirst) ||
        !read.arrayOf(g, layout::zoneLast, count, zones.zoneLast) ||
        !read.arrayOf(g, layout::zoneType, count, zones.zoneType) ||
        !read.arrayOf(g, layout::zoneElementType, count, zones.zoneElementType) ||
        !read.arrayOf(g, layout::zoneFaceStart, count + 1, zones.zoneFaceStart) ||
        !read.arrayOf(g, layout::periodicType, count, zones.periodicType) ||
        !read.arrayOf(g, layout::periodicShadow, count, zones.periodicShadow) ||
        !read.arrayOf(g, layout::periodicAngle, count, zones.periodicAngle) ||
        !read.vectors(g, layout::periodicAxisA, count, zones.periodicAxisA) ||
        !read.vectors(g, layout::periodicAxisB, count, zones.periodicAxisB) ||
        !read.vectors(g, layout::periodicShift, count, zones.periodicShift))
        return false;
    for (const int32_t shadow : zones.periodicShadow)
        if (shadow < -1 || shadow >= zones.zoneCount())
            return read.fail("periodic shadow " + std::to_string(shadow) + " is not a zone");
    return true;
}

// allFaces as stored; the participating faces are those of wall, mirror and
// periodic zones that have nodes, as the mesh readers select them.
bool readFaces(Reader& read, hid_t root, ResultFile& result) {
    const Hdf5Id group = read.group(root, layout::faces);
    if (!group.valid()) return false;
    const hid_t g = group.get();
    FaceSet& all = result.allFaces;
    hsize_t starts = 0, entries = 0;
    if (!read.array(g, layout::faceNodeStart, all.faceNodeStart, starts) ||
        !read.array(g, layout::faceNodes, all.faceNodes, entries))
        return false;
    if (!validOffsets(all.faceNodeStart, all.faceNodes.size()))
        return read.fail("face node offsets do not run from 0 to the node list's length");
    const hsize_t faceCount = starts - 1;
    std::vector<int32_t> zoneOfFace;
    if (!read.arrayOf(g, layout::faceGlob, faceCount, all.faceGlob) ||
        !read.arrayOf(g, layout::faceId, faceCount, all.faceId) ||
        !read.arrayOf(g, layout::faceZone, faceCount, zoneOfFace))
        return false;
    const auto nodeCount = static_cast<int64_t>(result.nodes.size());
    for (const int32_t node : all.faceNodes)
        if (node < 0 || node >= nodeCount)
            return read.fail("a face names node " + std::to_string(node) + " of " +
                             std::to_string(nodeCount));
    const ZoneTable& zones = result.zones;
    for (const int32_t zone : zoneOfFace)
        if (zone < 0 || zone >= zones.zoneCount())
            return read.fail("a face names zone " + std::to_string(zone) + " of " +
                             std::to_string(zones.zoneCount()));

    all.faceZoneIndex = zoneOfFace;
    all.faceZoneType.resize(faceCount);
    FaceSet& part = result.participatingFaces;
    for (size_t f = 0; f < faceCount; ++f) {
        const int32_t zone = zoneOfFace[f];
        const int32_t type = zones.zoneType[static_cast<size_t>(zone)];
        all.faceZoneType[f] = type;
        const auto begin = all.faceNodes.begin() + all.faceNodeStart[f];
        const auto end = all.faceNodes.begin() + all.faceNodeStart[f + 1];
        if (!isParticipatingZoneType(type) || begin == end) continue;
        part.faceId.push_back(all.faceId[f]);
        part.faceNodes.insert(part.faceNodes.end(), begin, end);
        addFace(part, type, zone);
        part.faceGlob.back() = all.faceGlob[f];
    }
    return true;
}

bool readRows(Reader& read, hid_t root, ResultFile& result) {
    const Hdf5Id group = read.group(root, layout::viewFactors);
    if (!group.valid()) return false;
    const hid_t g = group.get();
    int32_t width = 0;
    if (!read.integer(g, layout::rowWidth, width)) return false;
    if (width != result.sizes.globCount)
        return read.fail("rows are " + std::to_string(width) + " wide, the glob count is " +
                         std::to_string(result.sizes.globCount));
    hsize_t rowCount = 0, entries = 0;
    std::vector<int64_t> rowStart;
    std::vector<int32_t> columns;
    std::vector<double> values;
    if (!read.array(g, layout::activeGlobs, result.activeGlobs, rowCount) ||
        !read.arrayOf(g, layout::rowStart, rowCount + 1, rowStart) ||
        !read.array(g, layout::columns, columns, entries) ||
        !read.arrayOf(g, layout::values, entries, values))
        return false;
    if (!validOffsets(rowStart, columns.size()))
        return read.fail("row offsets do not run from 0 to the number of entries");
    for (const int32_t glob : result.activeGlobs)
        if (glob < 0 || glob >= width)
            return read.fail("active glob " + std::to_string(glob) + " is outside the glob count");
    for (const int32_t column : columns)
        if (column < 0 || column >= width)
            return read.fail("a row names glob " + std::to_string(column) +
                             " outside the glob count");
    result.rows.resize(rowCount);
    for (size_t r = 0; r < rowCount; ++r) {
        if (rowStart[r + 1] - rowStart[r] > width)
            return read.fail("row " + std::to_string(r) + " is wider than the glob count");
        SparseRow& row = result.rows[r];
        row.columns.assign(columns.begin() + rowStart[r], columns.begin() + rowStart[r + 1]);
        row.values.assign(values.begin() + rowStart[r], values.begin() + rowStart[r + 1]);
    }
    return true;
}

}  // namespace

bool isHdf5File(const std::string& path) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return false;
    const Hdf5ErrorsSilenced quiet;
    return H5Fis_hdf5(path.c_str()) > 0;
}

bool readHdf5ResultFile(const std::string& path, ResultFile& result, std::string& error) {
    const Hdf5ErrorsSilenced quiet;
    error.clear();
    const Hdf5Id file(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    if (!file.valid()) {
        error = "cannot open " + path + " as an HDF5 file";
        return false;
    }
    Reader read(error);
    const hid_t root = file.get();
    result.hdf5 = true;
    if (!readSizes(read, root, result) || !readParameters(read, root, result.parameters) ||
        !readNodes(read, root, result.nodes) || !readZones(read, root, result.zones))
        return false;
    result.allFaces.dimension = result.sizes.dimension;
    result.participatingFaces.dimension = result.sizes.dimension;
    return readFaces(read, root, result) && readRows(read, root, result);
}

}  // namespace hemiray::cli
