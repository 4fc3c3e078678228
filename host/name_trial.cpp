#include "name_trial.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

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

    /// False when the name is taken.
    [[nodiscard]] bool take(const std::string& name) const {
        const std::string path = path_ + "/" + name;
        const android::base::unique_fd file(
            open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file.ok() && errno != EEXIST) throwErrno("cannot create " + path);
        return file.ok();
    }

  private:
    /// With what a trial leaves, and nothing else. What stays goes with the next trial, or stops
    /// it.
    void remove() const {
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(path_, ignored)) {
            if (entry.is_regular_file(ignored) && entry.file_size(ignored) == 0) {
                fs::remove(entry.path(), ignored);
            }
        }
        (void)rmdir(path_.c_str());
    }
    std::string path_;
};

}  // namespace

std::vector<std::string> clashingNames(const std::string& directory,
                                       const std::vector<std::string>& names) {
    if (names.size() < 2) return {};
    const TrialFolder folder(directory + "/" + std::string(names::kNameTrial));
    const std::string otherCase = directory + "/" + std::string(names::kNameTrialInOtherCase);
    if (access(otherCase.c_str(), F_OK) != 0) return {};
    std::vector<std::string> clashing;
    for (const std::string& name : names) {
        if (!folder.take(name)) clashing.push_back(name);
    }
    return clashing;
}

}  // namespace host
