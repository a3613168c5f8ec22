// HDF5 result files: model datasets written whole, view-factor rows appended to
// chunked, extendible datasets a buffer at a time.
#include "output/Hdf5ResultWriter.h"

#include <algorithm>
#include <cstring>

#include "output/Hdf5Layout.h"

namespace hemiray {

namespace layout = hdf5layout;

namespace {

// Entries of the column and value datasets per chunk and per append: 256 KiB of
// columns and 512 KiB of values, large enough for one write to cost little
// against its HDF5 bookkeeping, small enough to stay in the default chunk cache.
constexpr hsize_t rowEntryChunk = hsize_t{1} << 16;
constexpr hsize_t rowStartChunk = hsize_t{1} << 14;
// Model datasets below this many elements are stored plainly; compressing them
// would cost more file space in filter headers than it saves.
constexpr hsize_t compressFrom = 4096;

Hdf5Id scalarSpace() {
    return {H5Screate(H5S_SCALAR), H5Sclose};
}

// Creation properties of groups and datasets whose object headers keep no times:
// the same result then gives the same file bytes, run after run.
Hdf5Id timelessCreation(hid_t propertyClass) {
    Hdf5Id creation(H5Pcreate(propertyClass), H5Pclose);
    if (!creation.valid() || H5Pset_obj_track_times(creation.get(), false) < 0) return {};
    return creation;
}

Hdf5Id createGroup(hid_t location, const char* name) {
    const Hdf5Id creation = timelessCreation(H5P_GROUP_CREATE);
    if (!creation.valid()) return {};
    return {H5Gcreate2(location, name, H5P_DEFAULT, creation.get(), H5P_DEFAULT), H5Gclose};
}

bool writeAttribute(hid_t location, const char* name, hid_t fileType, hid_t memoryType,
                    const void* value) {
    const Hdf5Id space = scalarSpace();
    if (!space.valid()) return false;
    Hdf5Id attribute(H5Acreate2(location, name, fileType, space.get(), H5P_DEFAULT, H5P_DEFAULT),
                     H5Aclose);
    if (!attribute.valid() || H5Awrite(attribute.get(), memoryType, value) < 0) return false;
    return attribute.reset();
}

bool writeInt(hid_t location, const char* name, int32_t value) {
    return writeAttribute(location, name, H5T_STD_I32LE, H5T_NATIVE_INT32, &value);
}

bool writeDouble(hid_t location, const char* name, double value) {
    return writeAttribute(location, name, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, &value);
}

// A fixed-length, zero-terminated ASCII string: h5py reads it as bytes, h5dump
// prints it quoted.
bool writeString(hid_t location, const char* name, const std::string& text) {
    const Hdf5Id type(H5Tcopy(H5T_C_S1), H5Tclose);
    if (!type.valid() || H5Tset_size(type.get(), text.size() + 1) < 0 ||
        H5Tset_strpad(type.get(), H5T_STR_NULLTERM) < 0)
        return false;
    return writeAttribute(location, name, type.get(), type.get(), text.c_str());
}

// Chunked storage along the first dimension, shuffled and deflated where the
// library has the filter (shuffling puts the bytes of equal significance side by
// side, which is what makes integer and double arrays compress).
Hdf5Id chunkedCreation(int rank, const hsize_t* chunk) {
    Hdf5Id creation = timelessCreation(H5P_DATASET_CREATE);
    if (!creation.valid() || H5Pset_chunk(creation.get(), rank, chunk) < 0) return {};
    if (H5Zfilter_avail(H5Z_FILTER_DEFLATE) > 0 &&
        (H5Pset_shuffle(creation.get()) < 0 || H5Pset_deflate(creation.get(), 1) < 0))
        return {};
    return creation;
}

// A dataset of rank 1 or 2 written whole; an empty one is created and left empty.
bool writeDataset(hid_t location, const char* name, hid_t fileType, hid_t memoryType, hsize_t rows,
                  hsize_t columns, const void* data) {
    const int rank = columns == 0 ? 1 : 2;
    const hsize_t dims[2] = {rows, columns};
    const Hdf5Id space(H5Screate_simple(rank, dims, nullptr), H5Sclose);
    if (!space.valid()) return false;
    const hsize_t elements = rows * std::max<hsize_t>(columns, 1);
    Hdf5Id creation = timelessCreation(H5P_DATASET_CREATE);
    if (elements >= compressFrom) {
        const hsize_t chunk[2] = {std::min<hsize_t>(rows, rowEntryChunk), columns};
        creation = chunkedCreation(rank, chunk);
    }
    if (!creation.valid()) return false;
    Hdf5Id dataset(
        H5Dcreate2(location, name, fileType, space.get(), H5P_DEFAULT, creation.get(), H5P_DEFAULT),
        H5Dclose);
    if (!dataset.valid()) return false;
    if (elements > 0 &&
        H5Dwrite(dataset.get(), memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, data) < 0)
        return false;
    return dataset.reset();
}

bool writeInts(hid_t location, const char* name, const std::vector<int32_t>& values) {
    return writeDataset(location, name, H5T_STD_I32LE, H5T_NATIVE_INT32, values.size(), 0,
                        values.data());
}

bool writeDoubles(hid_t location, const char* name, const std::vector<double>& values) {
    return writeDataset(location, name, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, values.size(), 0,
                        values.data());
}

// n x 3 doubles; SmallVector is not promised to be exactly three packed doubles.
bool writeVectors(hid_t location, const char* name, const std::vector<Vec3>& vectors) {
    std::vector<double> flat;
    flat.reserve(vectors.size() * 3);
    for (const Vec3& v : vectors) flat.insert(flat.end(), {v[0], v[1], v[2]});
    return writeDataset(location, name, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, vectors.size(), 3,
                        flat.data());
}

}  // namespace

Hdf5ResultWriter::Hdf5ResultWriter(const std::string& path, hid_t safeWriteDriver) {
    const Hdf5Id access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    if (!check(access.valid())) return;
    if (safeWriteDriver >= 0 &&
        !check(useSafeWriteDriver(access.get(), safeWriteDriver, &writeStatus_)))
        return;
    file_ = Hdf5Id(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access.get()), H5Fclose);
    check(file_.valid());
}

