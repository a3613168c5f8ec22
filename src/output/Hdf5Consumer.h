// The process-wide consumer of HDF5 results. It is created when the library is
// loaded and destroyed when it is unloaded (or the process exits). Between these
// moments it owns what the HDF5 delivery of a run needs: the initialised HDF5
// library, the registration of the safe-write file driver, and the result file of
// the run in progress, which it writes beside the target and moves over it only
// when complete. A process that exits in the middle
// of a run thus leaves neither a partial file nor a damaged input behind.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "output/Hdf5ResultWriter.h"

namespace hemiray {

class Hdf5Delivery;

class Hdf5Consumer {
public:
    Hdf5Consumer();
    ~Hdf5Consumer();  // abandons a result its own thread left open; unregisters the driver
    Hdf5Consumer(const Hdf5Consumer&) = delete;
    Hdf5Consumer& operator=(const Hdf5Consumer&) = delete;

    // The consumer of this process; null before the library is loaded and after it
    // is unloaded.
    static Hdf5Consumer* instance();

    // Starts the result that will replace the file `name` (a symbolic link is
    // followed). Null when the file cannot be created beside it, or while another
    // thread's result is open: the library serves one run at a time.
    [[nodiscard]] std::unique_ptr<Hdf5Delivery> startResult(const std::string& name);

private:
    friend class Hdf5Delivery;

    // The file of the run in progress.
    struct OpenResult {
        std::string target;
        std::string partial;
        Hdf5ResultWriter writer;
        OpenResult(std::string targetName, std::string partialName, hid_t driver);
        ~OpenResult();  // closes the file and removes it unless it was published
        bool published = false;
    };

    bool publish();  // closes the current file and moves it over its target
    void release();  // ends the current result, published or not

    bool ready_ = false;              // the HDF5 library initialised
    hid_t driver_ = H5I_INVALID_HID;  // the safe-write driver
    std::mutex mutex_;                // guards current_
    std::unique_ptr<OpenResult> current_;
    std::atomic<std::thread::id> owner_{};  // the thread of the run in progress
};

// One run's hold on the consumer's result file. Dropped without a successful
// commit, it removes the partial file and the target stays as it was. HDF5 prints
// nothing of its own while it lives: failures are reported by the run.
class Hdf5Delivery {
public:
    ~Hdf5Delivery();
    Hdf5Delivery(const Hdf5Delivery&) = delete;
    Hdf5Delivery& operator=(const Hdf5Delivery&) = delete;

    Hdf5ResultWriter& writer();
    // Writes what is buffered, closes the file and moves it over the target. False
    // when any part of the file could not be written or the move failed.
    [[nodiscard]] bool commit();

private:
    friend class Hdf5Consumer;
    explicit Hdf5Delivery(Hdf5Consumer& consumer) : consumer_(consumer) {}

    Hdf5Consumer& consumer_;
    Hdf5ErrorsSilenced quiet_;
    bool holdsResult_ = false;
};

}  // namespace hemiray
