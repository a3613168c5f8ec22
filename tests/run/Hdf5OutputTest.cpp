// Runs with ".h5" names that fail: the input is left as it was. What every
// example's HDF5 result holds, from compressed input, with its header and console
// lines, is the end-to-end suite's (EndToEndTest), the layout Hdf5ResultWriterTest's.
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using testing::exampleText;
using testing::fileCount;
using testing::readFile;
using testing::ScratchDir;
using testing::writeFile;

// Death-test body: runs the library in the child process as an unprivileged user
// (when the tests run as root, for whom permissions do not apply) or under a limit
// on the size of files, and exits with its result.
[[noreturn]] void runRestricted(const std::string& name, bool unprivileged, rlim_t fileSize) {
    if (unprivileged && geteuid() == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) std::exit(3);
        // Changing user makes the process undumpable, which would keep the leak
        // checker of sanitizer builds from inspecting it at exit.
        prctl(PR_SET_DUMPABLE, 1);
    }
    if (fileSize != RLIM_INFINITY) {
        std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit then fails with EFBIG
        const rlimit limit{fileSize, fileSize};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) std::exit(3);
    }
    std::exit(raytracing_lib(0, name.c_str(), nullptr, 0, 1, 1, nullptr, "t", false, false, 0));
}

// The model is readable, its folder is not writable: the result cannot be
// created beside it.
TEST(Hdf5OutputRun, UnwritableFolderFailsWithAnErrorLineAndKeepsTheInput) {
    ScratchDir dir;
    const std::string folder = dir.file("readonly");
    const std::string name = folder + "/m.h5";
    const std::string text = exampleText("polygon", 1, 8);
    std::filesystem::create_directory(folder);
    writeFile(name, text);
    std::filesystem::permissions(name, std::filesystem::perms(0444));
    std::filesystem::permissions(folder, std::filesystem::perms(0555));
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0711));
    EXPECT_EXIT(runRestricted(name, true, RLIM_INFINITY), ::testing::ExitedWithCode(0),
                "^error: couldn't open output file: .*/readonly/m\\.h5\n"
                "error: couldn't calculate view factors!\n$");
    EXPECT_EQ(readFile(name), text);
    EXPECT_EQ(fileCount(folder), 1u);
    std::filesystem::permissions(folder, std::filesystem::perms(0755));
}

// A file-size limit below the size of the result makes HDF5's writes fail part
// of the way through; the run reports it and the model stays as it was.
TEST(Hdf5OutputRun, WriteFailureKeepsTheInput) {
    ScratchDir dir;
    const std::string name = dir.file("m.h5");
    const std::string text = exampleText("room", 2, 4);
    writeFile(name, text);
    EXPECT_EXIT(runRestricted(name, false, 8192), ::testing::ExitedWithCode(0),
                "error: couldn't write output file: .*/m\\.h5\n"
                "error: couldn't calculate view factors!\n$");
    EXPECT_EQ(readFile(name), text);
    EXPECT_EQ(fileCount(dir.path()), 1u);
}

}  // namespace
}  // namespace hemiray