bool Hdf5ResultWriter::check(bool success) {
    if (!success || writeStatus_.error != 0) failed_ = true;
    return !failed_;
}

void Hdf5ResultWriter::writeSizes(int32_t size1, int32_t size2, int32_t zoneCount,
                                  int32_t globCount, int32_t dimension, const char* headerData,
                                  bool headerFlag) {
    if (failed_) return;
    const hid_t root = file_.get();
    check(writeString(root, layout::format, layout::formatName) &&
          writeInt(root, layout::version, layout::formatVersion) &&
          writeInt(root, layout::size1, size1) && writeInt(root, layout::size2, size2) &&
          writeInt(root, layout::zoneCount, zoneCount) &&
          writeInt(root, layout::globCount, globCount) &&
          writeInt(root, layout::dimension, dimension) &&
          writeString(root, layout::headerText, headerData ? headerData : "") &&
          writeInt(root, layout::headerFlag, headerFlag ? 1 : 0));
}

void Hdf5ResultWriter::writeParameters(const RunParameters& p) {
    if (failed_) return;
    const Hdf5Id group = createGroup(file_.get(), layout::parameters);
    if (!check(group.valid())) return;
    const hid_t g = group.get();
    check(writeInt(g, "param1", p.param1) &&
          writeInt(g, "hemisphereResolution", p.hemisphereResolution) &&
          writeInt(g, "param3", p.param3) && writeDouble(g, "param4", p.param4) &&
          writeInt(g, "param5", p.param5) && writeInt(g, "param6", p.param6) &&
          writeDouble(g, "param7", p.param7) && writeInt(g, "param8", p.param8) &&
          writeInt(g, "param9", p.param9) && writeDouble(g, "param10", p.param10) &&
          writeInt(g, "param11", p.param11) && writeInt(g, "param12", p.param12) &&
          writeInt(g, "param13", p.param13));
}

