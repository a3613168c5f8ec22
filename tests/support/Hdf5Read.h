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
    std::vector<double> real;      // every value as a double
    std::vector<int64_t> integer;  // every value as an int64 (integer types only)
};

// The dataset at `path` (e.g. "faces/nodes"), or with `attribute` the attribute of
// that name on the object at `path` ("/" for the root); a missing one fails the test.
inline Hdf5Array readDataset(const Hdf5File& file, const std::string& path,
                             const char* attribute = nullptr) {
    Hdf5Array a;
    const hid_t object =
        attribute ? H5Aopen_by_name(file.id(), path.c_str(), attribute, H5P_DEFAULT, H5P_DEFAULT)
                  : H5Dopen2(file.id(), path.c_str(), H5P_DEFAULT);
    EXPECT_GE(object, 0) << "no " << path << " " << (attribute ? attribute : "");
    if (object < 0) return a;
    const hid_t type = attribute ? H5Aget_type(object) : H5Dget_type(object);
    const hid_t space = attribute ? H5Aget_space(object) : H5Dget_space(object);
    a.typeClass = H5Tget_class(type);
    a.typeSize = H5Tget_size(type);
    a.order = H5Tget_order(type);
    if (a.typeClass == H5T_INTEGER) a.sign = H5Tget_sign(type);
    a.dims.resize(static_cast<size_t>(H5Sget_simple_extent_ndims(space)));
    a.maxDims.resize(a.dims.size());
    H5Sget_simple_extent_dims(space, a.dims.data(), a.maxDims.data());
    const auto count = static_cast<size_t>(H5Sget_simple_extent_npoints(space));
    const auto read = [&](hid_t memoryType, void* data) {
        EXPECT_GE(attribute ? H5Aread(object, memoryType, data)
                            : H5Dread(object, memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, data),
                  0)
            << path;
    };
    a.real.resize(count);
    if (count > 0) read(H5T_NATIVE_DOUBLE, a.real.data());
    if (a.typeClass == H5T_INTEGER && count > 0) {
        a.integer.resize(count);
        read(H5T_NATIVE_INT64, a.integer.data());
    }
    if (!attribute) {
        const hid_t creation = H5Dget_create_plist(object);
        a.chunked = H5Pget_layout(creation) == H5D_CHUNKED;
        H5Pclose(creation);
    }
    H5Sclose(space);
    H5Tclose(type);
    if (attribute)
        H5Aclose(object);
    else
        H5Dclose(object);
    return a;
}

// A scalar int32 or float64 attribute.
inline int64_t intAttribute(const Hdf5File& file, const std::string& path,
                            const std::string& name) {
    const Hdf5Array a = readDataset(file, path, name.c_str());
    EXPECT_TRUE(a.typeClass == H5T_INTEGER && a.typeSize == 4 && a.dims.empty()) << name;
    return a.integer.empty() ? -999 : a.integer[0];
}

inline double doubleAttribute(const Hdf5File& file, const std::string& path,
                              const std::string& name) {
    const Hdf5Array a = readDataset(file, path, name.c_str());
    EXPECT_TRUE(a.typeClass == H5T_FLOAT && a.typeSize == 8 && a.dims.empty()) << name;
    return a.real.empty() ? -999 : a.real[0];
}

// A fixed-length string attribute, read into a buffer of its own size.
inline std::string stringAttribute(const Hdf5File& file, const std::string& path,
                                   const std::string& name) {
    const hid_t attribute =
        H5Aopen_by_name(file.id(), path.c_str(), name.c_str(), H5P_DEFAULT, H5P_DEFAULT);
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

// A one-dimensional little-endian int32 dataset and its values.
inline void expectInt32(const Hdf5Array& a, const std::vector<int64_t>& expected,
                        const std::string& what) {
    EXPECT_TRUE(a.typeClass == H5T_INTEGER && a.typeSize == 4 && a.order == H5T_ORDER_LE &&
                a.sign == H5T_SGN_2)
        << what;
    EXPECT_EQ(a.dims, std::vector<hsize_t>{expected.size()}) << what;
    EXPECT_EQ(a.integer, expected) << what;
}

// A little-endian float64 dataset of the given shape.
inline void expectFloat64(const Hdf5Array& a, const std::vector<hsize_t>& dims,
                          const std::string& what) {
    EXPECT_TRUE(a.typeClass == H5T_FLOAT && a.typeSize == 8 && a.order == H5T_ORDER_LE) << what;
    EXPECT_EQ(a.dims, dims) << what;
}

}  // namespace hemiray::testing
