// The HDF5 reader behind `hemiray check`: a damaged result gives a message naming
// what is wrong, never a crash or a huge allocation; files are told apart by
// content, not by name.
#include <gtest/gtest.h>
#include <hdf5.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "ResultFile.h"
#include "output/Hdf5Handles.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using testing::runLibrary;
using testing::ScratchDir;
using testing::writeFile;

// Reads an integer dataset, changes it and writes it back.
void editInts(hid_t file, const char* path,
              const std::function<void(std::vector<int64_t>&)>& edit) {
    const hid_t dataset = H5Dopen2(file, path, H5P_DEFAULT);
    const hid_t space = H5Dget_space(dataset);
    std::vector<int64_t> values(static_cast<size_t>(H5Sget_simple_extent_npoints(space)));
    H5Dread(dataset, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
    edit(values);
    EXPECT_GE(H5Dwrite(dataset, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()), 0)
        << path;
    H5Sclose(space);
    H5Dclose(dataset);
}

void setIntAttribute(hid_t file, const char* name, int32_t value) {
    const hid_t attribute = H5Aopen(file, name, H5P_DEFAULT);
    ASSERT_GE(H5Awrite(attribute, H5T_NATIVE_INT32, &value), 0) << name;
    H5Aclose(attribute);
}

// Replaces a dataset by one of another type or shape.
void replaceDataset(hid_t file, const char* path, hid_t type, hsize_t length, bool unallocated) {
    ASSERT_GE(H5Ldelete(file, path, H5P_DEFAULT), 0) << path;
    const hsize_t maxLength = H5S_UNLIMITED;
    const hid_t space = H5Screate_simple(1, &length, unallocated ? &maxLength : nullptr);
    const hid_t creation = H5Pcreate(H5P_DATASET_CREATE);
    const hsize_t chunk = 1024;
    if (unallocated) H5Pset_chunk(creation, 1, &chunk);
    const hid_t dataset = H5Dcreate2(file, path, type, space, H5P_DEFAULT, creation, H5P_DEFAULT);
    ASSERT_GE(dataset, 0) << path;
    if (!unallocated) {
        std::vector<int32_t> zeros(length, 0);
        H5Dwrite(dataset, H5T_NATIVE_INT32, H5S_ALL, H5S_ALL, H5P_DEFAULT, zeros.data());
    }
    H5Dclose(dataset);
    H5Pclose(creation);
    H5Sclose(space);
}

// Copies of a good result, each damaged in one place: the reader refuses each with
// a message naming the fault.
TEST(Hdf5ResultFile, DamagedResultsAreRefusedWithTheirFault) {
    ScratchDir dir;
    writeFile(dir.file("good.h5"), testing::exampleText("polygon", 1, 8));
    ASSERT_EQ(runLibrary(dir.file("good.h5")).result, 1);
    cli::ResultFile good;
    std::string error;
    ASSERT_TRUE(cli::readResultFile(dir.file("good.h5"), good, error)) << error;
    ASSERT_TRUE(good.hdf5);
    ASSERT_EQ(good.rows.size(), 8u);
    ASSERT_EQ(good.participatingFaces.faceCount(), 8);

    using Edit = std::function<void(std::vector<int64_t>&)>;
    const auto edit = [](const char* path, Edit change) {
        return [path, change](hid_t f) { editInts(f, path, change); };
    };
    const std::pair<const char*, std::function<void(hid_t)>> damages[] = {
        {"dataset values is missing",
         [](hid_t f) { H5Ldelete(f, "viewFactors/values", H5P_DEFAULT); }},
        {"group parameters is missing", [](hid_t f) { H5Ldelete(f, "parameters", H5P_DEFAULT); }},
        {"attribute globCount is missing", [](hid_t f) { H5Adelete(f, "globCount"); }},
        {"format version 2 is not supported",
         [](hid_t f) { setIntAttribute(f, "formatVersion", 2); }},
        {"dimension 5 is not 1, 2 or 3", [](hid_t f) { setIntAttribute(f, "dimension", 5); }},
        // 8 globs: 0 to 7; 16 nodes; 2 zones.
        {"a row names glob 8 outside the glob count",
         edit("viewFactors/columns", [](auto& v) { v[3] = 8; })},
        {"active glob -1 is outside the glob count",
         edit("viewFactors/activeGlobs", [](auto& v) { v[0] = -1; })},
        {"a face names node 1000000 of 16", edit("faces/nodes", [](auto& v) { v[0] = 1000000; })},
        {"a face names zone 99 of 2", edit("faces/zone", [](auto& v) { v[0] = 99; })},
        {"row offsets do not run from 0 to the number of entries",
         edit("viewFactors/rowStart", [](auto& v) { v[1] = v[2] + 1; })},
        {"face node offsets do not run from 0 to the node list's length",
         edit("faces/nodeStart", [](auto& v) { v.back() -= 1; })},
        {"dataset faceStart has 2 entries, not 3",
         [](hid_t f) { replaceDataset(f, "zones/faceStart", H5T_STD_I32LE, 2, false); }},
        {"dataset values is not floating-point",
         [](hid_t f) { replaceDataset(f, "viewFactors/values", H5T_STD_I32LE, 8, false); }},
        // A type wider than any number: libhdf5 would size its conversion buffers by it.
        {"dataset columns has elements of 64 bytes",
         [](hid_t f) {
             const hid_t wide = H5Tcopy(H5T_STD_I32LE);
             H5Tset_size(wide, 64);
             replaceDataset(f, "viewFactors/columns", wide, 8, false);
             H5Tclose(wide);
         }},
        // 2^40 entries that were never written: nothing is allocated for them.
        {"dataset columns claims more data than the file holds",
         [](hid_t f) {
             replaceDataset(f, "viewFactors/columns", H5T_STD_I32LE, hsize_t{1} << 40, true);
         }},
    };
    int count = 0;
    for (const auto& [message, damage] : damages) {
        const std::string path = dir.file("damaged" + std::to_string(++count) + ".h5");
        std::filesystem::copy_file(dir.file("good.h5"), path);
        {
            const Hdf5ErrorsSilenced quiet;
            const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
            ASSERT_GE(file, 0);
            damage(file);
            H5Fclose(file);
        }
        cli::ResultFile result;
        EXPECT_FALSE(cli::readResultFile(path, result, error)) << message;
        EXPECT_EQ(error, message);
    }
}

TEST(Hdf5ResultFile, ContentNotNameTellsTheFormat) {
    ScratchDir dir;
    // A text result under an ".h5"-looking name that is not one (".H5").
    writeFile(dir.file("text.H5"), testing::exampleText("polygon", 1, 8));
    ASSERT_EQ(runLibrary(dir.file("text.H5")).result, 1);
    std::filesystem::copy_file(dir.file("text.H5"), dir.file("text.h5"));
    cli::ResultFile result;
    std::string error;
    ASSERT_TRUE(cli::readResultFile(dir.file("text.h5"), result, error)) << error;
    EXPECT_FALSE(result.hdf5);
    EXPECT_EQ(result.rows.size(), 8u);

    // An HDF5 file that is not a result.
    {
        const Hdf5ErrorsSilenced quiet;
        H5Fclose(H5Fcreate(dir.file("other").c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT));
    }
    cli::ResultFile other;
    EXPECT_FALSE(cli::readResultFile(dir.file("other"), other, error));
    EXPECT_EQ(error, "attribute formatVersion is missing");
}

}  // namespace
}  // namespace hemiray
