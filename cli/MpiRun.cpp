// hemiray-mpi: `hemiray run` shared by the ranks of an MPI job. Every rank reads
// the model itself and traces its share of the rays with its threads; rank 0
// collects the rays, adds them into the rows in the one-process order and writes
// the result through the same sinks as one process. The result is that of one
// process whose thread count is the sum of the ranks' threads (or --slots), byte
// for byte, and the console lines are that run's, printed once by rank 0.
#include <CLI/CLI.hpp>

#include <mpi.h>
#include <omp.h>

#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "MpiLaunch.h"
#include "RunNames.h"
#include "input/SectionReader.h"
#include "output/ReplacementFile.h"
#include "output/RowSink.h"
#include "run/ComputeAndWrite.h"
#include "run/InputSource.h"
#include "run/Model.h"
#include "run/RunError.h"

namespace fs = std::filesystem;
using namespace hemiray;

namespace {

// Rank 0's partial result, known to every rank: when rank 0 itself is killed,
// the ranks that are told to end remove it (on a file system they share).
char writerPartial[4096] = {};

class MpiRayShare final : public RayShare {
public:
    MpiRayShare(int rank, int size) : rank_(rank), size_(size), counts_(size), offsets_(size) {}

    int32_t parts() const override { return size_; }
    int32_t part() const override { return rank_; }

    // Called once the result is open on rank 0.
    bool allOk(bool ok) override {
        int value = ok ? 1 : 0;
        MPI_Allreduce(MPI_IN_PLACE, &value, 1, MPI_INT, MPI_LAND, MPI_COMM_WORLD);
        char partial[sizeof writerPartial] = {};
        const std::vector<std::string> pending = pendingPartialFiles();
        if (rank_ == 0 && pending.size() == 1 && pending[0].size() < sizeof partial)
            pending[0].copy(partial, pending[0].size());
        MPI_Bcast(partial, sizeof partial, MPI_CHAR, 0, MPI_COMM_WORLD);
        if (rank_ > 0) std::copy_n(partial, sizeof partial, writerPartial);
        return value != 0;
    }

    // Rank 0's own units are already in place; every other rank sends its units
    // back to back, in the order of the deal.
    void post(int32_t* columns, int64_t rays, int64_t unitRays, const UnitDeal& deal,
              int32_t rootUnits, bool stop) override {
        wish_[0] = stop ? 1 : 0;
        wish_[1] = rootUnits;
        MPI_Ibcast(wish_, 2, MPI_INT, 0, MPI_COMM_WORLD, &requests_[0]);
        columns_ = columns;
        rays_ = rays;
        unitRays_ = unitRays;
        deal_ = deal;
        int64_t total = 0;
        for (int p = 0; p < size_; ++p) {
            int64_t count = 0;
            forEachUnit(p, [&](int64_t u) { count += unitLength(u); });
            counts_[p] = static_cast<int>(count);
            offsets_[p] = static_cast<int>(total);
            total += count;
        }
        buffer_.resize(static_cast<size_t>(rank_ == 0 ? total : counts_[rank_]));
        int32_t* out = buffer_.data();
        forEachUnit(rank_, [&](int64_t u) {
            out = std::copy_n(columns + u * unitRays, unitLength(u), out);
        });
        MPI_Igatherv(rank_ == 0 ? MPI_IN_PLACE : buffer_.data(), counts_[rank_], MPI_INT32_T,
                     buffer_.data(), counts_.data(), offsets_.data(), MPI_INT32_T, 0,
                     MPI_COMM_WORLD, &requests_[1]);
    }

    void progress() override {
        int done = 0;
        MPI_Testall(2, requests_, &done, MPI_STATUSES_IGNORE);
    }

    // Waits politely: a rank whose cores are shared (several ranks on a node, or
    // other jobs) should not spin them away while its peers work. The pause grows
    // from 50 us to 0.5 ms, so that a wait of a whole window (rank 0 adding and
    // writing rows) costs a few hundred wake-ups, not thousands of system calls.
    void complete(int32_t& rootUnits, bool& stop) override {
        for (long pauseNs = 50'000;; pauseNs = std::min(2 * pauseNs, 500'000L)) {
            int done = 0;
            MPI_Testall(2, requests_, &done, MPI_STATUSES_IGNORE);
            if (done) break;
            const timespec pause{0, pauseNs};
            nanosleep(&pause, nullptr);
        }
        if (rank_ == 0) {
            const int32_t* in = buffer_.data();
            for (int p = 1; p < size_; ++p)
                forEachUnit(p, [&](int64_t u) {
                    std::copy_n(in, unitLength(u), columns_ + u * unitRays_);
                    in += unitLength(u);
                });
        }
        rootUnits = wish_[1];
        stop = wish_[0] != 0;
    }

private:
    int64_t unitCount() const { return unitRays_ > 0 ? (rays_ + unitRays_ - 1) / unitRays_ : 0; }
    int64_t unitLength(int64_t u) const {
        return std::min(rays_, (u + 1) * unitRays_) - u * unitRays_;
    }
    template <class Use>
    void forEachUnit(int part, Use&& use) const {
        const int64_t units = unitCount();
        for (int64_t i = 0; part > 0 && units > 0; ++i) {
            const int64_t u = deal_.unitOf(part, i);
            if (u >= units) break;
            use(u);
        }
    }

