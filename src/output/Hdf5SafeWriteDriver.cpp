// The safe-write file driver: POSIX pread/pwrite on one descriptor, like HDF5's
// "sec2" driver, with write failures recorded instead of returned.
#include "output/Hdf5SafeWriteDriver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

namespace hemiray {

// The driver table below follows the interface of HDF5 1.10; later versions
// changed it, and there files are written with the default driver.
#if H5_VERS_MAJOR == 1 && H5_VERS_MINOR == 10

namespace {

// What the file access list carries: where to report.
struct DriverInfo {
    Hdf5WriteStatus* status;
};

// A write made after the failure, kept for the reads that follow.
struct HeldWrite {
    haddr_t address;
    std::vector<unsigned char> bytes;
};

struct SafeFile {
    H5FD_t pub;  // HDF5's part; must come first
    int fd = -1;
    haddr_t eoa = 0;  // end of the address space HDF5 has allocated
    haddr_t eof = 0;  // end of the file as written
    dev_t device = 0;
    ino_t inode = 0;
    Hdf5WriteStatus* status = nullptr;
    bool failed = false;          // a write failed: later writes are held in memory
    std::vector<HeldWrite> held;  // in the order they were made
};

constexpr haddr_t maxAddress = (haddr_t{1} << (8 * sizeof(off_t) - 1)) - 1;

void recordFailure(SafeFile* file, int error) {
    if (file->failed) return;
    file->failed = true;
    if (file->status && file->status->error == 0) file->status->error = error ? error : EIO;
}

H5FD_t* openFile(const char* name, unsigned flags, hid_t fileAccess, haddr_t maxaddr) {
    if (!name || !*name || maxaddr == 0 || maxaddr == HADDR_UNDEF) return nullptr;
    int openFlags = (flags & H5F_ACC_RDWR) ? O_RDWR : O_RDONLY;
    if (flags & H5F_ACC_TRUNC) openFlags |= O_TRUNC;
    if (flags & H5F_ACC_CREAT) openFlags |= O_CREAT;
    if (flags & H5F_ACC_EXCL) openFlags |= O_EXCL;
    const int fd = open(name, openFlags | O_CLOEXEC, 0666);
    if (fd < 0) return nullptr;
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        close(fd);
        return nullptr;
    }
    auto* file = new (std::nothrow) SafeFile{};
    if (!file) {
        close(fd);
        return nullptr;
    }
    file->fd = fd;
    file->eof = static_cast<haddr_t>(info.st_size);
    file->device = info.st_dev;
    file->inode = info.st_ino;
    if (const auto* driverInfo = static_cast<const DriverInfo*>(H5Pget_driver_info(fileAccess)))
        file->status = driverInfo->status;
    return &file->pub;
}

herr_t closeFile(H5FD_t* base) {
    auto* file = reinterpret_cast<SafeFile*>(base);
    if (close(file->fd) != 0) recordFailure(file, errno);
    delete file;
    return 0;
}

int compareFiles(const H5FD_t* a, const H5FD_t* b) {
    const auto* f = reinterpret_cast<const SafeFile*>(a);
    const auto* g = reinterpret_cast<const SafeFile*>(b);
    if (f->device != g->device) return f->device < g->device ? -1 : 1;
    if (f->inode != g->inode) return f->inode < g->inode ? -1 : 1;
    return 0;
}

// Not H5FD_FEAT_POSIX_COMPAT_HANDLE: with it HDF5 resolves a linked file name to
// its real path, which an unnamed partial file (opened by its /proc name) lacks.
herr_t queryFeatures(const H5FD_t*, unsigned long* flags) {
    if (flags)
        *flags = H5FD_FEAT_AGGREGATE_METADATA | H5FD_FEAT_ACCUMULATE_METADATA |
                 H5FD_FEAT_DATA_SIEVE | H5FD_FEAT_AGGREGATE_SMALLDATA |
                 H5FD_FEAT_DEFAULT_VFD_COMPATIBLE;
    return 0;
}

haddr_t getEoa(const H5FD_t* base, H5FD_mem_t) {
    return reinterpret_cast<const SafeFile*>(base)->eoa;
}

herr_t setEoa(H5FD_t* base, H5FD_mem_t, haddr_t address) {
    reinterpret_cast<SafeFile*>(base)->eoa = address;
    return 0;
}

haddr_t getEof(const H5FD_t* base, H5FD_mem_t) {
    return reinterpret_cast<const SafeFile*>(base)->eof;
}

herr_t getHandle(H5FD_t* base, hid_t, void** handle) {
    if (!handle) return -1;
    *handle = &reinterpret_cast<SafeFile*>(base)->fd;
    return 0;
}

// Reads what the file holds, zeros beyond its end, and over both whatever was
// held in memory since the failure, later writes over earlier ones.
herr_t readFile(H5FD_t* base, H5FD_mem_t, hid_t, haddr_t address, size_t size, void* buffer) {
    auto* file = reinterpret_cast<SafeFile*>(base);
    if (address == HADDR_UNDEF || address > maxAddress || size > maxAddress - address) return -1;
    const haddr_t begin = address;
    const haddr_t end = address + size;
    auto* out = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const ssize_t got = pread(file->fd, out, size, static_cast<off_t>(address));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) {
            std::memset(out, 0, size);
            break;
        }
        out += got;
        address += static_cast<haddr_t>(got);
        size -= static_cast<size_t>(got);
    }
    auto* target = static_cast<unsigned char*>(buffer);
    for (const HeldWrite& w : file->held) {
        const haddr_t from = std::max(begin, w.address);
        const haddr_t to = std::min(end, w.address + w.bytes.size());
        if (from < to)
            std::memcpy(target + (from - begin), w.bytes.data() + (from - w.address), to - from);
    }
    return 0;
}

