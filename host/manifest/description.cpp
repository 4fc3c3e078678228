#include "manifest/description.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "manifest/attributes.h"
#include "manifest/held_link.h"
#include "tree/content_sum.h"

using android::base::unique_fd;
using files::HeldDirectory;

namespace host {
namespace {

[[noreturn]] void refuseOtherKind(const std::string& path) {
    throw JobEnd(ExitStatus::kFailed, path +
                                          " has become something else meanwhile. Nothing was "
                                          "moved; run this again.");
}

/// Whether somebody else than the file's owner could exchange it between two looks by name, so that
/// the access list of another file, or none, would be taken for its own. Without its list the bits
/// of the group would let in more than it did.
bool mayBeAnothersList(const Metadata& above, const Metadata& file) {
    if (ourUser() != 0 || (file.mode & S_IRWXG) == 0) return false;
    return (above.mode & (S_IWGRP | S_IWOTH)) != 0 || (above.uid != 0 && above.uid != file.uid);
}

}  // namespace

Metadata describeDirectory(const HeldDirectory& directory, const std::string& relative) {
    struct stat status {};
    if (fstat(directory.descriptor(), &status) != 0) {
        throwErrno("cannot look at " + directory.path());
    }
    Metadata metadata = metadataOf(status, relative);
    metadata.attributes = readAttributes(directory.descriptor(), directory.path());
    return metadata;
}

Metadata describeFile(const HeldDirectory& directory, const Metadata& above,
                      const std::string& name, const struct stat& status) {
    const std::string relative = above.relative + "/" + name;
    Metadata metadata = metadataOf(status, relative);
    if (!lendsRights(metadata) && !mayBeAnothersList(above, metadata) &&
        !hasAttributes(directory, name)) {
        return metadata;
    }
    // All of it from one descriptor: what was looked at may have been exchanged since.
    const std::string path = directory.pathOf(name);
    struct stat opened {};
    const unique_fd file = directory.openForReading(name, &opened);
    if (!file.ok()) throwErrno("cannot read the attributes of " + path);
    metadata = metadataOf(opened, relative);
    metadata.attributes = readAttributes(file.get(), path);
    if (lendsRights(metadata) && ourUser() == 0) metadata.sum = contentSum(file.get(), path);
    return metadata;
}

Metadata describeLink(const HeldDirectory& directory, const Metadata& above,
                      const std::string& name) {
    const HeldLink link(directory, name);
    if (link.error() == EINVAL) refuseOtherKind(directory.pathOf(name));
    throwIfError(-link.error(), "cannot look at " + directory.pathOf(name));
    Metadata metadata = metadataOf(link.status(), above.relative + "/" + name);
    metadata.text = link.text();
    return metadata;
}

}  // namespace host
