#include "manifest/metadata.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

namespace host {
namespace {

constexpr mode_t kSetId = S_ISUID | S_ISGID;

bool lendsRights(std::string_view attribute) {
    return (attribute.starts_with("security.") && attribute != "security.selinux") ||
           attribute.starts_with("trusted.");
}

}  // namespace

uid_t ourUser() {
    static const uid_t user = geteuid();
    return user;
}

Metadata metadataOf(const struct stat& status, const std::string& relative) {
    Metadata metadata;
    metadata.directory = S_ISDIR(status.st_mode);
    metadata.link = S_ISLNK(status.st_mode);
    metadata.mode = status.st_mode & 07777;
    metadata.uid = status.st_uid;
    metadata.gid = status.st_gid;
    metadata.modified = status.st_mtim;
    metadata.accessed = status.st_atim;
    metadata.size = static_cast<uint64_t>(status.st_size);
    metadata.relative = relative;
    return metadata;
}

bool isOurs(const struct stat& status) {
    return status.st_uid == ourUser() && status.st_nlink == 1 && (status.st_mode & 022) == 0;
}

bool lendsRights(const Metadata& metadata) {
    if (metadata.directory || metadata.link) return false;
    return (metadata.mode & kSetId) != 0 ||
           std::any_of(metadata.attributes.begin(), metadata.attributes.end(),
                       [](const auto& attribute) { return lendsRights(attribute.first); });
}

Metadata withoutLentRights(Metadata metadata) {
    metadata.mode &= ~kSetId;
    std::erase_if(metadata.attributes,
                  [](const auto& attribute) { return lendsRights(attribute.first); });
    return metadata;
}

std::string PutBack::describe() const {
    std::string text;
    const auto add = [&text](const char* what, int error) {
        if (error == 0) return;
        if (!text.empty()) text += ", ";
        text += std::string(what) + ": " + std::generic_category().message(error);
    };
    add("owner", owner);
    add("permissions", mode);
    for (const auto& [name, error] : attributes) add(name.c_str(), error);
    add("time", time);
    return text;
}

FoundMetadata lookAtOpen(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return {.error = errno, .status = {}, .attributes = {}};
    return lookAtOpen(descriptor, status);
}

FoundMetadata lookAtOpen(int descriptor, const struct stat& status) {
    FoundMetadata found{.error = 0, .status = status, .attributes = {}};
    found.attributes = readAttributes(descriptor, &found.error);
    return found;
}

bool mayPutBack(const Metadata& metadata, const struct stat& found) {
    if (found.st_uid == metadata.uid && found.st_gid == metadata.gid) return true;
    return found.st_uid == ourUser() && (!metadata.directory || found.st_uid == metadata.uid);
}

PutBack putBack(const Metadata& metadata, const FoundMetadata& found, int descriptor) {
    const int refusal = found.error != 0                     ? found.error
                        : mayPutBack(metadata, found.status) ? 0
                                                             : EPERM;
    if (refusal != 0) return {.owner = refusal, .mode = refusal, .time = refusal, .attributes = {}};
    PutBack result;
    result.attributes = takeOffLists(metadata.attributes, found.attributes, descriptor);
    const bool sameOwner =
        found.status.st_uid == metadata.uid && found.status.st_gid == metadata.gid;
    if (!sameOwner && fchown(descriptor, metadata.uid, metadata.gid) != 0) result.owner = errno;
    // With another owner the rights would be lent by somebody who was never meant to.
    const Metadata reduced = result.owner == 0 ? Metadata() : withoutLentRights(metadata);
    const Metadata& given = result.owner == 0 ? metadata : reduced;
    const auto list = given.attributes.find(kAccessList);
    const mode_t mode =
        list == given.attributes.end() ? given.mode : modeWithoutList(given.mode, list->second);
    if (fchmod(descriptor, mode) != 0) result.mode = errno;
    for (RefusedAttribute& refused :
         putAttributes(given.attributes, found.attributes, descriptor)) {
        result.attributes.push_back(std::move(refused));
    }
    result.time = putBackTimes(metadata, descriptor);
    return result;
}

std::string differences(const Metadata& metadata, const FoundMetadata& found) {
    if (found.error != 0) return std::generic_category().message(found.error);
    const Metadata is = metadataOf(found.status, "");
    std::string text;
    const auto addIf = [&text](bool different, const char* what) {
        if (!different) return;
        if (!text.empty()) text += ", ";
        text += what;
    };
    addIf(is.uid != metadata.uid || is.gid != metadata.gid, "owner");
    addIf(is.mode != metadata.mode, "permissions");
    addIf(!areAsWanted(metadata.attributes, found.attributes), "attributes");
    addIf(is.modified.tv_sec != metadata.modified.tv_sec ||
              is.modified.tv_nsec != metadata.modified.tv_nsec,
          "time");
    return text;
}

int putBackTime(const timespec& modified, int descriptor) {
    const timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, modified};
    return futimens(descriptor, times) == 0 ? 0 : errno;
}

int putBackTimes(const Metadata& metadata, int descriptor) {
    const timespec times[2] = {metadata.accessed, metadata.modified};
    return futimens(descriptor, times) == 0 ? 0 : errno;
}

}  // namespace host
