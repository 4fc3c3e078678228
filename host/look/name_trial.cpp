#include "look/name_trial.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <unordered_set>

#include "end/throw_errno.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {
namespace {

/// A folder that follows the same rules as the directory it is made in.
class TrialFolder {
  public:
    explicit TrialFolder(const HeldDirectory& directory) : directory_(directory) {
        remove();  // left by one that was killed
        const std::string path = directory_.pathOf(name_);
        if (!directory_.makeChild(name_, 0700)) throwErrno("cannot create " + path);
        folder_ = directory_.openChild(name_);
        throwIfError(folder_.error(), "cannot open " + path);
    }
    TrialFolder(const TrialFolder&) = delete;
    TrialFolder& operator=(const TrialFolder&) = delete;
    ~TrialFolder() { remove(); }  // where the trial has failed, and of that is told already

    /// Throws std::system_error: what is ours must not stay there unsaid.
    void finish() const {
        remove();
        struct stat status {};
        if (directory_.look(name_, &status)) {
            throw std::system_error(EBUSY, std::generic_category(),
                                    "cannot remove " + directory_.pathOf(name_));
        }
    }

    /// False when the name is taken, or none that the file system would ever take.
    [[nodiscard]] bool take(const std::string& name) const {
        if (folder_.createNew(name, 0600).ok()) return true;
        if (errno == EEXIST || errno == EINVAL || errno == EILSEQ || errno == ENAMETOOLONG) {
            return false;
        }
        throwErrno("cannot create " + folder_.pathOf(name));
    }

  private:
    /// Removes only what a trial makes: empty files, and the folder once nothing else is in it.
    /// What stays goes with the next trial, or stops it.
    void remove() const {
        HeldDirectory folder = directory_.openChild(name_);
        if (!folder.beginListing()) return;
        while (const dirent* const entry = folder.nextEntry()) {
            struct stat status {};
            if (folder.look(entry->d_name, &status) && S_ISREG(status.st_mode) &&
                status.st_size == 0) {
                (void)folder.remove(entry->d_name);
            }
        }
        (void)directory_.removeChild(name_);
    }

    const std::string name_{names::kNameTrial};
    const HeldDirectory& directory_;
    HeldDirectory folder_;
};

bool moves(const Entry& entry) {
    return (entry.type == DT_REG || entry.type == DT_DIR) &&
           !entry.name.starts_with(names::kOwnPrefix);
}

std::vector<std::string> tryNames(const TrialFolder& folder, const std::vector<Entry>& entries) {
    std::vector<std::string> unfit;
    std::unordered_set<std::string> taken;
    for (const Entry& entry : entries) {
        if (!moves(entry)) continue;
        if (folder.take(entry.name)) {
            taken.insert(entry.name);
        } else {
            unfit.push_back(entry.name);
        }
    }
    // Beside exactly .N the order of the list keeps N safe; it knows of no other spelling.
    for (const Entry& entry : entries) {
        const std::string dotted = "." + entry.name;
        if (entry.type != DT_REG || !taken.contains(entry.name) || taken.contains(dotted)) continue;
        if (!folder.take(dotted)) unfit.push_back(entry.name);
    }
    return unfit;
}

}  // namespace

std::vector<std::string> unfitNames(const HeldDirectory& directory,
                                    const std::vector<Entry>& entries) {
    if (std::none_of(entries.begin(), entries.end(), moves)) return {};
    const TrialFolder folder(directory);
    std::vector<std::string> unfit;
    struct stat status {};
    if (directory.look(std::string(names::kNameTrialInOtherCase), &status)) {
        unfit = tryNames(folder, entries);
    }
    folder.finish();
    return unfit;
}

}  // namespace host
