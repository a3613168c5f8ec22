// The supervised run: a private folder beside the output, the model copied into
// it under a name that selects the same input and output forms as the output name,
// the library in a forked child, and the move of the finished result.
#include "SupervisedRun.h"

#include <omp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "ModelFile.h"
#include "hemiray/raytracing.h"
#include "input/MeshBlockPacker.h"
#include "output/ReplacementFile.h"
#include "run/ComputeAndWrite.h"
#include "run/InputSource.h"
#include "run/OutputSink.h"

namespace hemiray::cli {

namespace fs = std::filesystem;

namespace {

volatile sig_atomic_t stopSignal = 0;
volatile sig_atomic_t childPid = 0;

// Ctrl-C reaches the child with the rest of the terminal's process group; kill(1)
// and a hung-up session reach the tool alone. Either way the child hears it.
void forwardStop(int signal) {
    stopSignal = signal;
    if (childPid > 0) kill(static_cast<pid_t>(childPid), signal);
}

constexpr int stopSignals[] = {SIGINT, SIGTERM, SIGHUP};

class StopSignalsForwarded {
public:
    StopSignalsForwarded() {
        struct sigaction action {};
        action.sa_handler = forwardStop;
        sigemptyset(&action.sa_mask);
        for (size_t k = 0; k < std::size(stopSignals); ++k)
            sigaction(stopSignals[k], &action, &previous_[k]);
    }
    ~StopSignalsForwarded() {
        for (size_t k = 0; k < std::size(stopSignals); ++k)
            sigaction(stopSignals[k], &previous_[k], nullptr);
    }
    StopSignalsForwarded(const StopSignalsForwarded&) = delete;
    StopSignalsForwarded& operator=(const StopSignalsForwarded&) = delete;

private:
    struct sigaction previous_[std::size(stopSignals)]{};
};

// Rows done, shared between the child that computes and the tool that shows them.
struct SharedProgress {
    std::atomic<int64_t> done{0};
    std::atomic<int64_t> total{0};
};
SharedProgress* progress = nullptr;

void publishProgress(int64_t done, int64_t total) {
    progress->total.store(total, std::memory_order_relaxed);
    progress->done.store(done, std::memory_order_relaxed);
}

// Rows done, rate and time left, rewritten in place on a terminal's standard error.
class ProgressLine {
public:
    explicit ProgressLine(bool shown) : shown_(shown) {}
    ~ProgressLine() {
        if (drawn_) std::cerr << "\r\033[K" << std::flush;
    }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void update(int64_t done, int64_t total) {
        using Clock = std::chrono::steady_clock;
        const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
        if (!shown_ || total <= 0 || done <= 0 || seconds < 1) return;
        const double rate = double(done) / seconds;
        const auto left = static_cast<long long>(double(total - done) / rate);
        char line[160];
        std::snprintf(line, sizeof line,
                      "\r  %lld of %lld rows, %.1f rows/s, %lld:%02lld left\033[K",
                      static_cast<long long>(done), static_cast<long long>(total), rate, left / 60,
                      left % 60);
        std::cerr << line << std::flush;
        drawn_ = true;
    }

private:
    bool shown_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

std::string signalName(int signal) {
    switch (signal) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
        case SIGABRT:
            return "SIGABRT";
        case SIGKILL:
            return "SIGKILL";
        case SIGSEGV:
            return "SIGSEGV";
        default:
            return "signal " + std::to_string(signal);
    }
}

// The markers the library reads in a name (".gz": compressed, ".h5": HDF5 result)
// carried over from the output name to the work file's.
std::string workName(const fs::path& folder, const char* stem, const std::string& output) {
    std::string name = stem;
    if (namesGzip(output)) name += ".gz";
    if (namesHdf5(output)) name += ".h5";
    return (folder / name).string();
}

// Copies the model text from input to output, decompressing and compressing as the
// two names ask, so that the library finds under output what its name promises.
bool copyModel(const std::string& input, const std::string& output) {
    auto in = openInputSource(input);
    if (in->fail()) return false;
    OutputSink sink(output, false);
    if (!sink.ok()) return false;
    sink.stream() << in->rdbuf();
    // A write that fails part of the way only stops the copy: the stream flags a
    // failure only when nothing at all was copied. What is left unread tells.
    const bool copiedAll = in->rdbuf()->sgetc() == std::char_traits<char>::eof();
    return copiedAll && sink.commit();
}

[[noreturn]] void runChild(const RunRequest& request, const std::string& work, const void* meshData,
                           pid_t parent) {
    for (const int signal : stopSignals) std::signal(signal, SIG_DFL);
    // A closed standard output (hemiray run ... | head) costs the console lines,
    // not the result.
    std::signal(SIGPIPE, SIG_IGN);
    // The child never outlives the tool that would clean up after it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    setRowProgressHook(publishProgress);
    omp_set_num_threads(request.threads);
    const int ok = raytracing_lib(request.binary, work.c_str(), nullptr, 1, request.threads,
                                  request.block ? 0 : 1, meshData, request.header.c_str(), false,
                                  request.direct, 0);
    std::cout.flush();
    std::cerr.flush();
    _exit(ok == 1 ? 0 : 1);
}

int stopped(const std::string& what) {
    std::cerr << "hemiray: " << what << std::endl;
    return 128 + stopSignal;
}

}  // namespace

int superviseRun(const RunRequest& request) {
    const std::string& output = request.output;
    const bool existed = fs::exists(output);
    const std::string unchanged = existed ? output + " is as it was" : "no result was written";
    std::vector<std::byte> block;
    hemiray_direct_block direct{};
    const void* meshData = nullptr;
    if (request.block) {
        std::string error;
        if (!readBlockFile(request.input, block, error)) {
            std::cerr << "hemiray: " << request.input << ": " << error << std::endl;
            return 1;
        }
        meshData = block.data();
        if (request.direct) {
            direct = directBlockFor(block);
            meshData = &direct;
        }
    }

    stopSignal = 0;
    const StopSignalsForwarded forwarding;
    // Beside the file the result will replace (a link's target), so that the final
    // move is a rename within one file system.
    const std::string target = resolveReplacementTarget(output);
    std::string pattern = (fs::absolute(target).parent_path() / ".hemiray-run-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        std::cerr << "hemiray: cannot create a work folder beside " << output << std::endl;
        return 1;
    }
    const fs::path folder = pattern;
    struct RemoveFolder {
        fs::path path;
        ~RemoveFolder() {
            std::error_code ec;
            fs::remove_all(path, ec);
        }
    } removeFolder{folder};

    const std::string work = workName(folder, request.block ? "result" : "model", output);
    if (!request.block && !copyModel(request.input, work)) {
        if (stopSignal) return stopped("stopped by " + signalName(stopSignal) + "; " + unchanged);
        std::cerr << "hemiray: cannot copy " << request.input << " beside " << output << std::endl;
        return 1;
    }
    if (stopSignal) return stopped("stopped by " + signalName(stopSignal) + "; " + unchanged);

    void* shared = mmap(nullptr, sizeof(SharedProgress), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        std::cerr << "hemiray: cannot start the run: " << std::strerror(errno) << std::endl;
        return 1;
    }
    progress = new (shared) SharedProgress;
    std::cout.flush();
    std::cerr.flush();
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        std::cerr << "hemiray: cannot start the run: " << std::strerror(errno) << std::endl;
        munmap(shared, sizeof(SharedProgress));
        return 1;
    }
    if (pid == 0) runChild(request, work, meshData, parent);
    childPid = pid;
    if (stopSignal) kill(pid, stopSignal);  // a signal that came before childPid was set

