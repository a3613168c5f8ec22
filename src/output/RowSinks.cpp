// The result files a run can write, and the in-memory matrix, as row sinks.
#include "output/RowSink.h"

#include <ostream>

#include "geometry/FaceGeometry.h"
#include "output/Hdf5Consumer.h"
#include "output/ViewFactorWriter.h"
#include "run/InputSource.h"
#include "run/Model.h"
#include "run/OutputSink.h"

namespace hemiray {

namespace {

// The view-factor text file: the head sections repeat the model in the input
// syntax, then one row per active glob, text or binary, and the closing "))".
class TextFileSink final : public RowSink {
public:
    TextFileSink(const std::string& name, bool binaryRows) : name_(name), binary_(binaryRows) {}

    Status begin(const ResultHead& head) override {
        file_ = std::make_unique<OutputSink>(name_, binary_);
        if (!file_->ok()) return Status::CannotOpen;
        const Model& model = head.model;
        const SizeSection& s = model.sizes;
        std::ostream& out = file_->stream();
        writeFileHeader(out, s.size1, s.size2, s.zoneCount, s.globCount, s.dimension,
                        head.headerData, head.headerFlag);
        writeParameterHeader(out, model.parameters);
        writeNodeSection(out, model.nodeCoordinates, model.nodes);
        writeFaceSections(out, model.zones, model.allFaces);
        writeGlobSections(out, model.zones, model.allFaces);
        writePeriodicSections(out, model.zones);
        writeRowSectionHeader(out, binary_, head.activeGlobs);
        return Status::Ok;
    }

    // A failed stream is found when the file is committed; the rows in between
    // cost only time.
    bool write(const SparseRowVector& row) override {
        writeRow(file_->stream(), binary_, row);
        return true;
    }

    bool finish() override {
        file_->stream() << "))" << std::endl;
        return file_->commit();
    }

    const std::string& name() const override { return name_; }

private:
    std::string name_;
    bool binary_;
    std::unique_ptr<OutputSink> file_;
};

// The HDF5 result, delivered through the process-wide consumer. It has no closing
// line, and its end is not announced with the 100 % line.
class Hdf5FileSink final : public RowSink {
public:
    explicit Hdf5FileSink(const std::string& name) : name_(name) {}

    Status begin(const ResultHead& head) override {
        Hdf5Consumer* consumer = Hdf5Consumer::instance();
        delivery_ = consumer ? consumer->startResult(name_) : nullptr;
        if (!delivery_) return Status::CannotOpen;
        const Model& model = head.model;
        const SizeSection& s = model.sizes;
        Hdf5ResultWriter& file = delivery_->writer();
        file.writeSizes(s.size1, s.size2, s.zoneCount, s.globCount, s.dimension, head.headerData,
                        head.headerFlag);
        file.writeParameters(model.parameters);
        file.writeNodes(model.nodeCoordinates, model.nodes);
        file.writeZones(model.zones);
        file.writeFaces(model.allFaces);
        // The run has measured the participating faces before it opens its sink.
        file.writeGlobAreas(globSurfaceAreas(model.participatingFaces, s.globCount));
        file.beginRows(head.activeGlobs, s.globCount);
        return file.ok() ? Status::Ok : Status::CannotWrite;
    }

    // A result that can no longer be written is not worth the remaining rows.
    bool write(const SparseRowVector& row) override {
        delivery_->writer().appendRow(row);
        return delivery_->writer().ok();
    }

    bool finish() override { return delivery_->commit(); }
    bool announcesCompletion() const override { return false; }
    const std::string& name() const override { return name_; }

private:
    std::string name_;
    std::unique_ptr<Hdf5Delivery> delivery_;
};

}  // namespace

std::unique_ptr<RowSink> openFileSink(const std::string& name, bool binaryRows) {
    if (namesHdf5(name)) return std::make_unique<Hdf5FileSink>(name);
    return std::make_unique<TextFileSink>(name, binaryRows);
}

RowSink::Status CsrRowSink::begin(const ResultHead& head) {
    activeGlobs = head.activeGlobs;
    rowStart.assign(1, 0);
    rowStart.reserve(activeGlobs.size() + 1);
    columns.clear();
    values.clear();
    return Status::Ok;
}

bool CsrRowSink::write(const SparseRowVector& row) {
    for (int32_t k = 0; k < row.np; ++k) {
        const int32_t column = row.columnAt(k);
        columns.push_back(column);
        values.push_back(row.valueAt(column));
    }
    rowStart.push_back(static_cast<int64_t>(columns.size()));
    return true;
}

}  // namespace hemiray
