// Runs with ".h5" names: compressed input, the header, the console lines of the
// mode, and failures that leave the input. What every example's HDF5 result holds
// is the end-to-end suite's (EndToEndTest), the layout Hdf5ResultWriterTest's.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/Hdf5Read.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using testing::exampleText;
using testing::fileCount;
using testing::readFile;
using testing::runLibrary;
using testing::ScratchDir;
using testing::writeFile;

TEST(Hdf5OutputRun, CompressedInputGivesAnHdf5ResultAndNoClosingLine) {
    ScratchDir dir;
    // ".h5" anywhere in the name selects the mode; ".gz" the decompressor.
    const std::string name = dir.file("m.h5.gz");
    writeFile(dir.file("src"), exampleText("polygon", 1, 8));
    ASSERT_EQ(std::system(("gzip -c " + dir.file("src") + " > " + name).c_str()), 0);
    testing::RunOptions options;
    options.header = "a header";
    options.headerFlag = true;
    const auto r = runLibrary(name, options);
    ASSERT_EQ(r.result, 1) << r.err;
    EXPECT_EQ(r.err, "");
    // The timing lines close the console (the missing "100% done" is EndToEndTest's).
    EXPECT_NE(r.out.find("#\t 90% done...\n# CPU  time: "), std::string::npos);
    EXPECT_NE(r.out.find(" (s)\n# Wall time: "), std::string::npos);
    EXPECT_EQ(testing::h5values(name, "-a /headerFlag"), std::vector<double>{1});
    EXPECT_NE(testing::h5dump(name, "-a /headerText").find("DATA {\n   (0): \"a header\"\n"),
              std::string::npos);
    EXPECT_EQ(testing::h5values(name, "-d /viewFactors/rowStart").size(), 9u);  // 8 globs
    EXPECT_EQ(fileCount(dir.path()), 2u);
}

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
