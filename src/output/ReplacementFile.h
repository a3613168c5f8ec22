// A result replaces the file of the same name, which is usually the model it was
// computed from. It is therefore written to a fresh file beside the target and
// moved over it only once complete: a run that fails or is killed half-way leaves
// the user's file as it was.
#pragma once

#include <string>
#include <vector>

namespace hemiray {

// The file the name designates: a symbolic link is followed, so that the result
// replaces the linked file and the link survives.
[[nodiscard]] std::string resolveReplacementTarget(const std::string& name);

// False when the target exists but we may not write it: such a file stays
// unwritable for us, even though its directory would let us replace it.
[[nodiscard]] bool mayReplace(const std::string& target);

// Creates an empty file in the target's directory (so that the final move is a
// rename within one file system), exclusively, so that nothing is clobbered.
// Where the file system allows, the file has no name in the directory until it is
// published (its name is then a /proc name of its descriptor), so that even a
// process killed outright leaves nothing behind. Returns the name to open, or an
// empty string when no file can be created there.
[[nodiscard]] std::string createPartialFile(const std::string& target);

// Gives the finished partial file the permissions of the file it replaces (or the
// default ones for a new file) and renames it over the target. False when the
// rename failed; the partial file is then still there for the caller to remove.
[[nodiscard]] bool publishPartialFile(const std::string& partial, const std::string& target);

// Removes a partial file that will not be published.
void removePartialFile(const std::string& partial);

// Removes every partial file of this process that is neither published nor
// removed yet. Safe in a signal handler: a front end that is told to terminate
// (an MPI job whose other rank died) leaves nothing of its result behind.
void removePartialFilesNow();

// The partial files of this process that are neither published nor removed yet
// and have a name in their directory.
std::vector<std::string> pendingPartialFiles();

}  // namespace hemiray