void Hdf5ResultWriter::writeNodes(int32_t coordinateCount, const NodeArray& nodes) {
    if (failed_) return;
    const int32_t d = std::clamp(coordinateCount, 1, 3);
    std::vector<double> flat;
    flat.reserve(nodes.size() * static_cast<size_t>(d));
    for (const Vec3& node : nodes)
        for (int32_t k = 0; k < d; ++k) flat.push_back(node[k]);
    check(writeDataset(file_.get(), layout::nodes, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, nodes.size(),
                       static_cast<hsize_t>(d), flat.data()));
}

void Hdf5ResultWriter::writeZones(const ZoneTable& zones) {
    if (failed_) return;
    const Hdf5Id group = createGroup(file_.get(), layout::zones);
    if (!check(group.valid())) return;
    const hid_t g = group.get();
    check(writeInts(g, layout::zoneId, zones.zoneId) &&
          writeInts(g, layout::zoneFirst, zones.zoneFirst) &&
          writeInts(g, layout::zoneLast, zones.zoneLast) &&
          writeInts(g, layout::zoneType, zones.zoneType) &&
          writeInts(g, layout::zoneElementType, zones.zoneElementType) &&
          writeInts(g, layout::zoneFaceStart, zones.zoneFaceStart) &&
          writeInts(g, layout::periodicType, zones.periodicType) &&
          writeInts(g, layout::periodicShadow, zones.periodicShadow) &&
          writeDoubles(g, layout::periodicAngle, zones.periodicAngle) &&
          writeVectors(g, layout::periodicAxisA, zones.periodicAxisA) &&
          writeVectors(g, layout::periodicAxisB, zones.periodicAxisB) &&
          writeVectors(g, layout::periodicShift, zones.periodicShift));
}

void Hdf5ResultWriter::writeFaces(const FaceSet& allFaces) {
    if (failed_) return;
    const Hdf5Id group = createGroup(file_.get(), layout::faces);
    if (!check(group.valid())) return;
    const hid_t g = group.get();
    check(writeInts(g, layout::faceNodeStart, allFaces.faceNodeStart) &&
          writeInts(g, layout::faceNodes, allFaces.faceNodes) &&
          writeInts(g, layout::faceGlob, allFaces.faceGlob) &&
          writeInts(g, layout::faceId, allFaces.faceId) &&
          writeInts(g, layout::faceZone, allFaces.faceZoneIndex));
}

void Hdf5ResultWriter::writeGlobAreas(const std::vector<double>& areas) {
    if (failed_) return;
    check(writeDoubles(file_.get(), layout::globArea, areas));
}

