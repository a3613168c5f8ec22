// Geometry, result head, tree, and the parallel block loop with ordered row output.
#include "run/ComputeAndWrite.h"

#include <omp.h>
#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

#include "Hemisphere"
#include "SparseRowVector"
#include "geometry/BspTree.h"
#include "geometry/FaceGeometry.h"
#include "geometry/GlobCentroids.h"
#include "geometry/RayTracer.h"
#include "geometry/TraversalTree.h"
#include "output/RowSink.h"
#include "run/Model.h"
#include "run/RunError.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {

namespace {
RowProgressHook rowProgressHook = nullptr;
}  // namespace

void setRowProgressHook(RowProgressHook hook) {
    rowProgressHook = hook;
}

void writeProgressFile(const std::string& name, int percent) {
    std::ofstream progress(name, std::ios::out | std::ios::trunc);
    progress << percent << "\n." << std::endl;
}

bool samplingFromEnvironment(Sampling& sampling) {
    sampling = Sampling{};
    const char* value = std::getenv("HEMIRAY_SEED");
    if (!value || !*value) return true;
    const char* end = value + std::strlen(value);
    uint64_t key = 0;
    const auto [stop, error] = std::from_chars(value, end, key);
    if (error != std::errc{} || stop != end) {
        reportRunError(
            "HEMIRAY_SEED must be a whole number from 0 to 18446744073709551615, not \"" +
            std::string(value) + "\"");
        return false;
    }
    sampling = Sampling{true, key};
    return true;
}

namespace {

// Prints the 10 % lines that fall on the block that starts at `start`. The test
// compares the block number with k * count / T / 10 in unsigned integer division,
// so short runs skip some of the lines.
void reportProgress(const RunOptions& run, uint64_t start, uint64_t count) {
    const uint64_t slots = static_cast<uint64_t>(run.slotCount);
    for (int k = 1; k <= 9; ++k) {
        if (start / slots + 1 != (k * count / slots) / 10) continue;
        std::cout << "#\t " << k << "0% done..." << std::endl;
        if (!run.progressName.empty()) writeProgressFile(run.progressName, k * 10);
    }
}

bool sinkFailed(const RowSink& sink, RowSink::Status status) {
    if (status == RowSink::Status::Ok) return false;
    reportRunError(
        std::string(status == RowSink::Status::CannotOpen ? "couldn't open" : "couldn't write") +
        " output file: " + sink.name());
    return true;
}

// The faces of all rows in list order form one sequence, traced in windows of at
// most windowRays rays (whole faces; at least one face, at most maxWindowFaces).
// Two windows are held at a time: one traced by every thread while the other is
// added into its rows and written. Threads take a window's faces in units of at
// least unitRays rays, so that no thread waits long for another at its end.
constexpr int64_t windowRays = int64_t{1} << 20;
constexpr int64_t maxWindowFaces = int64_t{1} << 15;
constexpr int64_t unitRays = 384;

struct Window {
    int64_t first = 0;  // position of its first face in the sequence
    int64_t faces = 0;
    UnitDeal deal;                  // which part traces which units
    std::vector<FaceFrame> frames;  // one per face, in sequence order
    std::vector<int32_t> columns;   // per face, one per direction
};

// Where the frames come from: the generator of the team member that a row's slot
// belongs to, or the face's own stream.
class FrameSource {
public:
    FrameSource(const RunOptions& run, int32_t dimension, const FaceSet& faces, int32_t team)
        : run_(run), dimension_(dimension), faces_(faces), members_(static_cast<size_t>(team)) {}

    FaceFrame frame(int32_t row, int32_t face) {
        if (run_.sampling.perFace) {
            FaceStream stream(run_.sampling.key, face);
            return faceFrame(dimension_, faces_, face, stream);
        }
        const size_t member = static_cast<size_t>(row % run_.slotCount) % members_.size();
        return faceFrame(dimension_, faces_, face, members_[member]);
    }
    std::vector<MemberGenerator>& members() { return members_; }

private:
    const RunOptions& run_;
    int32_t dimension_;
    const FaceSet& faces_;
    std::vector<MemberGenerator> members_;
};

}  // namespace

bool computeAndWrite(Model& model, const RunOptions& run, RowSink& sink) {
    return computeAndWrite(model, run, sink, nullptr);
}

