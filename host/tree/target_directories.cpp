#include "tree/target_directories.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "tree/attributes.h"
#include "tree/descent.h"
#include "tree/durable.h"
#include "tree/metadata.h"
#include "tree/walk.h"

using files::HeldDirectory;

namespace host {
namespace {

Metadata metadataOfDirectory(const HeldDirectory& directory) {
    struct stat status {};
    if (fstat(directory.descriptor(), &status) != 0) {
        throwErrno("cannot look at " + directory.path());
    }
    return metadataOf(status, "");
}

/// The access list that `directory` has, or none.
Attributes accessListOf(const HeldDirectory& directory) {
    Attributes list = readAttributes(directory.descriptor(), directory.path());
    std::erase_if(list, [](const auto& attribute) { return attribute.first != kAccessList; });
    return list;
}

/// With its access list, or the bits of the group would let in more than it does. Where the target
/// does not take the list, those who are on it stay out.
void giveOwnerAndMode(const Metadata& model, const Attributes& list,
                      const HeldDirectory& directory) {
    const int descriptor = directory.descriptor();
    const Attributes found = readAttributes(descriptor, directory.path());
    const mode_t mode =
        list.empty() ? model.mode : modeWithoutList(model.mode, list.begin()->second);
    if (!takeOffLists(list, found, descriptor).empty() ||
        fchown(descriptor, model.uid, model.gid) != 0 || fchmod(descriptor, mode) != 0) {
        throwErrno("cannot set the owner and permissions of " + directory.path());
    }
    (void)putAttributes(list, found, descriptor);  // what is refused shows before the move begins
}

/// Throws when it cannot be told: a directory that was passed over would keep an owner of ours.
bool isOursAndEmpty(HeldDirectory& directory) {
    if (metadataOfDirectory(directory).uid != geteuid()) return false;
    if (!directory.beginListing()) throwErrno("cannot list " + directory.path());
    if (directory.nextEntry() != nullptr) return false;
    if (errno != 0) throwErrno("cannot list " + directory.path());
    return true;
}

}  // namespace

void makeTargetDirectory(const Visit& source, Descent& target) {
    if (source.relative.empty()) return;
    const size_t slash = source.relative.rfind('/');
    const HeldDirectory parent = target.open(source.relative.substr(0, slash));
    throwIfError(parent.error(), "cannot open " + parent.path());
    const std::string name = source.relative.substr(slash + 1);
    if (!parent.makeChild(name, 0700) && errno != EEXIST) {
        throwErrno("cannot create " + parent.pathOf(name));
    }
    HeldDirectory directory = parent.openChild(name);
    throwIfError(directory.error(), "cannot open " + directory.path());
    // Made here, or by one that was killed. One that holds something may be this user's own, moved
    // here by whoever owns the tree; what is in it would be his to read.
    if (!isOursAndEmpty(directory)) return;
    giveOwnerAndMode(metadataOfDirectory(source.directory), accessListOf(source.directory),
                     directory);
    syncDirectory(parent);
}

void makeTargetDirectories(const HeldDirectory& source, const HeldDirectory& target,
                           const std::function<void()>& betweenDirectories) {
    Descent descent(target);
    const auto make = [&](const Visit& visit) {
        betweenDirectories();
        makeTargetDirectory(visit, descent);
    };
    walkTree(source, make, Keep::kDirectoriesAndOwnNames);
}

void hideTargetLikeSource(const HeldDirectory& source, const HeldDirectory& target) {
    const Metadata wanted = metadataOfDirectory(source);
    const Metadata found = metadataOfDirectory(target);
    const Attributes list = accessListOf(source);
    if (wanted.uid == found.uid && wanted.gid == found.gid && wanted.mode == found.mode &&
        list == accessListOf(target)) {
        return;
    }
    try {
        giveOwnerAndMode(wanted, list, target);
    } catch (const std::system_error& error) {
        throw JobEnd(ExitStatus::kRefused,
                     std::string(error.what()) + ": it would not hide what " + source.path() +
                         " hides. Nothing was moved; give it that owner and those permissions "
                         "and run this again.");
    }
}

}  // namespace host
