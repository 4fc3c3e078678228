#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tree.h"

namespace host {

/// What the move does not carry over. One per directory and per regular file of the source.
struct Metadata {
    bool directory = false;
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    timespec modified{};
    uint64_t size = 0;     ///< bytes; tells afterwards whether the file arrived whole
    std::string relative;  ///< "" for the root, else "/a/b"
};

[[nodiscard]] Metadata metadataOf(const struct stat& status, const std::string& relative);

/// `.ecryptfs_manifest`: the metadata of a whole tree as it was before the job, synced. Records
/// end with a zero byte and the name comes last, so that a name may hold anything a name can.
/// `rootTime` is what the root had before our own files changed it. `betweenDirectories` is called
/// once per directory and may throw. Throws std::system_error.
void writeManifest(const Tree& tree, Direction direction, const timespec& rootTime,
                   const std::function<void()>& betweenDirectories);

/// Calls `each` for every record in order; false when there is no manifest. Throws JobEnd
/// (failed) when it is damaged.
bool readManifest(const Tree& tree, const std::function<void(const Metadata&)>& each);

/// Owner, then mode (a change of owner clears the set-user-ID bit), then time. False when one of
/// them was refused.
[[nodiscard]] bool putBack(const Metadata& metadata, const std::string& path);
[[nodiscard]] bool putBackTime(const Metadata& metadata, const std::string& path);

/// Makes `path` a directory with the mode and owner of `model`, and makes it last, unless it is
/// there already. Throws std::system_error.
void makeDirectoryLike(const std::string& model, const std::string& path);

/// Makes the target's directories that are missing, with the source's modes and owners, and syncs
/// them: a file must not arrive in a directory that a power cut can take away. Throws
/// std::system_error.
void makeTargetDirectories(const Tree& tree, Direction direction,
                           const std::function<void()>& betweenDirectories);

/// What was found when the metadata was put back.
struct Restored {
    uint64_t files = 0;
    std::vector<std::string> missing;  ///< in neither tree, or not of the size it had
    std::vector<std::string> refused;  ///< arrived, but a mode, an owner or a time was refused
    Metadata root;                     ///< its time is put back last, by the caller
};

[[nodiscard]] Restored restoreMetadata(const Tree& tree, Direction direction);

}  // namespace host
