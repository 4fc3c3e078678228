#include "move/target_directories.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "manifest/attributes.h"
#include "manifest/description.h"
#include "manifest/metadata.h"
#include "tree/descent.h"
#include "tree/durable.h"
#include "tree/walk.h"

using files::HeldDirectory;

namespace host {
namespace {

/// The access list in these attributes, or none.
Attributes accessListIn(Attributes attributes) {
    std::erase_if(attributes, [](const auto& attribute) { return attribute.first != kAccessList; });
    return attributes;
}

/// With its access list, or the bits of the group would let in more than it does. Where the target
/// does not take the list, those who are on it stay out.
void giveOwnerAndMode(const Metadata& model, const HeldDirectory& directory) {
    const Attributes list = accessListIn(model.attributes);
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
    if (describeDirectory(directory, "").uid != ourUser()) return false;
    if (!directory.beginListing()) throwErrno("cannot list " + directory.path());
    if (directory.nextEntry() != nullptr) return false;
    if (errno != 0) throwErrno("cannot list " + directory.path());
    return true;
}

void makeDirectory(const Metadata& model, const HeldDirectory& parent, const std::string& name) {
    if (!parent.makeChild(name, 0700) && errno != EEXIST) {
        throwErrno("cannot create " + parent.pathOf(name));
    }
    HeldDirectory directory = parent.openChild(name);
    throwIfError(directory.error(), "cannot open " + directory.path());
    // Made here, or by one that was killed. One that holds something may be this user's own, moved
    // here by whoever owns the tree; what is in it would be his to read.
    if (!isOursAndEmpty(directory)) return;
    giveOwnerAndMode(model, directory);
    syncDirectory(parent);
}

/// Makes the one at `relative`, which is not the root, below what `descent` opens.
void makeBelow(Descent& descent, const std::string& relative, const Metadata& model) {
    const size_t slash = relative.rfind('/');
    const HeldDirectory parent = descent.open(relative.substr(0, slash));
    throwIfError(parent.error(), "cannot open " + parent.path());
    makeDirectory(model, parent, relative.substr(slash + 1));
}

}  // namespace

void makeTargetDirectory(const Visit& source, Descent& target) {
    if (source.relative.empty()) return;
    makeBelow(target, source.relative, describeDirectory(source.directory, source.relative));
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

void makeDirectoriesAgain(Manifest& manifest, const HeldDirectory& target,
                          const std::function<void()>& betweenDirectories) {
    Descent descent(target);
    manifest.forEach([&](const Metadata& metadata) {
        if (!metadata.directory || metadata.relative.empty()) return;
        betweenDirectories();
        makeBelow(descent, metadata.relative, metadata);
    });
}

void hideTargetLikeSource(const HeldDirectory& source, const HeldDirectory& target) {
    const Metadata wanted = describeDirectory(source, "");
    const Metadata found = describeDirectory(target, "");
    if (wanted.uid == found.uid && wanted.gid == found.gid && wanted.mode == found.mode &&
        accessListIn(wanted.attributes) == accessListIn(found.attributes)) {
        return;
    }
    try {
        giveOwnerAndMode(wanted, target);
    } catch (const std::system_error& error) {
        throw JobEnd(ExitStatus::kRefused,
                     std::string(error.what()) + ": it would not hide what " + source.path() +
                         " hides. Nothing was moved; give it that owner and those permissions "
                         "and run this again.");
    }
    syncDirectory(target);
}

}  // namespace host
