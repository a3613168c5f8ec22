// Guard for the schedule of 3D runs: the rows of a run depend on its slot count
// and its team size (which generator draws each face's frame, and in which order),
// and on nothing else. The checksums below were recorded from the loop that gave
// slot i of every block to thread i modulo the team, before the work was split
// into rays that any thread may trace; they pin those bits for several slot
// counts and team sizes, including models of few globs and of globs whose face
// counts differ widely. A run with per-face sampling must give the same rows for
// every slot count and team.
#include <gtest/gtest.h>

#include <omp.h>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>

#include "models/ExampleModels.h"
#include "output/RowSink.h"
#include "run/ComputeAndWrite.h"
#include "run/Model.h"
#include "viewfactor/ViewFactorRow.h"

namespace hemiray {
namespace {

// Globs of the example: one per face as built, one per `faces / globs` run of
// faces, or sizes growing as 1, 2, 4, ... faces (the last glob takes the rest).
enum class Globs { PerFace, Two, Growing };

std::string modelText(const char* name, int n, Globs globs) {
    models::Model model;
    EXPECT_TRUE(models::makeExample(name, n, 6, model));
    int32_t face = 0, glob = 0, left = 1;
    for (auto& zone : model.zones)
        for (int32_t& g : zone.globs) {
            if (g < 0) continue;
            if (globs == Globs::Two) g = face++ % 2;
            if (globs == Globs::Growing) {
                g = glob;
                if (--left == 0 && glob < 5) left = 1 << ++glob;
            }
        }
    std::ostringstream text;
    models::writeModelText(text, model);
    return text.str();
}

struct Schedule {
    int32_t slots;
    int32_t threads;
};

// Every row's columns and value bits, in list order, as 64-bit FNV-1a.
std::string rowsDigest(const std::string& text, Schedule schedule, const Sampling& sampling) {
    std::istringstream in(text);
    SizeSection sizes;
    EXPECT_TRUE(readSizeSection(in, sizes));
    std::ostringstream quiet;
    auto* console = std::cout.rdbuf(quiet.rdbuf());
    const std::unique_ptr<Model> model = readTextModel(in, sizes);
    // Pool threads keep their generators from run to run: start them all at 1.
#pragma omp parallel num_threads(8)
    setThreadRandomState(1);
    RunOptions options;
    options.slotCount = schedule.slots;
    options.numThreads = schedule.threads;
    options.sampling = sampling;
    CsrRowSink rows;
    const bool ok = model && computeAndWrite(*model, options, rows);
    std::cout.rdbuf(console);
    EXPECT_TRUE(ok);
    uint64_t hash = 0xcbf29ce484222325ull;
    auto add = [&](uint64_t v) {
        for (int b = 0; b < 64; b += 8) hash = (hash ^ ((v >> b) & 0xff)) * 0x100000001b3ull;
    };
    for (size_t r = 0; r + 1 < rows.rowStart.size(); ++r) {
        add(static_cast<uint64_t>(rows.rowStart[r + 1] - rows.rowStart[r]));
        for (int64_t k = rows.rowStart[r]; k < rows.rowStart[r + 1]; ++k) {
            uint64_t bits = 0;
            std::memcpy(&bits, &rows.values[static_cast<size_t>(k)], sizeof bits);
            add(static_cast<uint64_t>(rows.columns[static_cast<size_t>(k)]));
            add(bits);
        }
    }
    std::ostringstream s;
    s << std::hex << std::setw(16) << std::setfill('0') << hash;
    return s.str();
}

const Schedule schedules[] = {{2, 1}, {2, 2}, {3, 2}, {4, 4}, {5, 2}, {8, 3}};

struct ScheduleCase {
    const char* model;
    int n;
    Globs globs;
    const char* digests[std::size(schedules)];  // one per schedule, recorded
    const char* perFace;                        // per-face sampling, key 7
};

const ScheduleCase scheduleCases[] = {
    {"room",
     3,
     Globs::PerFace,
     {"3070012d378ab316", "64e0c6e9e073c6e3", "56a4ae58bc03a460", "4e50e221b84b5109",
      "0488a607df449e34", "a666bcc14bcc161d"},
     "9c56cbe34b8d5c45"},
    {"room-mirror",
     3,
     Globs::PerFace,
     {"4651ff5af52447c8", "1aeda3143277fa69", "2f719a4349171b24", "7e2c277d300aba33",
      "5bd955b614c8ef02", "6c9b940284223f0b"},
     "987509f4738e6513"},
    {"plates-periodic",
     4,
     Globs::PerFace,
     {"837938431459bd01", "181c35aa928a4cdc", "bef1662e2080e275", "06b01168690bbf19",
      "e069e2d0d932746f", "2ad92f0d59f39a06"},
     "a6e0c42df1f22a56"},
    {"sphere",
     4,
     Globs::Two,
     {"fb1d374bbd287105", "74a93f5bda0ecbaa", "74a93f5bda0ecbaa", "74a93f5bda0ecbaa",
      "74a93f5bda0ecbaa", "74a93f5bda0ecbaa"},
     "10af5caa048fdce6"},
    {"room",
     3,
     Globs::Growing,
     {"38f33885b86c463d", "4abbe2fb350f94e4", "c7efd5c438e89600", "da4d1808b7bcb219",
      "bdf887ed827f2ff0", "557ef42755585342"},
     "c246b3b606c60b00"},
};

class ScheduleGuard : public ::testing::TestWithParam<ScheduleCase> {};

TEST_P(ScheduleGuard, RowsDependOnSlotsAndTeamOnly) {
    const ScheduleCase& c = GetParam();
    const std::string text = modelText(c.model, c.n, c.globs);
    for (size_t s = 0; s < std::size(schedules); ++s)
        EXPECT_EQ(rowsDigest(text, schedules[s], Sampling{}), c.digests[s] ? c.digests[s] : "")
            << c.model << " slots " << schedules[s].slots << " threads " << schedules[s].threads;
}

TEST_P(ScheduleGuard, PerFaceSamplingIgnoresTheSchedule) {
    const ScheduleCase& c = GetParam();
    const std::string text = modelText(c.model, c.n, c.globs);
    const Sampling perFace{true, 7};
    const std::string single = rowsDigest(text, {1, 1}, perFace);
    EXPECT_EQ(single, c.perFace);
    for (const Schedule& schedule : schedules)
        EXPECT_EQ(rowsDigest(text, schedule, perFace), single)
            << c.model << " slots " << schedule.slots << " threads " << schedule.threads;
    EXPECT_NE(rowsDigest(text, {1, 1}, Sampling{true, 8}), single) << "the key is ignored";
}

INSTANTIATE_TEST_SUITE_P(Models, ScheduleGuard, ::testing::ValuesIn(scheduleCases),
                         [](const auto& param) {
                             std::string name = param.param.model;
                             for (char& ch : name)
                                 if (ch == '-') ch = '_';
                             return name + "_" + std::to_string(param.index);
                         });

}  // namespace
}  // namespace hemiray
