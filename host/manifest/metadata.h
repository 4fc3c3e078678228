#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "manifest/attributes.h"

namespace host {

/// What the worker does not carry over. One per directory, regular file and symbolic link.
struct Metadata {
    bool directory = false;
    bool link = false;
    mode_t mode = 0;  ///< means nothing for a link
    uid_t uid = 0;
    gid_t gid = 0;
    timespec modified{};
    timespec accessed{};
    uint64_t size = 0;      ///< bytes; tells afterwards whether the file arrived whole
    std::string sum;        ///< contentSum() of a file that lends rights, where root noted it
    std::string text;       ///< of a link: where it leads to
    Attributes attributes;  ///< not of links
    std::string relative;   ///< "" for the root, else "/a/b"
};

/// The user this runs as; asked of the kernel once.
[[nodiscard]] uid_t ourUser();

/// Of its status alone.
[[nodiscard]] Metadata metadataOf(const struct stat& status, const std::string& relative);

/// Whether a file that was opened was written by the user this runs as, and by nobody else: what it
/// says is done with this user's rights, and it lies in a directory that may be another's.
[[nodiscard]] bool isOurs(const struct stat& status);

/// Whether a program of this mode and these attributes runs with rights that its user has not:
/// set-ID bits, capabilities, and whatever else a security module or a trusted program reads off
/// the file. The label that SELinux gives to every file is not counted.
[[nodiscard]] bool lendsRights(const Metadata& metadata);

/// The same metadata without any of that.
[[nodiscard]] Metadata withoutLentRights(Metadata metadata);

/// What the file system refused, as errno; 0 for what was put back.
struct PutBack {
    int owner = 0;
    int mode = 0;
    int time = 0;
    std::vector<RefusedAttribute> attributes;

    /// "owner: Operation not permitted", and so on for each that was refused; or empty.
    [[nodiscard]] std::string describe() const;
};

/// What an open file or directory has of what is put back.
struct FoundMetadata {
    int error = 0;  ///< the errno when it could not be looked at
    struct stat status {};
    Attributes attributes;
};
[[nodiscard]] FoundMetadata lookAtOpen(int descriptor);
/// The same where the status is known already.
[[nodiscard]] FoundMetadata lookAtOpen(int descriptor, const struct stat& status);

/// Whether owner and mode may be given to what was found: to what belongs to the user this runs
/// as, as everything does that the worker or its host has made, or to what has the right owner and
/// group already. Anything else was put there by somebody, who would be handed a file with
/// another's rights. So is a directory that has another owner, because those that a job makes have
/// theirs from the beginning.
[[nodiscard]] bool mayPutBack(const Metadata& metadata, const struct stat& found);

/// Owner, then mode (a change of owner clears set-ID bits and capabilities), then attributes (an
/// access control list sets the bits of the group), then times, of the file or directory that is
/// open at `descriptor`, where `found` was found; each is tried whatever became of the others.
/// EPERM where mayPutBack() is false.
[[nodiscard]] PutBack putBack(const Metadata& metadata, const FoundMetadata& found, int descriptor);

/// "owner", "permissions", "attributes" and "time", as far as they are not what the metadata says.
/// The time of access is left out: whoever reads the file changes it.
[[nodiscard]] std::string differences(const Metadata& metadata, const FoundMetadata& found);

/// 0, or the errno. The time of access stays.
[[nodiscard]] int putBackTime(const timespec& modified, int descriptor);
/// Both times.
[[nodiscard]] int putBackTimes(const Metadata& metadata, int descriptor);

}  // namespace host
