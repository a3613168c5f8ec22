// Reads HDF5 files for the tests with nothing but the HDF5 C library, so that the
// layout the library writes is checked against the documented names, types and
// shapes, not against our own reader. Failures are test failures.
#pragma once

#include <gtest/gtest.h>
#include <hdf5.h>

#include <cstdint>
#include <string>
#include <vector>

namespace hemiray::testing {

// An open HDF5 file; closes itself.
class Hdf5File {
public:
    explicit Hdf5File(const std::string& path)
        : id_(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT)) {}
    ~Hdf5File() {
        if (id_ >= 0) H5Fclose(id_);
    }
    Hdf5File(const Hdf5File&) = delete;
    Hdf5File& operator=(const Hdf5File&) = delete;

    bool ok() const { return id_ >= 0; }
    hid_t id() const { return id_; }

private:
    hid_t id_;
};

// What a dataset or attribute holds: its type as the file stores it, its shape and
// its values converted to double (exact for int32 and for float64) or int64.
struct Hdf5Array {
    H5T_class_t typeClass = H5T_NO_CLASS;
    size_t typeSize = 0;
    H5T_order_t order = H5T_ORDER_ERROR;
    H5T_sign_t sign = H5T_SGN_ERROR;
    std::vector<hsize_t> dims;
    std::vector<hsize_t> maxDims;
    bool chunked = false;
    std::vector<double> real;     // every value as a double
    std::vector<int64_t> integer; // every value as an int64 (integer types only)
};

inline void describeType(hid_t type, Hdf5Array& a) {
    a.typeClass = H5Tget_class(type);
    a.typeSize = H5Tget_size(type);
    a.order = H5Tget_order(type);
    if (a.typeClass == H5T_INTEGER) a.sign = H5Tget_sign(type);
}

// Reads the dataset at `path` (e.g. "faces/nodes"); a missing one fails the test.
inline Hdf5Array readDataset(const Hdf5File& file, const std::string& path) {
    Hdf5Array a;
    const hid_t dataset = H5Dopen2(file.id(), path.c_str(), H5P_DEFAULT);
    EXPECT_GE(dataset, 0) << "no dataset " << path;
    if (dataset < 0) return a;
    const hid_t type = H5Dget_type(dataset);
    const hid_t space = H5Dget_space(dataset);
    const hid_t creation = H5Dget_create_plist(dataset);
    describeType(type, a);
    const int rank = H5Sget_simple_extent_ndims(space);
    a.dims.resize(static_cast<size_t>(rank));
    a.maxDims.resize(static_cast<size_t>(rank));
    H5Sget_simple_extent_dims(space, a.dims.data(), a.maxDims.data());
    a.chunked = H5Pget_layout(creation) == H5D_CHUNKED;
    const auto count = static_cast<size_t>(H5Sget_simple_extent_npoints(space));
    a.real.resize(count);
    if (count > 0) {
        EXPECT_GE(H5Dread(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT,
                          a.real.data()), 0) << path;
    }
    if (a.typeClass == H5T_INTEGER && count > 0) {
        a.integer.resize(count);
        EXPECT_GE(H5Dread(dataset, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT,
                          a.integer.data()), 0) << path;
    }
    H5Pclose(creation);
    H5Sclose(space);
    H5Tclose(type);
    H5Dclose(dataset);
    return a;
}

// A scalar numeric attribute of the object at `objectPath` ("/" for the root).
inline Hdf5Array readAttribute(const Hdf5File& file, const std::string& objectPath,
                               const std::string& name) {
    Hdf5Array a;
    const hid_t attribute =
        H5Aopen_by_name(file.id(), objectPath.c_str(), name.c_str(), H5P_DEFAULT, H5P_DEFAULT);
    EXPECT_GE(attribute, 0) << "no attribute " << name << " on " << objectPath;
    if (attribute < 0) return a;
    const hid_t type = H5Aget_type(attribute);
    const hid_t space = H5Aget_space(attribute);
    describeType(type, a);
    EXPECT_EQ(H5Sget_simple_extent_type(space), H5S_SCALAR) << name;
    a.real.resize(1);
    EXPECT_GE(H5Aread(attribute, H5T_NATIVE_DOUBLE, a.real.data()), 0) << name;
    if (a.typeClass == H5T_INTEGER) {
        a.integer.resize(1);
        EXPECT_GE(H5Aread(attribute, H5T_NATIVE_INT64, a.integer.data()), 0) << name;
    }
    H5Sclose(space);
    H5Tclose(type);
    H5Aclose(attribute);
    return a;
}

inline int64_t intAttribute(const Hdf5File& file, const std::string& objectPath,
                            const std::string& name) {
    const Hdf5Array a = readAttribute(file, objectPath, name);
    EXPECT_EQ(a.typeClass, H5T_INTEGER) << name;
    EXPECT_EQ(a.typeSize, 4u) << name;
    return a.integer.empty() ? -999 : a.integer[0];
}

inline double doubleAttribute(const Hdf5File& file, const std::string& objectPath,
                              const std::string& name) {
    const Hdf5Array a = readAttribute(file, objectPath, name);
    EXPECT_EQ(a.typeClass, H5T_FLOAT) << name;
    EXPECT_EQ(a.typeSize, 8u) << name;
    return a.real.empty() ? -999 : a.real[0];
}

// A fixed-length string attribute, read into a buffer of its own size.
inline std::string stringAttribute(const Hdf5File& file, const std::string& objectPath,
                                   const std::string& name) {
    const hid_t attribute =
        H5Aopen_by_name(file.id(), objectPath.c_str(), name.c_str(), H5P_DEFAULT, H5P_DEFAULT);
    EXPECT_GE(attribute, 0) << "no attribute " << name;
    if (attribute < 0) return {};
    const hid_t type = H5Aget_type(attribute);
    EXPECT_EQ(H5Tget_class(type), H5T_STRING) << name;
    EXPECT_EQ(H5Tis_variable_str(type), 0) << name;
    std::string text(H5Tget_size(type), '\0');
    EXPECT_GE(H5Aread(attribute, type, text.data()), 0) << name;
    H5Tclose(type);
    H5Aclose(attribute);
    return text.substr(0, text.find('\0'));
}

}  // namespace hemiray::testing