    int rank_, size_;
    std::vector<int> counts_, offsets_;
    std::vector<int32_t> buffer_;
    int wish_[2] = {0, 0};
    MPI_Request requests_[2] = {MPI_REQUEST_NULL, MPI_REQUEST_NULL};
    int32_t* columns_ = nullptr;
    int64_t rays_ = 0, unitRays_ = 0;
    UnitDeal deal_;
};

// Told to end (the job is being torn down because another rank died): rank 0's
// partial result goes, the user's files stay as they were.
void onTermination(int signal) {
    removePartialFilesNow();
    if (writerPartial[0] != '\0') unlink(writerPartial);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

struct Args {
    std::string input, output, header = "hemiray", sampling;
    int threads = 0, slots = 0;
    uint64_t key = 0;
    bool binary = false, force = false;
};

class Job {
public:
    Job(int rank, int size) : rank_(rank), size_(size) {
        if (rank_ == 0) return;
        // Every rank meets the same model and the same failures; rank 0 speaks.
        console_ = std::cout.rdbuf(silent_.rdbuf());
        errors_ = std::cerr.rdbuf(captured_.rdbuf());
    }
    ~Job() {
        if (console_) std::cout.rdbuf(console_);
        if (errors_) std::cerr.rdbuf(errors_);
    }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    int rank() const { return rank_; }
    int size() const { return size_; }

    // True on every rank when ok on every rank. Otherwise rank 0 reports the
    // first failing rank's lines unless it failed itself (and said so).
    bool agree(bool ok) {
        int first = ok ? size_ : rank_;
        MPI_Allreduce(MPI_IN_PLACE, &first, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
        if (first == size_) return true;
        if (first != 0 && rank_ == first) {
            const std::string lines = captured_.str();
            MPI_Send(lines.data(), static_cast<int>(lines.size()), MPI_CHAR, 0, 0, MPI_COMM_WORLD);
        } else if (first != 0 && rank_ == 0) {
            MPI_Status status;
            int length = 0;
            MPI_Probe(first, 0, MPI_COMM_WORLD, &status);
            MPI_Get_count(&status, MPI_CHAR, &length);
            std::string lines(static_cast<size_t>(length), '\0');
            MPI_Recv(lines.data(), length, MPI_CHAR, first, 0, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
            std::cerr << "error: rank " << first << " failed: " << (lines.empty() ? "\n" : lines)
                      << std::flush;
        }
        return false;
    }

    int fail(const std::string& message) {
        if (rank_ == 0) std::cerr << "hemiray: " << message << std::endl;
        return 1;
    }

private:
    int rank_, size_;
    std::ostringstream silent_, captured_;
    std::streambuf* console_ = nullptr;
    std::streambuf* errors_ = nullptr;
};

// The checks of `hemiray run`, made once by rank 0.
std::string refusal(const Args& args, const std::string& output) {
    if (!fs::exists(args.input)) return "no such file: " + args.input;
    if (namesCompress(output) && !namesGzip(output))
        return "output name " + output + " contains \".Z\", which would be read as compress data";
    std::error_code ec;
    const bool inPlace = fs::exists(output) && fs::equivalent(args.input, output, ec);
    if (!inPlace && fs::exists(output) && !args.force)
        return output + " exists; use --force to replace it";
    const fs::path folder = fs::absolute(output).parent_path();
    if (!fs::is_directory(folder)) return "no such folder: " + folder.string();
    return {};
}

// Reads the model as the entry point does, with bad mesh text reported instead of
// ending the process, so that every rank can agree on the failure.
std::unique_ptr<Model> readModel(const std::string& name) {
    std::unique_ptr<std::istream> input = openInputSource(name);
    if (input->fail()) {
        reportRunError("couldn't open input file: " + name);
        return nullptr;
    }
    SizeSection sizes;
    if (!readSizeSection(*input, sizes)) {
        reportRunError("reading size section!");
        return nullptr;
    }
    try {
        const ScopedInputErrorsThrow throwing;
        std::unique_ptr<Model> model = readTextModel(*input, sizes);
        return model && checkModel(*model) ? std::move(model) : nullptr;
    } catch (const InputError& e) {
        std::cerr << "file i/o error: " << e.what() << std::endl;
        return nullptr;
    }
}

int run(Job& job, const Args& args) {
    const std::clock_t cpuStart = std::clock();
    const double wallStart = static_cast<double>(std::time(nullptr));
    const std::string output = args.output.empty() ? defaultOutputName(args.input) : args.output;
    const std::string refused = job.rank() == 0 ? refusal(args, output) : std::string();
    if (!job.agree(refused.empty())) return job.fail(refused);

    RunOptions options;
    // By default a rank uses the cores the launcher bound it to, or, unbound, its
    // share of the node's cores.
    MPI_Comm node;
    MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, 0, MPI_INFO_NULL, &node);
    int ranksOnNode = 1;
    MPI_Comm_size(node, &ranksOnNode);
    MPI_Comm_free(&node);
    const int usable = omp_get_num_procs();
    const bool bound = usable < sysconf(_SC_NPROCESSORS_ONLN);
    options.numThreads =
        args.threads > 0 ? args.threads : std::max(1, bound ? usable : usable / ranksOnNode);
    int slots = options.numThreads;
    MPI_Allreduce(MPI_IN_PLACE, &slots, 1, MPI_INT, MPI_SUM, MPI_COMM_WORLD);
    options.slotCount = options.teamSize = args.slots > 0 ? args.slots : slots;
    options.headerData = args.header.c_str();
    bool ok = true;
    if (args.sampling.empty())
        ok = samplingFromEnvironment(options.sampling);
    else
        options.sampling = Sampling{args.sampling == "per-face", args.key};

    // The lines of the one-process run with as many threads as the job's slots.
    if (options.slotCount > 1)
        std::cout << "# Using OpenMP with " << options.slotCount << " process"
                  << "es"
                  << "..." << std::endl;
    std::unique_ptr<Model> model;
    if (ok) {
        std::cout << "# Read parameter section..." << std::endl;
        model = readModel(args.input);
    }
    // Every rank reads the file itself: the model is never sent, and no rank
    // waits for another's parsing.
    ok = job.agree(model != nullptr);
    const std::unique_ptr<RowSink> sink = openFileSink(output, args.binary);
    MpiRayShare share(job.rank(), job.size());
    ok = ok && computeAndWrite(*model, options, *sink, &share);
    // Rank 0 has published or removed its result once every rank is past here.
    ok = job.agree(ok);
    writerPartial[0] = '\0';
    if (!ok) {
        if (job.rank() == 0) reportRunError("couldn't calculate view factors!");
        return 1;
    }

    double cpuSeconds = static_cast<double>(std::clock()) / CLOCKS_PER_SEC -
                        static_cast<double>(cpuStart) / CLOCKS_PER_SEC;
    MPI_Reduce(job.rank() == 0 ? MPI_IN_PLACE : &cpuSeconds, &cpuSeconds, 1, MPI_DOUBLE, MPI_SUM, 0,
               MPI_COMM_WORLD);
    std::cout << "# CPU  time: " << cpuSeconds << " (s)" << std::endl;
    std::cout << "# Wall time: " << static_cast<double>(std::time(nullptr)) - wallStart << " (s)"
              << std::endl;
    std::cout << "# Result: " << output << std::endl;
    return 0;
}

int parseAndRun(Job& job, int argc, char** argv) {
    CLI::App app{"hemiray-mpi: hemiray run shared by the ranks of an MPI job"};
    app.require_subcommand(1);
    Args args;
    auto* cmd = app.add_subcommand("run", "compute the view factors of a model file");
    cmd->add_option("input", args.input, "model file (plain, .gz or .Z)")->required();
    cmd->add_option("-o,--output", args.output, "result file (as hemiray run)");
    cmd->add_option(
        "--threads", args.threads,
        "threads of each rank (default: its bound cores, or the node's cores over its ranks)");
    cmd->add_option(
        "--slots", args.slots,
        "thread count of the one-process run to reproduce (default: all ranks' threads)");
    cmd->add_flag("--binary", args.binary, "write binary rows (section 1308)");
    cmd->add_option("--header", args.header, "text of the result file's first line");
    cmd->add_flag("--force", args.force, "replace an existing result file");
    cmd->add_option("--sampling", args.sampling, "3D frames: team (default) or per-face")
        ->check(CLI::IsMember({"team", "per-face"}));
    auto* key = cmd->add_option("--seed", args.key, "key of per-face sampling (default 0)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return job.rank() == 0 ? app.exit(e) : 0;
    } catch (const CLI::ParseError& e) {
        return job.fail(e.what());
    }
    if (cmd->count("--threads") > 0 && args.threads < 1)
        return job.fail("--threads must be at least 1");
    if (cmd->count("--slots") > 0 && args.slots < 1) return job.fail("--slots must be at least 1");
    if (key->count() > 0 && args.sampling != "per-face")
        return job.fail("--seed needs --sampling per-face");
    return run(job, args);
}

}  // namespace

int main(int argc, char** argv) {
    // Before MPI starts, which would fail in every task, or run each alone.
    if (const auto status = refuseTasksWithoutMpi()) return *status;
    int provided = 0;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_FUNNELED, &provided);
    int rank = 0, size = 1;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) std::signal(signal, onTermination);
    int status = 1;
    {
        Job job(rank, size);
        try {
            status = parseAndRun(job, argc, argv);
        } catch (const std::exception& e) {
            std::cerr << "error: " << e.what() << std::endl;
            MPI_Abort(MPI_COMM_WORLD, 1);
        }
    }
    MPI_Finalize();
    return status;
}
