// The process-wide HDF5 consumer: one result at a time, the target replaced only
// by a committed result, nothing left behind by a result that is dropped or cut
// short by exit, and HDF5 kept quiet meanwhile. Whole ".h5" runs, their failures
// included, are in Hdf5OutputTest; symbolic links, resolved by the replacement file
// that both result sinks use, in EntryPointTest (OutputSink).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "output/Hdf5Consumer.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using testing::fileCount;
using testing::readFile;
using testing::ScratchDir;
using testing::writeFile;

bool isHdf5(const std::string& path) {
    const Hdf5ErrorsSilenced quiet;
    return H5Fis_hdf5(path.c_str()) > 0;
}

TEST(Hdf5Consumer, TargetIsReplacedOnlyByACommittedResult) {
    ScratchDir dir;
    const std::string target = dir.file("r.h5");
    writeFile(target, "user model");
    Hdf5Consumer& consumer = *Hdf5Consumer::instance();
    {
        auto dropped = consumer.startResult(target);
        ASSERT_NE(dropped, nullptr);
        dropped->writer().beginRows({}, 0);
        EXPECT_EQ(fileCount(dir.path()), 1u);  // the target: the partial file has no name yet
    }
    EXPECT_EQ(readFile(target), "user model");
    EXPECT_EQ(fileCount(dir.path()), 1u);
    {
        // Rows announced but never delivered: the commit fails.
        auto incomplete = consumer.startResult(target);
        ASSERT_NE(incomplete, nullptr);
        incomplete->writer().beginRows({0}, 1);
        EXPECT_FALSE(incomplete->commit());
    }
    EXPECT_EQ(readFile(target), "user model");
    EXPECT_EQ(fileCount(dir.path()), 1u);
    {
        auto kept = consumer.startResult(target);
        ASSERT_NE(kept, nullptr);
        kept->writer().beginRows({}, 0);
        EXPECT_TRUE(kept->commit());
    }
    EXPECT_TRUE(isHdf5(target));
    EXPECT_EQ(fileCount(dir.path()), 1u);
}

TEST(Hdf5Consumer, ServesOneResultAtATime) {
    ScratchDir dir;
    Hdf5Consumer& consumer = *Hdf5Consumer::instance();
    auto first = consumer.startResult(dir.file("a.h5"));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(consumer.startResult(dir.file("b.h5")), nullptr);
    first.reset();
    EXPECT_NE(consumer.startResult(dir.file("b.h5")), nullptr);
}

// exit() in the middle of a result never returns to drop it; the consumer is
// destroyed on the way out and removes the partial file.
TEST(Hdf5Consumer, ExitDuringAResultLeavesOnlyTheTarget) {
    ScratchDir dir;
    const std::string target = dir.file("r.h5");
    writeFile(target, "user model");
    EXPECT_EXIT(
        {
            auto delivery = Hdf5Consumer::instance()->startResult(target);
            if (!delivery) std::exit(3);
            delivery->writer().beginRows({}, 0);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(readFile(target), "user model");
    EXPECT_EQ(fileCount(dir.path()), 1u);
}

int reportedErrors = 0;
herr_t countError(hid_t, void*) {
    ++reportedErrors;
    return 0;
}

TEST(Hdf5Consumer, Hdf5IsQuietDuringADeliveryAndRestoredAfter) {
    ScratchDir dir;
    const std::string missing = dir.file("missing.h5");
    H5E_auto2_t hostFunction = nullptr;
    void* hostData = nullptr;
    H5Eget_auto2(H5E_DEFAULT, &hostFunction, &hostData);
    H5Eset_auto2(H5E_DEFAULT, countError, nullptr);
    reportedErrors = 0;
    {
        auto delivery = Hdf5Consumer::instance()->startResult(dir.file("r.h5"));
        ASSERT_NE(delivery, nullptr);
        EXPECT_LT(H5Fopen(missing.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), 0);
        EXPECT_EQ(reportedErrors, 0);
    }
    EXPECT_LT(H5Fopen(missing.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), 0);
    EXPECT_EQ(reportedErrors, 1);  // the previous handler is back
    H5Eset_auto2(H5E_DEFAULT, hostFunction, hostData);
}

}  // namespace
}  // namespace hemiray