void Hdf5ResultWriter::beginRows(const std::vector<int32_t>& activeGlobs, int32_t rowWidth) {
    if (failed_ || !check(!rowsBegun_)) return;
    rowsBegun_ = true;
    rowsAnnounced_ = activeGlobs.size();
    const hsize_t width = static_cast<hsize_t>(std::max(rowWidth, 0));

    rowGroup_ = createGroup(file_.get(), layout::viewFactors);
    if (!check(rowGroup_.valid())) return;
    const hid_t g = rowGroup_.get();
    if (!check(writeInt(g, layout::rowWidth, rowWidth) &&
               writeInts(g, layout::activeGlobs, activeGlobs)))
        return;

    // A small result gets chunks no larger than all of it could be.
    const hsize_t entryBound = std::max<hsize_t>(rowsAnnounced_ * width, 1);
    const hsize_t entryChunk = std::clamp<hsize_t>(entryBound, 1024, rowEntryChunk);
    const hsize_t startChunk = std::clamp<hsize_t>(rowsAnnounced_ + 1, 256, rowStartChunk);
    auto create = [&](Extendible& target, const char* name, hid_t fileType, hid_t memoryType,
                      hsize_t chunk) {
        const hsize_t initial = 0;
        const hsize_t unlimited = H5S_UNLIMITED;
        const Hdf5Id space(H5Screate_simple(1, &initial, &unlimited), H5Sclose);
        const Hdf5Id creation = chunkedCreation(1, &chunk);
        if (!space.valid() || !creation.valid()) return false;
        target.dataset = Hdf5Id(
            H5Dcreate2(g, name, fileType, space.get(), H5P_DEFAULT, creation.get(), H5P_DEFAULT),
            H5Dclose);
        target.memoryType = memoryType;
        return target.dataset.valid();
    };
    if (!check(create(rowStart_, layout::rowStart, H5T_STD_I64LE, H5T_NATIVE_INT64, startChunk) &&
               create(columns_, layout::columns, H5T_STD_I32LE, H5T_NATIVE_INT32, entryChunk) &&
               create(values_, layout::values, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, entryChunk)))
        return;

    // A buffer is written out once it holds a chunk's worth; one more row always
    // fits after that, so appending never reallocates.
    bufferedEntriesLimit_ = static_cast<size_t>(entryChunk);
    bufferedRowsLimit_ = static_cast<size_t>(startChunk);
    columnBuffer_.reserve(bufferedEntriesLimit_ + width);
    valueBuffer_.reserve(bufferedEntriesLimit_ + width);
    rowStartBuffer_.reserve(bufferedRowsLimit_ + 1);
    rowStartBuffer_.push_back(0);
}

void Hdf5ResultWriter::appendRow(const SparseRowVector& row) {
    if (failed_ || !check(rowsBegun_ && rowsAppended_ < rowsAnnounced_)) return;
    for (int32_t k = 0; k < row.np; ++k) {
        const int32_t column = row.columnAt(k);
        columnBuffer_.push_back(column);
        valueBuffer_.push_back(row.valueAt(column));
    }
    entriesWritten_ += row.np;
    rowStartBuffer_.push_back(entriesWritten_);
    ++rowsAppended_;
    if (columnBuffer_.size() >= bufferedEntriesLimit_ ||
        rowStartBuffer_.size() >= bufferedRowsLimit_)
        writeRowBuffers();
}

void Hdf5ResultWriter::append(Extendible& target, const void* data, hsize_t count) {
    if (failed_ || count == 0) return;
    const hsize_t start = target.length;
    const hsize_t length = start + count;
    if (!check(H5Dset_extent(target.dataset.get(), &length) >= 0)) return;
    const Hdf5Id fileSpace(H5Dget_space(target.dataset.get()), H5Sclose);
    const Hdf5Id memorySpace(H5Screate_simple(1, &count, nullptr), H5Sclose);
    if (!check(fileSpace.valid() && memorySpace.valid() &&
               H5Sselect_hyperslab(fileSpace.get(), H5S_SELECT_SET, &start, nullptr, &count,
                                   nullptr) >= 0 &&
               H5Dwrite(target.dataset.get(), target.memoryType, memorySpace.get(), fileSpace.get(),
                        H5P_DEFAULT, data) >= 0))
        return;
    target.length = length;
    check(true);  // a write the driver could not make stops the rows here
}

void Hdf5ResultWriter::writeRowBuffers() {
    append(rowStart_, rowStartBuffer_.data(), rowStartBuffer_.size());
    append(columns_, columnBuffer_.data(), columnBuffer_.size());
    append(values_, valueBuffer_.data(), valueBuffer_.size());
    rowStartBuffer_.clear();
    columnBuffer_.clear();
    valueBuffer_.clear();
}

bool Hdf5ResultWriter::close() {
    if (!failed_ && rowsBegun_) writeRowBuffers();
    // A file without every announced row is not a result.
    check(rowsBegun_ && rowsAppended_ == rowsAnnounced_);
    check(values_.dataset.reset());
    check(columns_.dataset.reset());
    check(rowStart_.dataset.reset());
    check(rowGroup_.reset());
    check(file_.reset());
    return !failed_;
}

}  // namespace hemiray
