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
#include "models/ExampleModels.h"
#include "output/Hdf5Handles.h"
#include "support/RunHelpers.h"

namespace hemiray {
namespace {

using testing::runLibrary;
using testing::ScratchDir;
using testing::writeFile;

std::string polygonText() {
    models::Model model;
    EXPECT_TRUE(models::makeExample("polygon", 1, 8, model));
    std::ostringstream text;
    models::writeModelText(text, model);
    return text.str();
}

std::vector<int64_t> readInts(hid_t file, const char* path) {
    const hid_t dataset = H5Dopen2(file, path, H5P_DEFAULT);
    const hid_t space = H5Dget_space(dataset);
    std::vector<int64_t> values(static_cast<size_t>(H5Sget_simple_extent_npoints(space)));
    H5Dread(dataset, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
    H5Sclose(space);
    H5Dclose(dataset);
    return values;
}

void writeInts(hid_t file, const char* path, const std::vector<int64_t>& values) {
    const hid_t dataset = H5Dopen2(file, path, H5P_DEFAULT);
    ASSERT_GE(H5Dwrite(dataset, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()), 0)
        << path;
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

class DamagedHdf5Result : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(dir_.file("good.h5"), polygonText());
        const auto r = runLibrary(dir_.file("good.h5"));
        ASSERT_EQ(r.result, 1) << r.err;
    }

    // The reader's message for a copy of the good result changed by `damage`.
    std::string readDamaged(const std::function<void(hid_t)>& damage) {
        const std::string path = dir_.file("damaged" + std::to_string(++count_) + ".h5");
        std::filesystem::copy_file(dir_.file("good.h5"), path);
        {
            const Hdf5ErrorsSilenced quiet;
            const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
            EXPECT_GE(file, 0);
            damage(file);
            H5Fclose(file);
        }
        cli::ResultFile result;
        std::string error;
        EXPECT_FALSE(cli::readResultFile(path, result, error));
        return error;
    }

    ScratchDir dir_;
    int count_ = 0;
};

TEST_F(DamagedHdf5Result, GoodFileReads) {
    cli::ResultFile result;
    std::string error;
    ASSERT_TRUE(cli::readResultFile(dir_.file("good.h5"), result, error)) << error;
    EXPECT_TRUE(result.hdf5);
    EXPECT_EQ(result.rows.size(), 8u);
    EXPECT_EQ(result.participatingFaces.faceCount(), 8);
}

TEST_F(DamagedHdf5Result, MissingPartsAreNamed) {
    EXPECT_EQ(readDamaged([](hid_t f) { H5Ldelete(f, "viewFactors/values", H5P_DEFAULT); }),
              "dataset values is missing");
    EXPECT_EQ(readDamaged([](hid_t f) { H5Ldelete(f, "parameters", H5P_DEFAULT); }),
              "group parameters is missing");
    EXPECT_EQ(readDamaged([](hid_t f) { H5Adelete(f, "globCount"); }),
              "attribute globCount is missing");
}

TEST_F(DamagedHdf5Result, UnsupportedVersionAndDimensionAreRefused) {
    EXPECT_EQ(readDamaged([](hid_t f) { setIntAttribute(f, "formatVersion", 2); }),
              "format version 2 is not supported");
    EXPECT_EQ(readDamaged([](hid_t f) { setIntAttribute(f, "dimension", 5); }),
              "dimension 5 is not 1, 2 or 3");
}

TEST_F(DamagedHdf5Result, IndicesOutsideTheirRangeAreRefused) {
    EXPECT_EQ(readDamaged([](hid_t f) {
                  auto columns = readInts(f, "viewFactors/columns");
                  columns[3] = 8;  // 8 globs: 0 to 7
                  writeInts(f, "viewFactors/columns", columns);
              }),
              "a row names glob 8 outside the glob count");
    EXPECT_EQ(readDamaged([](hid_t f) {
                  auto globs = readInts(f, "viewFactors/activeGlobs");
                  globs[0] = -1;
                  writeInts(f, "viewFactors/activeGlobs", globs);
              }),
              "active glob -1 is outside the glob count");
    EXPECT_EQ(readDamaged([](hid_t f) {
                  auto nodes = readInts(f, "faces/nodes");
                  nodes[0] = 1000000;
                  writeInts(f, "faces/nodes", nodes);
              }),
              "a face names node 1000000 of 16");
    EXPECT_EQ(readDamaged([](hid_t f) {
                  auto zones = readInts(f, "faces/zone");
                  zones[0] = 99;
                  writeInts(f, "faces/zone", zones);
              }),
              "a face names zone 99 of 2");
}

TEST_F(DamagedHdf5Result, InconsistentOffsetsAndLengthsAreRefused) {
    EXPECT_EQ(readDamaged([](hid_t f) {
                  auto start = readInts(f, "viewFactors/rowStart");
                  start[1] = start[2] + 1;
                  writeInts(f, "viewFactors/rowStart", start);
              }),
              "row offsets do not run from 0 to the number of entries");
    EXPECT_EQ(readDamaged([](hid_t f) {
                  auto start = readInts(f, "faces/nodeStart");
                  start.back() -= 1;
                  writeInts(f, "faces/nodeStart", start);
              }),
              "face node offsets do not run from 0 to the node list's length");
    EXPECT_EQ(readDamaged([](hid_t f) {
                  replaceDataset(f, "zones/faceStart", H5T_STD_I32LE, 2, false);
              }),
              "dataset faceStart has 2 entries, not 3");
}

TEST_F(DamagedHdf5Result, WrongTypesAndImpossibleSizesAreRefused) {
    EXPECT_EQ(readDamaged([](hid_t f) {
                  replaceDataset(f, "viewFactors/values", H5T_STD_I32LE, 8, false);
              }),
              "dataset values is not floating-point");
    // 2^40 entries that were never written: nothing is allocated for them.
    EXPECT_EQ(readDamaged([](hid_t f) {
                  replaceDataset(f, "viewFactors/columns", H5T_STD_I32LE, hsize_t{1} << 40, true);
              }),
              "dataset columns claims more data than the file holds");
}

TEST(Hdf5ResultFile, ContentNotNameTellsTheFormat) {
    ScratchDir dir;
    // A text result under an ".h5"-looking name that is not one (".H5").
    writeFile(dir.file("text.H5"), polygonText());
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