bool computeAndWrite(Model& model, const RunOptions& run, RowSink& sink, RayShare* share) {
    const int32_t dimension = model.sizes.dimension;
    const int32_t globCount = model.sizes.globCount;
    const FaceSet& faces = model.participatingFaces;
    GlobTable globs(globCount, model.participatingFaces);
    computeFaceGeometry(model.participatingFaces);
    placeGlobCentroids(globs);
    const Hemisphere hemisphere(dimension == 2 ? 2 : 3, model.parameters.hemisphereResolution);

    std::vector<int32_t> activeGlobs;
    for (int32_t g = 0; g < globs.globCount(); ++g)
        if (globs.globActive[g]) activeGlobs.push_back(g);

    const bool writes = !share || share->part() == 0;
    const ResultHead head{model, activeGlobs, run.headerData, run.headerFlag};
    const RowSink::Status opened = writes ? sink.begin(head) : RowSink::Status::Ok;
    if (share && !share->allOk(opened == RowSink::Status::Ok)) {
        if (writes) (void)sinkFailed(sink, opened);
        return false;
    }
    if (sinkFailed(sink, opened)) return false;

    // A tracer that the options bring replaces the tree and the BVH.
    const std::unique_ptr<NearestHitTracer> external =
        run.tracerFactory ? run.tracerFactory(model) : nullptr;
    const MeshView mesh{&model.nodes, &model.participatingFaces};
    std::optional<TraversalTree> tree;
    std::optional<RayTracer> tracer;
    if (!external) {
        std::cout << "# Create BSP tree..." << std::endl;
        // Rays walk the tree's flat copy; the node tree goes once it is copied.
        tree.emplace(BspNode(dimension, &mesh, true));
        // 3D runs trace through a BVH that returns the flat tree's hits bit for bit.
        tracer.emplace(*tree, model.participatingFaces, traceEngineFromEnvironment());
    }
    // Every ray of the run is traced here: the nearest hit of one straight piece.
    const auto nearestHit = [own = tracer ? &*tracer : nullptr, other = external.get()](
                                const Vec3& O, const Vec3& D, Vec3& hitPoint, int32_t& hitFace) {
        if (own) [[likely]]
            return own->trace(O, D, hitPoint, hitFace);
        return other->trace(O, D, hitPoint, hitFace);
    };

    std::cout << "# Calculate and write view factors..." << std::endl;
    const int32_t count = static_cast<int32_t>(activeGlobs.size());
    const int32_t slots = run.slotCount;
    // Row r owns the faces [rowFaceStart[r], rowFaceStart[r + 1]) of the sequence.
    std::vector<int64_t> rowFaceStart(static_cast<size_t>(count) + 1, 0);
    for (int32_t r = 0; r < count; ++r) {
        const int32_t g = activeGlobs[r];
        rowFaceStart[r + 1] = rowFaceStart[r] + globs.globFaceStart[g + 1] - globs.globFaceStart[g];
    }
    const int64_t totalFaces = rowFaceStart[count];
    const ZoneTable& zones = model.zones;
    const std::vector<int32_t> rayEnds = faceRayEnds(faces);
    const int64_t rays = hemisphere.size_;
    const int32_t parts = share ? share->parts() : 1;
    const int32_t part = share ? share->part() : 0;
    const int64_t windowFaces =
        std::clamp<int64_t>(windowRays / std::max<int64_t>(rays, 1), 1, maxWindowFaces);
    const int64_t unitFaces =
        std::max<int64_t>(1, (unitRays + rays - 1) / std::max<int64_t>(rays, 1));

    // The generators of the team that the result depends on: fresh, or those of
    // the threads that a region of numThreads gets, which go on from run to run.
    const bool continueThreads = run.teamSize <= 0;
    int32_t team = run.teamSize;
    std::vector<uint32_t> threadStates(static_cast<size_t>(std::max(run.numThreads, 1)), 1);
    if (continueThreads) {
#pragma omp parallel num_threads(run.numThreads) default(none) shared(team, threadStates)
        {
            if (omp_get_thread_num() == 0) team = omp_get_num_threads();
            threadStates[static_cast<size_t>(omp_get_thread_num())] = threadRandomState();
        }
    }
    FrameSource frames(run, dimension, faces, team);
    if (continueThreads)
        for (int32_t j = 0; j < team; ++j) frames.members()[j].state = threadStates[j];

    Window windows[2];
    for (Window& w : windows) {
        w.frames.resize(static_cast<size_t>(std::min(windowFaces, totalFaces)));
        w.columns.resize(w.frames.size() * static_cast<size_t>(rays));
    }

    // Adds a traced window into the rows, in sequence order (face by face,
    // direction by direction, as one thread computing the row would), and hands
    // every completed row to the sink with the progress lines of its block.
    SparseRowVector row;
    row.resize(globCount);
    double globArea = 0;
    int32_t rowsDone = 0;
    bool writeFailed = false;
    const auto completeRow = [&] {
        normaliseRow(row, globArea);
        writeFailed = !sink.write(row);
        row.clear();
        globArea = 0;
        ++rowsDone;
        if (!writeFailed && (rowsDone % slots == 0 || rowsDone == count)) {
            reportProgress(run, static_cast<uint64_t>(rowsDone - 1 - (rowsDone - 1) % slots),
                           static_cast<uint64_t>(count));
            if (rowProgressHook) rowProgressHook(rowsDone, count);
        }
    };
    const auto addWindow = [&](const Window& w) {
        for (int64_t i = 0; i < w.faces && !writeFailed; ++i) {
            while (w.first + i >= rowFaceStart[rowsDone + 1] && !writeFailed) completeRow();
            const FaceFrame& f = w.frames[static_cast<size_t>(i)];
            globArea += f.area;
            if (emits(f)) addFaceRays(row, hemisphere, f.area, w.columns.data() + i * rays);
        }
    };

    // The columns of one face's rays, traced two directions at a time (the BVH
    // overlaps the two walks). Without mirror or periodic faces every ray is one
    // straight piece and the face it meets gives its column; the columns are then
    // looked up after all the face's rays, so that the cache misses of a large model
    // overlap instead of stalling every ray. Otherwise each ray goes on from its
    // first piece one piece at a time.
    const bool straightRays = std::find(rayEnds.begin(), rayEnds.end(), rayGoesOn) == rayEnds.end();
    const auto traceFace = [&](const FaceFrame& f, int32_t* columns, RotationCache& rotation) {
        const auto column = [&](const Vec3& D, bool hit, const Vec3& hitPoint, int32_t hitFace) {
            if (straightRays) return hit ? hitFace : noColumn;
            bool first = true;  // the first piece is answered already
            const auto piece = [&](const Vec3& o, const Vec3& d, Vec3& p, int32_t& face) {
                if (!first) return nearestHit(o, d, p, face);
                first = false;
                p = hitPoint;
                face = hitFace;
                return hit;
            };
            return followRay(f.origin, D, faces, zones, piece, rotation, rayEnds.data());
        };
        int k = 0;
        for (; k + 1 < rays; k += 2) {
            const Vec3 O[2] = {f.origin, f.origin};
            const Vec3 D[2] = {rayDirection(f, hemisphere, k), rayDirection(f, hemisphere, k + 1)};
            Vec3 hitPoint[2];
            int32_t hitFace[2] = {-1, -1};
            bool hit[2] = {false, false};
            if (tracer) [[likely]] {
                tracer->tracePair(O, D, hitPoint, hitFace, hit);
            } else {
                for (int r = 0; r < 2; ++r)
                    hit[r] = nearestHit(O[r], D[r], hitPoint[r], hitFace[r]);
            }
            for (int r = 0; r < 2; ++r)
                columns[k + r] = column(D[r], hit[r], hitPoint[r], hitFace[r]);
        }
        for (; k < rays; ++k) {
            const Vec3 D = rayDirection(f, hemisphere, k);
            Vec3 hitPoint;
            int32_t hitFace = -1;
            const bool hit = nearestHit(f.origin, D, hitPoint, hitFace);
            columns[k] = column(D, hit, hitPoint, hitFace);
        }
        if (straightRays)
            for (k = 0; k < rays; ++k)
                if (columns[k] != noColumn) columns[k] = rayEnds[static_cast<size_t>(columns[k])];
    };

    // The next window in sequence order, with its frames. Drawn by one thread, in
    // sequence order, so that each member's generator draws for its faces in the
    // order of the one-process loop; a few draws per face.
    int64_t nextFace = 0;
    int32_t planRow = 0;  // the row of nextFace
    bool stop = false;
    const auto planWindow = [&](Window& w, bool empty) {
        w.first = nextFace;
        w.faces = empty ? 0 : std::min(windowFaces, totalFaces - nextFace);
        for (int64_t i = 0; i < w.faces; ++i, ++nextFace) {
            while (nextFace >= rowFaceStart[planRow + 1]) ++planRow;
            const int32_t glob = activeGlobs[planRow];
            const int32_t face =
                globs.globFaces[globs.globFaceStart[glob] + (nextFace - rowFaceStart[planRow])];
            w.frames[static_cast<size_t>(i)] = frames.frame(planRow, face);
        }
    };

    std::atomic<int64_t> nextUnit[2] = {0, 0};
    std::exception_ptr writeError;
    // The first part's share of the next window (rank 0 under MPI): the share that would have let
    // it finish the last one with the others, given the time its first thread spent adding rays and
    // writing instead of tracing.
    int32_t rootUnits = UnitDeal::fullShare;
    int32_t postedRootUnits = rootUnits, agreedRootUnits = rootUnits;
    bool postedStop = false;
    for (Window& w : windows) w.deal.parts = parts;
    double iterationStart = omp_get_wtime();
    const auto nextRootUnits = [&](double writing) {
        const double now = omp_get_wtime();
        const double busy = writing / std::max(now - iterationStart, 1e-9) / run.numThreads;
        iterationStart = now;
        return static_cast<int32_t>(
            std::lround(UnitDeal::fullShare * std::clamp(1 - busy, 0.0, 1.0)));
    };
    if (totalFaces > 0) {
        planWindow(windows[0], false);
#pragma omp parallel num_threads(run.numThreads) default(none)                                 \
    shared(windows, nextUnit, stop, writeError, writeFailed, share, traceFace, addWindow,      \
           planWindow, nextRootUnits, rootUnits, postedRootUnits, agreedRootUnits, postedStop, \
           totalFaces, unitFaces, rays, parts, part, writes, nextFace)
        {
            RotationCache rotation;
            for (int64_t w = 0;; ++w) {
                Window& tracing = windows[w % 2];
                // Read before the barrier below: once past it, the first thread
                // plans the window after next into this one.
                const bool last = tracing.faces == 0;
                // The thread that called the run collects, adds and writes the
                // previous window and draws the frames of the next one, while the
                // others trace this one. Shared runs send windows without waiting:
                // every part posts the previous window at once, part 0 completes it
                // before adding it, the others only before the barrier, so no part
                // waits for part 0's writing.
                const bool first = omp_get_thread_num() == 0;
                const bool sending = first && share && w > 0;
                if (first) {
                    Window& other = windows[(w + 1) % 2];
                    if (sending)
                        share->post(other.columns.data(), other.faces * rays, unitFaces * rays,
                                    other.deal, rootUnits, writeFailed || writeError);
                    if (sending && writes) share->complete(postedRootUnits, postedStop);
                    const double writeStart = omp_get_wtime();
                    if (w > 0 && writes && !writeFailed && !writeError) {
                        try {
                            addWindow(other);
                        } catch (...) {
                            writeError = std::current_exception();
                        }
                    }
                    if (!share) stop = stop || writeFailed || writeError;
                    planWindow(other, stop || tracing.faces == 0 || nextFace == totalFaces);
                    other.deal.rootUnits = agreedRootUnits;
                    if (writes && parts > 1)
                        rootUnits = nextRootUnits(omp_get_wtime() - writeStart);
                    nextUnit[(w + 1) % 2] = 0;
                }
                const int64_t units = (tracing.faces + unitFaces - 1) / unitFaces;
                const UnitDeal& deal = tracing.deal;
                for (;;) {
                    if (deal.shareOf(part) == 0) break;
                    const int64_t unit =
                        deal.unitOf(part, nextUnit[w % 2].fetch_add(1, std::memory_order_relaxed));
                    if (unit >= units) break;
                    const int64_t end = std::min(tracing.faces, (unit + 1) * unitFaces);
                    for (int64_t i = unit * unitFaces; i < end; ++i) {
                        const FaceFrame& f = tracing.frames[static_cast<size_t>(i)];
                        if (!emits(f)) continue;
                        traceFace(f, tracing.columns.data() + i * rays, rotation);
                    }
                    if (sending && !writes) share->progress();
                }
                // Part 0's wishes of this window take effect in the next one on
                // every part alike.
                if (sending) {
                    if (!writes) share->complete(postedRootUnits, postedStop);
                    agreedRootUnits = postedRootUnits;
                    stop = stop || postedStop;
                }
#pragma omp barrier
                if (last) break;
            }
        }
    }
    if (continueThreads) {
#pragma omp parallel num_threads(run.numThreads) default(none) shared(frames, team)
        if (omp_get_thread_num() < team)
            setThreadRandomState(frames.members()[omp_get_thread_num()].state);
    }
    if (writeError) std::rethrow_exception(writeError);
    if (!writes) return !stop;
    while (!writeFailed && rowsDone < count) completeRow();
    if (writeFailed) return !sinkFailed(sink, RowSink::Status::CannotWrite);

    if (!sink.finish()) return !sinkFailed(sink, RowSink::Status::CannotWrite);
    if (!sink.announcesCompletion()) return true;
    std::cout << "#\t100% done!" << std::endl;
    if (!run.progressName.empty()) writeProgressFile(run.progressName, 100);
    return true;
}

}  // namespace hemiray
