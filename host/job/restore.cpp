#include "job/restore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "job/reach.h"
#include "tree/descent.h"

using android::base::unique_fd;
using files::HeldDirectory;

namespace host {
namespace {

class Restorer {
  public:
    Restorer(const HeldDirectory& source, const HeldDirectory& target, bool onlyLook)
        : source_(source),
          target_(target),
          sources_(source),
          targets_(target),
          onlyLook_(onlyLook) {}

    void putBackOne(const Metadata& metadata) {
        if (metadata.directory) {
            putBackDirectory(metadata);
        } else {
            putBackFile(metadata);
        }
    }
    [[nodiscard]] Restored result() { return std::move(restored_); }

  private:
    void putBackDirectory(const Metadata& metadata) {
        reach_.note(metadata);
        directory_ = targets_.open(metadata.relative);
        if (!directory_.isOpen()) {
            notThere(metadata, -directory_.error(), "is no directory");
        } else {
            take(metadata, directory_.descriptor());
        }
        if (onlyLook_) return;
        // The next job takes this directory's time for that of its twin in the target.
        const HeldDirectory twin = sources_.open(metadata.relative);
        if (twin.error() == -ENOENT || twin.error() == -ENOTDIR) return;
        const int error =
            twin.isOpen() ? putBackTime(metadata.modified, twin.descriptor()) : -twin.error();
        if (error == 0) return;
        restored_.refused.push_back(twin.path() +
                                    ": time: " + std::generic_category().message(error));
    }

    /// The manifest names a directory's files right after the directory.
    void putBackFile(const Metadata& metadata) {
        const std::string name = metadata.relative.substr(metadata.relative.rfind('/') + 1);
        struct stat status {};
        const unique_fd file = directory_.openForReading(name, &status);
        if (!file.ok()) {
            notThere(metadata, errno, "is no regular file");
        } else if (static_cast<uint64_t>(status.st_size) != metadata.size) {
            missing(metadata, fmt::format("has {} bytes", status.st_size));
        } else if (status.st_nlink != 1) {
            // Its other name may stand where the owner of the tree has no rights.
            missing(metadata, "has a second name, which no moved file has");
        } else {
            ++restored_.files;
            if (differences(metadata, file.get()).empty()) return;  // as after an earlier attempt
            take(withoutBorrowedRights(metadata), file.get());
        }
    }

    Metadata withoutBorrowedRights(Metadata metadata) {
        constexpr mode_t kSetId = S_ISUID | S_ISGID;
        if ((metadata.mode & kSetId) != 0 && geteuid() == 0 && !reach_.onlyOwner(metadata)) {
            metadata.mode &= ~kSetId;
            restored_.refused.push_back(target_.path() + metadata.relative +
                                        ": set-ID bits, because others than its owner could have "
                                        "exchanged the file");
        }
        return metadata;
    }

    void notThere(const Metadata& metadata, int error, const char* otherKind) {
        if (error == ENOENT) {
            missing(metadata, "is not there");
        } else if (error == ELOOP || error == EISDIR || error == EINVAL || error == ENOTDIR) {
            missing(metadata, otherKind);
        } else {
            restored_.refused.push_back(target_.path() + metadata.relative + ": " +
                                        std::generic_category().message(error));
        }
    }

    void missing(const Metadata& metadata, const std::string& what) {
        std::string text = fmt::format("{}{} {}; it was {}{}", target_.path(), metadata.relative,
                                       what, source_.path(), metadata.relative);
        if (!metadata.directory) text += fmt::format(" with {} bytes", metadata.size);
        restored_.missing.push_back(text);
    }

    void take(const Metadata& metadata, int descriptor) {
        const std::string wrong = onlyLook_ ? differences(metadata, descriptor)
                                            : putBack(metadata, descriptor).describe();
        if (wrong.empty()) return;
        restored_.refused.push_back(target_.path() + metadata.relative + ": " + wrong);
    }

    const HeldDirectory& source_;
    const HeldDirectory& target_;
    Descent sources_;
    Descent targets_;
    bool onlyLook_;
    Reach reach_;
    HeldDirectory directory_;  ///< of the target, whose files come next
    Restored restored_;
};

}  // namespace

Restored restoreMetadata(Manifest& manifest, const HeldDirectory& source,
                         const HeldDirectory& target, const std::function<void()>& between) {
    Restorer restorer(source, target, false);
    manifest.forEach([&](const Metadata& metadata) {
        between();
        restorer.putBackOne(metadata);
    });
    return restorer.result();
}

Restored compareMetadata(Manifest& manifest, const HeldDirectory& source,
                         const HeldDirectory& target) {
    Restorer restorer(source, target, true);
    manifest.forEach([&](const Metadata& metadata) { restorer.putBackOne(metadata); });
    return restorer.result();
}

void reportRestored(const Restored& restored, Report& report) {
    const auto name = [&report](const char* event, const std::vector<std::string>& paths,
                                const char* what) {
        if (paths.empty()) return;
        report.problem(event, {{"paths", paths}},
                       fmt::format("{} ({}):{}", what, paths.size(), nameLines(paths)));
    };
    name("missing", restored.missing, "Not in the target as they were at the start");
    name("metadata", restored.refused, "Without the owner, permissions or time they had");
}

}  // namespace host
