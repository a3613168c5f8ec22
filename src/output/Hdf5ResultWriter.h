// Writes a run's result into an HDF5 file: the size values, header text and flag,
// the thirteen parameters, the nodes, faces and zones of the model, and the view
// factors as a compressed-sparse-row matrix over the active globs. Rows are
// buffered and appended to extendible datasets a buffer at a time, so memory stays
// bounded however many rows there are. The layout is in docs/hdf5-results.md.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "SparseRowVector"
#include "input/MeshModel.h"
#include "input/ParameterSection.h"
#include "output/Hdf5Handles.h"
#include "output/Hdf5SafeWriteDriver.h"

namespace hemiray {

class Hdf5ResultWriter {
public:
    // Creates (truncating) the HDF5 file at path, through the safe-write driver when
    // one is given, else through HDF5's default driver. Check ok() before writing.
    explicit Hdf5ResultWriter(const std::string& path, hid_t safeWriteDriver = H5I_INVALID_HID);
    ~Hdf5ResultWriter() = default;  // closes without flushing buffered rows
    Hdf5ResultWriter(const Hdf5ResultWriter&) = delete;
    Hdf5ResultWriter& operator=(const Hdf5ResultWriter&) = delete;

    // False as soon as any HDF5 call or any write to the disk has failed; later
    // writes are then skipped.
    [[nodiscard]] bool ok() const { return !failed_ && writeStatus_.error == 0; }

    // The size values, the header text (zero-terminated, null taken as empty) and
    // flag, as root attributes.
    void writeSizes(int32_t size1, int32_t size2, int32_t zoneCount, int32_t globCount,
                    int32_t dimension, const char* headerData, bool headerFlag);
    void writeParameters(const RunParameters& parameters);
    // The first coordinateCount (1 to 3) coordinates of every node.
    void writeNodes(int32_t coordinateCount, const NodeArray& nodes);
    // Every zone field, the periodic pairing and its transforms included.
    void writeZones(const ZoneTable& zones);
    // allFaces in compressed-row form with glob, face number and zone of each face.
    void writeFaces(const FaceSet& allFaces);
    // The area of every glob, as globSurfaceAreas measures it.
    void writeGlobAreas(const std::vector<double>& areas);

    // Opens the row matrix: one row per entry of activeGlobs, in that order, each
    // at most rowWidth entries wide. Reserves the row buffers once.
    void beginRows(const std::vector<int32_t>& activeGlobs, int32_t rowWidth);
    // Buffers the row's touched entries in the row's own order; writes the buffers
    // out when they are full. Allocates nothing.
    void appendRow(const SparseRowVector& row);

    // Writes the buffered rows, checks that every announced row arrived and closes
    // the file. True when all of it reached the disk.
    [[nodiscard]] bool close();

private:
    // A one-dimensional dataset that grows at its end.
    struct Extendible {
        Hdf5Id dataset;
        hid_t memoryType = H5I_INVALID_HID;
        hsize_t length = 0;
    };

    bool check(bool success);
    void writeRowBuffers();
    void append(Extendible& target, const void* data, hsize_t count);

    Hdf5WriteStatus writeStatus_;  // filled by the safe-write driver; outlives file_
    Hdf5Id file_;
    Hdf5Id rowGroup_;
    Extendible rowStart_;
    Extendible columns_;
    Extendible values_;
    std::vector<int64_t> rowStartBuffer_;
    std::vector<int32_t> columnBuffer_;
    std::vector<double> valueBuffer_;
    size_t bufferedEntriesLimit_ = 0;  // flush once this many entries wait
    size_t bufferedRowsLimit_ = 0;
    int64_t entriesWritten_ = 0;  // entries of all rows appended so far
    uint64_t rowsAnnounced_ = 0;
    uint64_t rowsAppended_ = 0;
    bool rowsBegun_ = false;
    bool failed_ = false;
};

}  // namespace hemiray
