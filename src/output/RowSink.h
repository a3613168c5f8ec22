// Where the rows of a run go. A run hands its sink the result head (the model and
// the list of active globs) once, then every row in active-glob order from the
// calling thread, then finishes it. Text, binary and gzip files, HDF5 files and
// in-memory matrices are sinks; the run loop does not know which one it feeds.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "SparseRowVector"

namespace hemiray {

struct Model;

struct ResultHead {
    const Model& model;
    const std::vector<int32_t>& activeGlobs;
    const char* headerData = nullptr;  // text of the result's first line; null: none
    bool headerFlag = false;
};

class RowSink {
public:
    enum class Status { Ok, CannotOpen, CannotWrite };

    virtual ~RowSink() = default;

    // Takes the head before the first row.
    [[nodiscard]] virtual Status begin(const ResultHead& head) = 0;
    // Takes the next row. False once the sink can take no more (the run then stops).
    [[nodiscard]] virtual bool write(const SparseRowVector& row) = 0;
    // Completes the result. False when it could not be completed; nothing of it
    // then replaces an earlier file.
    [[nodiscard]] virtual bool finish() = 0;
    // Whether a finished result is announced with the 100 % line.
    virtual bool announcesCompletion() const { return true; }
    // What error lines call the result (a file name, or a description).
    virtual const std::string& name() const = 0;
};

// The file sink that the output name asks for: HDF5 when it contains ".h5", else
// the view-factor text file (binary rows on request), through gzip when it
// contains ".gz".
std::unique_ptr<RowSink> openFileSink(const std::string& name, bool binaryRows);

// Collects the rows in memory as a compressed-sparse-row matrix over the active
// globs (row r is activeGlobs[r]), entries in the order the row touched them.
class CsrRowSink : public RowSink {
public:
    Status begin(const ResultHead& head) override;
    bool write(const SparseRowVector& row) override;
    bool finish() override { return true; }
    bool announcesCompletion() const override { return false; }
    const std::string& name() const override { return name_; }

    std::vector<int32_t> activeGlobs;
    std::vector<int64_t> rowStart{0};
    std::vector<int32_t> columns;
    std::vector<double> values;

private:
    std::string name_ = "in-memory result";
};

}  // namespace hemiray
