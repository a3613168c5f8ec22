// Plain and gzip result files, written beside the target and moved over it at the end.
#include "run/OutputSink.h"

#include <fcntl.h>
#include <pstreams/pstream.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <vector>

#include "output/ReplacementFile.h"
#include "run/InputSource.h"

namespace hemiray {

// A gzip that dies mid-run (a full disk) would turn our next write into SIGPIPE,
// and a file that reaches the size limit (ulimit -f) raises SIGXFSZ; either ends
// the host process. Blocking both on this thread, the only one that writes, turns
// them into failed writes instead; a signal raised meanwhile is consumed before
// the mask is restored, so the host never sees it.
struct OutputSink::PipeSignalGuard {
    sigset_t writeSignals{};
    sigset_t previousMask{};
    sigset_t wasPending{};

    PipeSignalGuard() {
        sigemptyset(&writeSignals);
        sigaddset(&writeSignals, SIGPIPE);
        sigaddset(&writeSignals, SIGXFSZ);
        sigpending(&wasPending);
        pthread_sigmask(SIG_BLOCK, &writeSignals, &previousMask);
    }
    ~PipeSignalGuard() {
        sigset_t ours;
        sigemptyset(&ours);
        for (const int signal : {SIGPIPE, SIGXFSZ})
            if (sigismember(&wasPending, signal) != 1) sigaddset(&ours, signal);
        const timespec zero{0, 0};
        while (sigtimedwait(&ours, nullptr, &zero) > 0) {
        }
        pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    }
};

// PStreams' process buffer with access to the pipe into gzip's standard input.
// The result is written to that pipe directly, in blocks: PStreams' own buffer
// holds 32 bytes, so every 32 bytes of a result would be one write into gzip.
class OutputSink::GzipProcess final : public redi::pstreambuf {
public:
    using redi::pstreambuf::wpipe;
};

// The result leaves in blocks of 1 MiB, each with one write call where the file or
// pipe takes it whole. A flush (std::endl) only moves the stream's characters into
// the block: the head sections end every node and face line with std::endl, which
// cost one system call per line, and no one reads the file before it is committed.
// After a failed write the buffer takes nothing more and every flush fails.
class OutputSink::BlockWriteBuffer final : public std::streambuf {
public:
    explicit BlockWriteBuffer(int fileDescriptor)
        : fileDescriptor_(fileDescriptor), block_(std::size_t{1} << 20) {
        setp(block_.data(), block_.data() + block_.size());
    }

    // Writes out what the block holds. False once any write has failed.
    bool drain() {
        const char* next = pbase();
        std::size_t left = static_cast<std::size_t>(pptr() - pbase());
        while (left > 0 && ok_) {
            const ssize_t written = ::write(fileDescriptor_, next, left);
            if (written < 0 && errno == EINTR) continue;
            ok_ = written > 0;
            if (!ok_) break;
            next += written;
            left -= static_cast<std::size_t>(written);
        }
        setp(block_.data(), block_.data() + block_.size());
        return ok_;
    }

protected:
    int_type overflow(int_type c) override {
        if (!drain()) return traits_type::eof();
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
        return c;
    }
    int sync() override { return ok_ ? 0 : -1; }

private:
    int fileDescriptor_;
    std::vector<char> block_;
    bool ok_ = true;
};

OutputSink::OutputSink(const std::string& name, bool /*binary*/)
    : target_(resolveReplacementTarget(name)), isPipe_(namesGzip(name)) {
    if (!mayReplace(target_)) return;
    partial_ = createPartialFile(target_);
    if (partial_.empty()) return;

    signalGuard_ = std::make_unique<PipeSignalGuard>();
    int fileDescriptor = -1;
    if (isPipe_) {
        // The file name reaches the redirection as a positional parameter: the shell
        // expands "$1" without interpreting its characters.
        gzip_ = std::make_unique<GzipProcess>();
        gzip_->open("sh", {"sh", "-c", "exec gzip -fc > \"$1\"", "hemiray-gzip", partial_},
                    redi::pstreams::pstdin);
        if (gzip_->is_open()) fileDescriptor = gzip_->wpipe();
    } else {
        fileDescriptor_ = ::open(partial_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        fileDescriptor = fileDescriptor_;
    }
    buffer_ = std::make_unique<BlockWriteBuffer>(fileDescriptor);
    stream_ = std::make_unique<std::ostream>(buffer_.get());
    if (fileDescriptor < 0) stream_->setstate(std::ios::failbit);
}

OutputSink::~OutputSink() {
    stream_.reset();
    buffer_.reset();
    gzip_.reset();  // waits for gzip
    if (fileDescriptor_ >= 0) ::close(fileDescriptor_);
    signalGuard_.reset();
    if (!committed_ && !partial_.empty()) removePartialFile(partial_);
}

bool OutputSink::ok() const {
    return stream_ && !stream_->fail();
}

bool OutputSink::commit() {
    if (!stream_) return false;
    bool written = !stream_->fail() && buffer_->drain();
    if (gzip_) {
        // Closing sends gzip end-of-file and waits for it; gzip's exit status tells
        // whether the file is complete.
        gzip_->close();
        const int status = gzip_->status();
        written = written && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        gzip_.reset();
    } else {
        written = ::close(fileDescriptor_) == 0 && written;
        fileDescriptor_ = -1;
    }
    stream_.reset();
    buffer_.reset();
    signalGuard_.reset();
    if (!written) return false;

    if (!publishPartialFile(partial_, target_)) return false;
    committed_ = true;
    return true;
}

}  // namespace hemiray
