#include "name_trial.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <unordered_set>

#include <android-base/unique_fd.h>

#include "durable_file.h"
#include "names.h"

namespace fs = std::filesystem;

namespace host {
namespace {

/// A folder that follows the same rules as the directory it is made in.
class TrialFolder {
  public:
    explicit TrialFolder(const std::string& path) : path_(path) {
        remove();  // left by one that was killed
        if (mkdir(path_.c_str(), 0700) != 0) throwErrno("cannot create " + path_);
    }
    TrialFolder(const TrialFolder&) = delete;
    TrialFolder& operator=(const TrialFolder&) = delete;
    ~TrialFolder() { remove(); }

    /// False when the name is taken, or none that the file system would ever take.
    [[nodiscard]] bool take(const std::string& name) const {
        const std::string path = path_ + "/" + name;
        const android::base::unique_fd file(
            open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (file.ok()) return true;
        if (errno == EEXIST || errno == EINVAL || errno == EILSEQ || errno == ENAMETOOLONG) {
            return false;
        }
        throwErrno("cannot create " + path);
    }

  private:
    /// With what a trial leaves, and nothing else. What stays goes with the next trial, or stops
    /// it.
    void remove() const {
        std::error_code error;
        if (!fs::is_directory(fs::symlink_status(path_, error))) return;
        for (fs::directory_iterator at(path_, error), end; !error && at != end;
             at.increment(error)) {
            std::error_code ignored;
            if (at->is_regular_file(ignored) && at->file_size(ignored) == 0) {
                fs::remove(at->path(), ignored);
            }
        }
        (void)rmdir(path_.c_str());
    }
    std::string path_;
};

bool moves(const Entry& entry) {
    return (entry.type == DT_REG || entry.type == DT_DIR) &&
           !entry.name.starts_with(names::kOwnPrefix);
}

}  // namespace

std::vector<std::string> unfitNames(const std::string& directory,
                                    const std::vector<Entry>& entries) {
    if (std::none_of(entries.begin(), entries.end(), moves)) return {};
    const TrialFolder folder(directory + "/" + std::string(names::kNameTrial));
    const std::string otherCase = directory + "/" + std::string(names::kNameTrialInOtherCase);
    if (access(otherCase.c_str(), F_OK) != 0) return {};

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

}  // namespace host
