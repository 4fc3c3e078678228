#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

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

/// Whether a file that was opened was written by the user this runs as, and by nobody else: what it
/// says is done with this user's rights, and it lies in a directory that may be another's.
[[nodiscard]] bool isOurs(const struct stat& status);

/// What the file system refused, as errno; 0 for what was put back.
struct PutBack {
    int owner = 0;
    int mode = 0;
    int time = 0;

    /// "owner: Operation not permitted", and so on for each that was refused; or empty.
    [[nodiscard]] std::string describe() const;
};

/// Owner, then mode (a change of owner clears the set-user-ID bit), then time, of the file or
/// directory that is open at `descriptor`; each is tried whatever became of the others.
///
/// Owner and mode are given only to what belongs to the user this runs as, as everything does that
/// the worker or its host has made, or to what has the right owner and group already. Anything
/// else was put there by somebody, who would be handed a file with another's rights: EPERM. So is a
/// directory that has another owner, because those that a job makes have theirs from the beginning.
[[nodiscard]] PutBack putBack(const Metadata& metadata, int descriptor);

/// "owner", "permissions" and "time", as far as they are not what the metadata says; only looks.
[[nodiscard]] std::string differences(const Metadata& metadata, int descriptor);

/// 0, or the errno.
[[nodiscard]] int putBackTime(const timespec& modified, int descriptor);

}  // namespace host
