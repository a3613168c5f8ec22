// Partial result files beside their target, and their move over it.
#include "output/ReplacementFile.h"

#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace hemiray {

namespace fs = std::filesystem;

namespace {

// The partial files of this process that are still open for writing, readable
// from a signal handler: a slot's name is complete before it is marked in use.
struct PendingPartial {
    std::atomic<bool> used{false};
    char name[4096] = {};
};
PendingPartial pendingPartials[8];

void remember(const std::string& partial) {
    if (partial.size() >= sizeof PendingPartial::name) return;
    for (PendingPartial& slot : pendingPartials) {
        if (slot.used.load()) continue;
        std::memcpy(slot.name, partial.c_str(), partial.size() + 1);
        slot.used.store(true);
        return;
    }
}

void forget(const std::string& partial) {
    for (PendingPartial& slot : pendingPartials)
        if (slot.used.load() && partial == slot.name) slot.used.store(false);
}

}  // namespace

void removePartialFile(const std::string& partial) {
    forget(partial);
    std::remove(partial.c_str());
}

std::vector<std::string> pendingPartialFiles() {
    std::vector<std::string> names;
    for (const PendingPartial& slot : pendingPartials)
        if (slot.used.load()) names.emplace_back(slot.name);
    return names;
}

void removePartialFilesNow() {
    for (PendingPartial& slot : pendingPartials)
        if (slot.used.load()) unlink(slot.name);
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
    std::string pattern = (directory / ".hemiray-partial-XXXXXX").string();
    const int fd = mkstemp(pattern.data());
    if (fd < 0) return {};
    close(fd);
    remember(pattern);
    return pattern;
}

bool publishPartialFile(const std::string& partial, const std::string& target) {
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
