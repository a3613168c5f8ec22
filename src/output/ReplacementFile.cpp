// Partial result files beside their target, and their move over it.
#include "output/ReplacementFile.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace hemiray {

namespace fs = std::filesystem;

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
    return std::rename(partial.c_str(), target.c_str()) == 0;
}

}  // namespace hemiray