herr_t writeFile(H5FD_t* base, H5FD_mem_t, hid_t, haddr_t address, size_t size,
                 const void* buffer) {
    auto* file = reinterpret_cast<SafeFile*>(base);
    if (address == HADDR_UNDEF || address > maxAddress || size > maxAddress - address) return -1;
    const haddr_t begin = address;
    const haddr_t end = address + size;
    const auto* in = static_cast<const unsigned char*>(buffer);
    while (size > 0 && !file->failed) {
        const ssize_t put = pwrite(file->fd, in, size, static_cast<off_t>(address));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) {
            recordFailure(file, put < 0 ? errno : ENOSPC);
            break;
        }
        in += put;
        address += static_cast<haddr_t>(put);
        size -= static_cast<size_t>(put);
    }
    if (file->failed) {
        // The whole request, also the part that may have reached the disk.
        try {
            const auto* bytes = static_cast<const unsigned char*>(buffer);
            file->held.push_back({begin, std::vector<unsigned char>(bytes, bytes + (end - begin))});
        } catch (const std::bad_alloc&) {
            return -1;
        }
    }
    if (end > file->eof) file->eof = end;
    return 0;
}

herr_t truncateFile(H5FD_t* base, hid_t, hbool_t) {
    auto* file = reinterpret_cast<SafeFile*>(base);
    if (file->eoa == file->eof) return 0;
    if (!file->failed && ftruncate(file->fd, static_cast<off_t>(file->eoa)) != 0)
        recordFailure(file, errno);
    file->eof = file->eoa;
    return 0;
}

const H5FD_class_t safeWriteClass = {
    "hemiray-safe-write",  // name
    maxAddress,            // maxaddr
    H5F_CLOSE_WEAK,        // fc_degree
    nullptr,               // terminate
    nullptr,               // sb_size
    nullptr,               // sb_encode
    nullptr,               // sb_decode
    sizeof(DriverInfo),    // fapl_size
    nullptr,               // fapl_get
    nullptr,               // fapl_copy (HDF5 copies fapl_size bytes)
    nullptr,               // fapl_free
    0,                     // dxpl_size
    nullptr,               // dxpl_copy
    nullptr,               // dxpl_free
    openFile,              // open
    closeFile,             // close
    compareFiles,          // cmp
    queryFeatures,         // query
    nullptr,               // get_type_map
    nullptr,               // alloc
    nullptr,               // free
    getEoa,                // get_eoa
    setEoa,                // set_eoa
    getEof,                // get_eof
    getHandle,             // get_handle
    readFile,              // read
    writeFile,             // write
    nullptr,               // flush: every write already went to the system
    truncateFile,          // truncate
    nullptr,               // lock
    nullptr,               // unlock
    H5FD_FLMAP_DICHOTOMY,  // fl_map
};

}  // namespace

hid_t registerSafeWriteDriver() {
    return H5FDregister(&safeWriteClass);
}

bool useSafeWriteDriver(hid_t fileAccess, hid_t driver, Hdf5WriteStatus* status) {
    const DriverInfo info{status};
    return H5Pset_driver(fileAccess, driver, &info) >= 0;
}

#else

hid_t registerSafeWriteDriver() {
    return H5I_INVALID_HID;
}

bool useSafeWriteDriver(hid_t, hid_t, Hdf5WriteStatus*) {
    return false;
}

#endif

}  // namespace hemiray
