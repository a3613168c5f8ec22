// The stream a run writes its result to. The result replaces the input file of the
// same name, so it is written to a temporary file beside it and moved over the name
// only when the whole file was written: a run that fails or is killed half-way
// leaves the user's input as it was.
#pragma once

#include <memory>
#include <ostream>
#include <string>

namespace hemiray {

class OutputSink {
public:
    // Opens a plain file or, when the name contains ".gz",
    // a "gzip -fc" pipe into the file. Check ok() before writing.
    // The bytes are written as they are, so text and binary results are alike here.
    OutputSink(const std::string& name, bool binary);
    ~OutputSink();  // without a successful commit the temporary file is removed
    OutputSink(const OutputSink&) = delete;
    OutputSink& operator=(const OutputSink&) = delete;

    [[nodiscard]] bool ok() const;
    std::ostream& stream() { return *stream_; }

    // Flushes, waits for gzip and moves the finished file over the name. False when
    // any write, gzip itself or the move failed; the name is then left untouched.
    [[nodiscard]] bool commit();

private:
    struct PipeSignalGuard;
    class GzipProcess;
    class BlockWriteBuffer;

    std::string target_;   // the file the result replaces (symbolic links resolved)
    std::string partial_;  // where it is written first
    std::unique_ptr<PipeSignalGuard> signalGuard_;
    int fileDescriptor_ = -1;  // the partial file, when no gzip writes it
    std::unique_ptr<GzipProcess> gzip_;
    std::unique_ptr<BlockWriteBuffer> buffer_;
    std::unique_ptr<std::ostream> stream_;
    bool isPipe_ = false;
    bool committed_ = false;
};

}  // namespace hemiray