    int status = 0;
    {
        ProgressLine line(isatty(STDERR_FILENO) == 1);
        for (;;) {
            const pid_t ended = waitpid(pid, &status, WNOHANG);
            if (ended == pid) break;
            if (ended < 0 && errno != EINTR) break;
            line.update(progress->done.load(std::memory_order_relaxed),
                        progress->total.load(std::memory_order_relaxed));
            const timespec pause{0, 100'000'000};
            nanosleep(&pause, nullptr);  // a signal ends the pause early; fine
        }
    }
    childPid = 0;
    munmap(shared, sizeof(SharedProgress));
    progress = nullptr;

    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        if (!stopSignal && (signal == SIGINT || signal == SIGTERM || signal == SIGHUP))
            stopSignal = signal;  // sent to the child alone
        if (stopSignal) return stopped("stopped by " + signalName(stopSignal) + "; " + unchanged);
        std::cerr << "hemiray: the run ended by " << signalName(signal) << "; " << unchanged
                  << std::endl;
        return 1;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        if (stopSignal) return stopped("stopped by " + signalName(stopSignal) + "; " + unchanged);
        std::cerr << "hemiray: the run failed; " << unchanged << std::endl;
        return 1;
    }
    if (!publishPartialFile(work, target)) {
        std::cerr << "hemiray: cannot move the result to " << output << "; " << unchanged
                  << std::endl;
        return 1;
    }
    std::cout << "# Result: " << output << std::endl;
    if (!std::cout) std::cerr << "hemiray: result written to " << output << std::endl;
    return 0;
}

}  // namespace hemiray::cli
