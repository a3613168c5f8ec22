// Small helpers around the HDF5 C library: identifiers that close themselves, and
// a scope in which HDF5 keeps its error stack to itself, so that a failure becomes
// one of our own "error: " lines instead of a page of HDF5 diagnostics.
#pragma once

#include <hdf5.h>

#include <utility>

namespace hemiray {

// Owns one HDF5 identifier and closes it with the matching H5?close function.
class Hdf5Id {
public:
    using CloseFunction = herr_t (*)(hid_t);

    Hdf5Id() = default;
    Hdf5Id(hid_t id, CloseFunction close) : id_(id), close_(close) {}
    ~Hdf5Id() { reset(); }
    Hdf5Id(Hdf5Id&& o) noexcept : id_(std::exchange(o.id_, H5I_INVALID_HID)), close_(o.close_) {}
    Hdf5Id& operator=(Hdf5Id&& o) noexcept {
        if (this != &o) {
            reset();
            id_ = std::exchange(o.id_, H5I_INVALID_HID);
            close_ = o.close_;
        }
        return *this;
    }
    Hdf5Id(const Hdf5Id&) = delete;
    Hdf5Id& operator=(const Hdf5Id&) = delete;

    hid_t get() const { return id_; }
    [[nodiscard]] bool valid() const { return id_ >= 0; }

    // Closes now; false when HDF5 reports the close as failed (for a file: when
    // what it still held could not be written).
    bool reset() {
        if (id_ < 0) return true;
        const herr_t status = close_(std::exchange(id_, H5I_INVALID_HID));
        return status >= 0;
    }

private:
    hid_t id_ = H5I_INVALID_HID;
    CloseFunction close_ = nullptr;
};

// While alive, HDF5 prints nothing of its own on this thread; the previous
// setting (perhaps the host's) comes back at the end of the scope.
class Hdf5ErrorsSilenced {
public:
    Hdf5ErrorsSilenced() {
        H5Eget_auto2(H5E_DEFAULT, &previousFunction_, &previousData_);
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    }
    ~Hdf5ErrorsSilenced() { H5Eset_auto2(H5E_DEFAULT, previousFunction_, previousData_); }
    Hdf5ErrorsSilenced(const Hdf5ErrorsSilenced&) = delete;
    Hdf5ErrorsSilenced& operator=(const Hdf5ErrorsSilenced&) = delete;

private:
    H5E_auto2_t previousFunction_ = nullptr;
    void* previousData_ = nullptr;
};

}  // namespace hemiray
