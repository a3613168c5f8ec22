// Partial result files beside their target, and their move over it.
#include "output/ReplacementFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace hemiray {

namespace fs = std::filesystem;

namespace {

// The partial files of this process that are still open for writing, readable
// from a signal handler: a slot's name is complete before it is marked in use.
// A file without a name in its folder (fd >= 0) is known by its descriptor's
// name under /proc; the system removes it when the process ends, however it ends.
struct PendingPartial {
    std::atomic<bool> used{false};
    int fd = -1;
    char name[4096] = {};
};
PendingPartial pendingPartials[8];

void remember(const std::string& partial, int fd = -1) {
    if (partial.size() >= sizeof PendingPartial::name) return;
    for (PendingPartial& slot : pendingPartials) {
        if (slot.used.load()) continue;
        std::memcpy(slot.name, partial.c_str(), partial.size() + 1);
        slot.fd = fd;
        slot.used.store(true);
        return;
    }
}

PendingPartial* find(const std::string& partial) {
    for (PendingPartial& slot : pendingPartials)
        if (slot.used.load() && partial == slot.name) return &slot;
    return nullptr;
}

// Returns the descriptor of an unnamed partial file, or -1.
int forget(const std::string& partial) {
    PendingPartial* slot = find(partial);
    if (!slot) return -1;
    const int fd = slot->fd;
    slot->used.store(false);
    return fd;
}

// Gives the unnamed file a name beside the target, exclusively, and returns it.
std::string nameUnnamed(int fd, const std::string& target) {
    const std::string from = "/proc/self/fd/" + std::to_string(fd);
    const std::string base =
        (fs::path(target).parent_path() / ".hemiray-partial-").string() + std::to_string(getpid());
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name = base + "-" + std::to_string(attempt);
        if (linkat(AT_FDCWD, from.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0)
            return name;
        if (errno != EEXIST) break;
    }
    return {};
}

}  // namespace

void removePartialFile(const std::string& partial) {
    const int fd = forget(partial);
    if (fd >= 0)
        close(fd);
    else
        std::remove(partial.c_str());
}

std::vector<std::string> pendingPartialFiles() {
    std::vector<std::string> names;
    for (const PendingPartial& slot : pendingPartials)
        if (slot.used.load() && slot.fd < 0) names.emplace_back(slot.name);
    return names;
}

void removePartialFilesNow() {
    for (PendingPartial& slot : pendingPartials)
        if (slot.used.load() && slot.fd < 0) unlink(slot.name);
}

std::string resolveReplacementTarget(const std::string& name) {
    std::error_code ec;
    if (fs::is_symlink(name, ec)) {
        const fs::path resolved = fs::weakly_canonical(name, ec);
        if (!ec) return resolved.string();
    }
    return name;
}

bool mayReplace(const std::string& target) {
    return access(target.c_str(), F_OK) != 0 || access(target.c_str(), W_OK) == 0;
}

std::string createPartialFile(const std::string& target) {
    // The name does not grow with the target's, which may already be as long as
    // names can be.
    const fs::path directory = fs::path(target).parent_path();
    // Preferably a file that has no name until it is published: a process killed
    // outright (SIGKILL, as a batch system ends a job step) then leaves nothing.
    // Writers open it by its descriptor's name, also from a child process (gzip).
    const int unnamed = open(directory.empty() ? "." : directory.c_str(),
                             O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (unnamed >= 0) {
        const std::string name =
            "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(unnamed);
        if (access(name.c_str(), W_OK) == 0) {
            remember(name, unnamed);
            return name;
        }
        close(unnamed);
    }
    // Otherwise (a file system without unnamed files, no /proc) a named one.
    std::string pattern = (directory / ".hemiray-partial-XXXXXX").string();
    const int fd = mkstemp(pattern.data());
    if (fd < 0) return {};
    close(fd);
    remember(pattern);
    return pattern;
}

bool publishPartialFile(const std::string& partial, const std::string& target) {
    if (const PendingPartial* slot = find(partial); slot && slot->fd >= 0) {
        const std::string named = nameUnnamed(slot->fd, target);
        if (named.empty()) return false;
        remember(named);
        if (!publishPartialFile(named, target)) {
            removePartialFile(named);
            return false;
        }
        removePartialFile(partial);
        return true;
    }
    struct stat previous {};
    if (stat(target.c_str(), &previous) == 0) {
        chmod(partial.c_str(), previous.st_mode & 07777);
    } else {
        // mkstemp made the file private; a new result gets the usual permissions.
        const mode_t mask = umask(0);
        umask(mask);
        chmod(partial.c_str(), 0666 & ~mask);
    }
    if (std::rename(partial.c_str(), target.c_str()) != 0) return false;
    forget(partial);
    return true;
}

}  // namespace hemiray
