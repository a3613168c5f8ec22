// The compute-and-write phase of a run: geometry, direction set, result head,
// tree, and the parallel loop that computes the rows block by block and hands them
// to the run's row sink in active-glob order, with progress lines.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "SmallVector"

namespace hemiray {

struct Model;
class RowSink;

// How 3D faces draw the random turn of their hemicube. By default each face draws
// from the generator of the team member that its slot belongs to, so rows depend
// on the slot count and the team size. Per face, the turn of face f comes from a
// stream keyed by (key, f) alone, and rows depend on nothing of the schedule.
struct Sampling {
    bool perFace = false;
    uint64_t key = 0;
};

// The sampling a host asks for through the environment: per face, keyed by the
// value of HEMIRAY_SEED, when that variable is set and not empty. False after an
// "error: " line when its value is not a whole number that fits 64 bits.
[[nodiscard]] bool samplingFromEnvironment(Sampling& sampling);

// The nearest hit of one straight piece of a ray: the face where the ray from O
// along D first meets a participating face and the point where it does; false
// when it meets none. A run traces with its own (the BSP tree, and in 3D runs the
// BVH) unless its options bring another, as a comparison with another ray tracer
// does (bench/EmbreeRun.cpp).
class NearestHitTracer {
public:
    virtual ~NearestHitTracer() = default;
    [[nodiscard]] virtual bool trace(const Vec3& O, const Vec3& D, Vec3& hitPoint,
                                     int32_t& hitFace) const = 0;
};

// Builds a tracer over the participating faces of a model whose face geometry is
// computed.
using NearestHitTracerFactory = std::function<std::unique_ptr<NearestHitTracer>(const Model&)>;

struct RunOptions {
    int32_t slotCount = 1;   // rows per block: frames are drawn by slot
    int32_t numThreads = 1;  // threads that trace the rays
    // Members of the team whose generators draw the frames (slot i of every block
    // draws from member i modulo the team). 0: the team the runtime grants to
    // numThreads threads, whose generators go on from where those threads left
    // them; otherwise a team of this size whose generators all start at 1, as in a
    // fresh process.
    int32_t teamSize = 0;
    std::string progressName;          // empty: no progress file
    const char* headerData = nullptr;  // text of the result's first line
    bool headerFlag = false;
    Sampling sampling;
    NearestHitTracerFactory tracerFactory;  // empty: the run's own tracer
};

// A run shared by several processes (the ranks of an MPI job): each part traces its
// share of every window's rays; part 0 collects them, adds them into the rows in
// the one-process order and alone writes to its sink. Every part makes the same
// calls in the same order.
// Which part traces which units of a window: the units are dealt in rounds, part
// 0 taking rootUnits of each round and every other part fullShare. Part 0 also
// adds the rays into the rows and writes them, so it takes fewer units when that
// work is heavy; the deal never changes a result, only who traces.
struct UnitDeal {
    static constexpr int32_t fullShare = 32;
    int32_t parts = 1;
    int32_t rootUnits = fullShare;

    int64_t roundSize() const { return rootUnits + int64_t{fullShare} * (parts - 1); }
    int64_t shareOf(int32_t part) const { return part == 0 ? rootUnits : fullShare; }
    // The unit of a part's i-th own unit (ascending in i).
    int64_t unitOf(int32_t part, int64_t i) const {
        const int64_t share = shareOf(part);
        const int64_t first = part == 0 ? 0 : rootUnits + int64_t{fullShare} * (part - 1);
        return i / share * roundSize() + first + i % share;
    }
};

// A run shared by several processes (the ranks of an MPI job): each part traces its
// share of every window's rays; part 0 collects them, adds them into the rows in
// the one-process order and alone writes to its sink. Every part makes the same
// calls in the same order.
class RayShare {
public:
    virtual ~RayShare() = default;
    virtual int32_t parts() const = 0;
    virtual int32_t part() const = 0;
    // True on every part when `ok` is true on every part.
    [[nodiscard]] virtual bool allOk(bool ok) = 0;
    // After a window is traced, starts its transfer: columns holds `rays` ray
    // columns in window order, in units of unitRays rays (the last may be
    // shorter), dealt by `deal`; part 0 will receive the units of the others in
    // place. `stop` and `rootUnits` are part 0's wish to end the run and its share
    // of a later window (ignored on other parts).
    virtual void post(int32_t* columns, int64_t rays, int64_t unitRays, const UnitDeal& deal,
                      int32_t rootUnits, bool stop) = 0;
    // Lets a posted transfer move on; cheap, called between units of work.
    virtual void progress() = 0;
    // Completes the posted transfer (part 0: its columns are then whole) and
    // gives part 0's wishes, the same on every part.
    virtual void complete(int32_t& rootUnits, bool& stop) = 0;
};

// Computes every active glob's row of model into sink. Fills the participating
// faces' geometry. False after an "error: " line (the sink could not be opened or
// written); a file sink then leaves an earlier file of its name as it was.
bool computeAndWrite(Model& model, const RunOptions& options, RowSink& sink);
// The same as one part of a shared run; only part 0 touches the sink and prints
// progress lines.
bool computeAndWrite(Model& model, const RunOptions& options, RowSink& sink, RayShare* share);

// Called on the writing thread after every block of rows with the rows written so
// far and the rows in all, for front ends that show progress. None by default;
// the call is once per block, outside the parallel regions.
using RowProgressHook = void (*)(int64_t done, int64_t total);
void setRowProgressHook(RowProgressHook hook);

// Rewrites the progress file with "<percent>\n." and an end of line.
void writeProgressFile(const std::string& name, int percent);

}  // namespace hemiray
