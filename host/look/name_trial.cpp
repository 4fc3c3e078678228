#include "look/name_trial.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <unordered_set>

#include "end/throw_errno.h"
#include "look/trial_folder.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {
namespace {

/// False when the name is taken, or none that the file system would ever take.
bool take(const TrialFolder& folder, const std::string& name) {
    if (folder.held().createNew(name, 0600).ok()) return true;
    if (errno == EEXIST || errno == EINVAL || errno == EILSEQ || errno == ENAMETOOLONG) {
        return false;
    }
    throwErrno("cannot create " + folder.held().pathOf(name));
}

bool moves(const Entry& entry) {
    return (entry.type == DT_REG || entry.type == DT_DIR || entry.type == DT_LNK) &&
           !entry.name.starts_with(names::kOwnPrefix);
}

std::vector<std::string> tryNames(const TrialFolder& folder, const std::vector<Entry>& entries) {
    std::vector<std::string> unfit;
    std::unordered_set<std::string> taken;
    for (const Entry& entry : entries) {
        if (!moves(entry)) continue;
        if (take(folder, entry.name)) {
            taken.insert(entry.name);
        } else {
            unfit.push_back(entry.name);
        }
    }
    // Beside exactly .N the order of the list keeps N safe; it knows of no other spelling.
    // A link is made when the files are there, whatever it is called.
    for (const Entry& entry : entries) {
        const std::string dotted = "." + entry.name;
        if (entry.type != DT_REG || !taken.contains(entry.name) || taken.contains(dotted)) continue;
        if (!take(folder, dotted)) unfit.push_back(entry.name);
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
