// The process-wide HDF5 consumer: made by a static initialiser when the library is
// loaded, destroyed by the matching exit handler when it is unloaded.
#include "output/Hdf5Consumer.h"

#include <cstdio>
#include <utility>

#include "output/ReplacementFile.h"

namespace hemiray {

namespace {

Hdf5Consumer* processConsumer = nullptr;

// Constructed when the library is loaded; its destructor is registered at the same
// moment and runs when the library is unloaded or the process exits. HDF5 registers
// its own shutdown while the consumer initialises it, that is, before this
// object's destructor is registered, so the consumer is gone before HDF5 shuts down.
struct ConsumerLifetime {
    ConsumerLifetime() { processConsumer = new Hdf5Consumer; }
    ~ConsumerLifetime() { delete std::exchange(processConsumer, nullptr); }
    ConsumerLifetime(const ConsumerLifetime&) = delete;
    ConsumerLifetime& operator=(const ConsumerLifetime&) = delete;
};

const ConsumerLifetime consumerLifetime;

}  // namespace

Hdf5Consumer* Hdf5Consumer::instance() {
    return processConsumer;
}

Hdf5Consumer::Hdf5Consumer() : ready_(H5open() >= 0) {
    if (ready_) driver_ = registerSafeWriteDriver();
}

Hdf5Consumer::~Hdf5Consumer() {
    std::unique_lock lock(mutex_, std::try_to_lock);
    if (current_) {
        // exit() called by the thread of the run in progress: its delivery will
        // never be destroyed, so the partial file is removed here. A run still
        // going on another thread keeps its objects and the driver; the process is
        // ending under it anyway.
        if (!lock.owns_lock() || owner_.load() != std::this_thread::get_id()) {
            (void)current_.release();
            return;
        }
        current_.reset();
    }
    // HDF5 keeps a copy of the driver table, but its functions live in this
    // library, which may be about to be unloaded.
    const Hdf5ErrorsSilenced quiet;
    if (driver_ >= 0 && H5Iget_type(driver_) == H5I_VFL) H5FDunregister(driver_);
}

Hdf5Consumer::OpenResult::OpenResult(std::string targetName, std::string partialName, hid_t driver)
    : target(std::move(targetName)), partial(std::move(partialName)), writer(partial, driver) {}

Hdf5Consumer::OpenResult::~OpenResult() {
    if (published) return;
    (void)writer.close();
    removePartialFile(partial);
}

std::unique_ptr<Hdf5Delivery> Hdf5Consumer::startResult(const std::string& name) {
    if (!ready_) return nullptr;
    const std::lock_guard lock(mutex_);
    if (current_) return nullptr;
    // Silenced before the first HDF5 call on the file.
    std::unique_ptr<Hdf5Delivery> delivery(new Hdf5Delivery(*this));
    const std::string target = resolveReplacementTarget(name);
    if (!mayReplace(target)) return nullptr;
    std::string partial = createPartialFile(target);
    if (partial.empty()) return nullptr;
    // A host that shut HDF5 down between two runs took the registration with it.
    if (driver_ < 0 || H5Iget_type(driver_) != H5I_VFL) driver_ = registerSafeWriteDriver();
    current_ = std::make_unique<OpenResult>(target, std::move(partial), driver_);
    if (!current_->writer.ok()) {
        current_.reset();
        return nullptr;
    }
    owner_ = std::this_thread::get_id();
    delivery->holdsResult_ = true;
    return delivery;
}

bool Hdf5Consumer::publish() {
    const std::lock_guard lock(mutex_);
    if (!current_ || current_->published) return false;
    if (!current_->writer.close()) return false;
    current_->published = publishPartialFile(current_->partial, current_->target);
    return current_->published;
}

void Hdf5Consumer::release() {
    const std::lock_guard lock(mutex_);
    current_.reset();
    owner_ = std::thread::id();
}

Hdf5Delivery::~Hdf5Delivery() {
    if (holdsResult_) consumer_.release();
}

Hdf5ResultWriter& Hdf5Delivery::writer() {
    return consumer_.current_->writer;
}

bool Hdf5Delivery::commit() {
    return holdsResult_ && consumer_.publish();
}

}  // namespace hemiray
