// Plain and gzip result files, written beside the target and moved over it at the end.
#include "run/OutputSink.h"

#include <pstreams/pstream.h>
#include <pthread.h>
#include <sys/wait.h>
#include <csignal>
#include <cstdio>
#include <fstream>

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

OutputSink::OutputSink(const std::string& name, bool binary)
    : target_(resolveReplacementTarget(name)), isPipe_(namesGzip(name)) {
    if (!mayReplace(target_)) return;
    partial_ = createPartialFile(target_);
    if (partial_.empty()) return;

    signalGuard_ = std::make_unique<PipeSignalGuard>();
    if (isPipe_) {
        // The file name reaches the redirection as a positional parameter: the shell
        // expands "$1" without interpreting its characters.
        auto pipe = std::make_unique<redi::opstream>();
        pipe->open("sh", {"sh", "-c", "exec gzip -fc > \"$1\"", "hemiray-gzip", partial_},
                   redi::pstreams::pstdin);
        if (!pipe->is_open()) pipe->setstate(std::ios::failbit);
        stream_ = std::move(pipe);
    } else {
        auto mode = std::ios::out | std::ios::trunc;
        if (binary) mode |= std::ios::binary;
        stream_ = std::make_unique<std::ofstream>(partial_, mode);
    }
}

OutputSink::~OutputSink() {
    stream_.reset();  // waits for gzip
    signalGuard_.reset();
    if (!committed_ && !partial_.empty()) removePartialFile(partial_);
}

bool OutputSink::ok() const {
    return stream_ && !stream_->fail();
}

bool OutputSink::commit() {
    if (!stream_) return false;
    bool written = !stream_->fail();
    if (isPipe_) {
        // No flush here: PStreams 1.0.3 reports a sync of an empty buffer as a
        // failure, and every writer ends with a flushing end of line anyway.
        // Closing writes what is left, sends gzip end-of-file and waits for it;
        // gzip's exit status tells whether the file is complete.
        auto& pipe = static_cast<redi::opstream&>(*stream_);
        pipe.close();
        const int status = pipe.rdbuf()->status();
        written = written && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    } else {
        auto& file = static_cast<std::ofstream&>(*stream_);
        file.flush();
        file.close();
        written = written && !file.fail();
    }
    stream_.reset();
    signalGuard_.reset();
    if (!written) return false;

    if (!publishPartialFile(partial_, target_)) return false;
    committed_ = true;
    return true;
}

}  // namespace hemiray
