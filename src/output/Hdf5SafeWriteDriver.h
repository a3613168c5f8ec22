// An HDF5 file driver for result files that never lets a failed write reach HDF5.
// HDF5 1.10 does not survive a write error inside H5Fclose: the file stays
// registered half-destroyed and the library crashes when it shuts down at exit,
// taking the host process with it. This driver does what the default POSIX
// driver does, but records the first failed write or truncation (a full disk, a
// quota, a size limit) in a status the writer checks, and from then on keeps what
// HDF5 writes in memory instead, so that HDF5 reads back what it wrote. HDF5 thus
// always closes the file cleanly, and the writer throws the broken file away.
// The writer stops writing rows at the first failure, so what is held in memory
// is little more than the metadata HDF5 flushes when it closes the file.
#pragma once

#include <hdf5.h>

namespace hemiray {

// The errno of the first write or truncation that failed on a file; 0 while none.
struct Hdf5WriteStatus {
    int error = 0;
};

// Registers the driver; H5I_INVALID_HID when it cannot be (or this HDF5 version's
// driver interface is not the one it implements: files then use HDF5's default).
[[nodiscard]] hid_t registerSafeWriteDriver();

// Makes the file access list use the driver, reporting into `status`, which must
// outlive every file opened with the list. False when HDF5 refuses.
[[nodiscard]] bool useSafeWriteDriver(hid_t fileAccess, hid_t driver, Hdf5WriteStatus* status);

}  // namespace hemiray
