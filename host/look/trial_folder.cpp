#include "look/trial_folder.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "end/throw_errno.h"

using files::HeldDirectory;

namespace host {

TrialFolder::TrialFolder(const HeldDirectory& directory) : directory_(directory) {
    remove();  // left by one that was killed
    const std::string path = directory_.pathOf(name_);
    if (!directory_.makeChild(name_, 0700)) throwErrno("cannot create " + path);
    folder_ = directory_.openChild(name_);
    throwIfError(folder_.error(), "cannot open " + path);
}

TrialFolder::~TrialFolder() {
    remove();
}  // where the trial has failed, and of that is told already

void TrialFolder::finish() const {
    remove();
    struct stat status {};
    if (directory_.look(name_, &status)) {
        throw std::system_error(EBUSY, std::generic_category(),
                                "cannot remove " + directory_.pathOf(name_));
    }
}

/// Removes only what a trial makes, and the folder once nothing else is in it. What stays goes with
/// the next trial, or stops it.
void TrialFolder::remove() const {
    HeldDirectory folder = directory_.openChild(name_);
    if (!folder.beginListing()) return;
    while (const dirent* const entry = folder.nextEntry()) {
        struct stat status {};
        if (!folder.look(entry->d_name, &status)) continue;
        const bool emptyFile = S_ISREG(status.st_mode) && status.st_size == 0;
        if (emptyFile || S_ISLNK(status.st_mode)) (void)folder.remove(entry->d_name);
        if (S_ISDIR(status.st_mode)) (void)folder.removeChild(entry->d_name);
    }
    (void)directory_.removeChild(name_);
}

}  // namespace host
