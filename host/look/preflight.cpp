#include "look/preflight.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <unordered_set>
#include <utility>
#include <vector>

#include "look/name_faults.h"
#include "look/owners.h"
#include "look/space.h"
#include "manifest/description.h"
#include "manifest/held_link.h"
#include "tree/added_bytes.h"
#include "tree/descent.h"
#include "tree/file_system.h"
#include "tree/lock.h"
#include "tree/names.h"
#include "tree/overlap.h"
#include "tree/same_bytes.h"
#include "tree/walk.h"

using files::HeldDirectory;

namespace host {
namespace {

/// Whether this user may list and change what is in it.
bool isUsable(const HeldDirectory& directory) {
    return faccessat(directory.descriptor(), ".", R_OK | W_OK | X_OK, 0) == 0;
}

/// Whether it is a root of an unfinished job, or of one that is at work before its first trace.
bool holdsJob(const HeldDirectory& directory) {
    struct stat status {};
    return directory.isOpen() && (directory.look(std::string(names::kJobRecord), &status) ||
                                  directory.look(std::string(names::kMark), &status) ||
                                  lookAtLock(directory) != Holder::kNobody);
}

/// One look at a tree; what it meets goes into `result`.
class Inspector {
  public:
    Inspector(const HeldTree& tree, Direction direction, const PreflightOptions& options,
              std::optional<Direction> abandoned, const Onlooker& onlooker)
        : source_(tree.source(direction)),
          target_(tree.target(direction)),
          targets_(target_),
          options_(options),
          onlooker_(onlooker),
          abandonedLists_(abandoned ? &tree.source(*abandoned) : nullptr) {}

    Preflight run(const HeldTree& tree) {
        lookAtRoots(tree);
        if (!source_.isOpen()) return std::move(result_);
        // What is told to the onlooker is written into the plain root.
        begun_ = onlooker_.begin && !result_.refused() && isUsable(tree.plain);
        if (begun_) onlooker_.begin();
        walkTree(
            source_,
            [&](const Visit& visit) {
                if (onlooker_.betweenDirectories) onlooker_.betweenDirectories();
                lookAtDirectory(visit);
            },
            [&](const std::string& relative, int) {
                found(Finding::kDirectoryUnusable, source_.path() + relative);
            });
        judgeSpace(source_, target_, result_);
        return std::move(result_);
    }

  private:
    /// A directory of the source and its twin in the target, which may be missing.
    struct Pair {
        const Visit& visit;
        const HeldDirectory& source;
        const HeldDirectory& target;
        bool targetIsEmpty;
    };

    void found(Finding finding, const std::string& path) {
        result_.findings[finding].push_back(path);
    }

    void foundAdding(Finding finding, const std::string& path, uint64_t bytes) {
        found(finding, path);
        result_.added[finding] += bytes;
    }

    void lookAtRoots(const HeldTree& tree) {
        if (!tree.encrypted.isOpen()) {
            found(Finding::kTargetMissing, tree.encrypted.path());
        } else if (!isOnEcryptfs(tree.encrypted) && !options_.allowPlain) {
            found(Finding::kTargetPlain, tree.encrypted.path());
        }
        if (!tree.plain.isOpen() && &source_ == &tree.plain) {
            found(Finding::kSourceMissing, source_.path());
        }
        visitAbove(source_, [this](const HeldDirectory& above) { lookAbove(above); });
        // They lie side by side, but for a link or a mount.
        if (!result_.refused()) {
            visitAbove(target_, [this](const HeldDirectory& above) { lookAbove(above); });
        }
        struct statvfs limits {};
        if (fstatvfs(target_.descriptor(), &limits) == 0) longestName_ = limits.f_namemax;
    }

    /// A job there has lists of all that lies below it.
    void lookAbove(const HeldDirectory& above) {
        if (holdsJob(above)) found(Finding::kUnfinishedAbove, above.path());
    }

    /// A directory below one of the roots, which a mount can make a part of both.
    void lookAtPlace(const HeldDirectory& directory) {
        if (isSame(directory, source_) || isSame(directory, target_)) {
            found(Finding::kInBothTrees, directory.path());
        } else if (holdsJob(directory)) {
            found(Finding::kUnfinishedInside, directory.path());
        }
    }

    void lookAtDirectory(const Visit& visit) {
        HeldDirectory target = targets_.open(visit.relative);
        if (!visit.relative.empty()) {
            if (isSame(visit.directory, target)) {
                return found(Finding::kInBothTrees, visit.directory.path());
            }
            lookAtPlace(visit.directory);
            lookAtPlace(target);
        }
        struct stat status {};
        if (fstat(visit.directory.descriptor(), &status) != 0 || !isUsable(visit.directory)) {
            found(Finding::kDirectoryUnusable, visit.directory.path());
        } else {
            lookAtOwner(status, visit.directory, "");
            if (begun_) {
                above_ = describeDirectory(visit.directory, visit.relative);
                onlooker_.each(above_);
            }
        }
        lookAtTypes(visit.entries, visit.directory.path());
        const bool targetIsEmpty = lookAtTargetDirectory(target);
        const Pair pair{visit, visit.directory, target, targetIsEmpty};
        std::unordered_set<std::string_view> subdirectories;
        for (const Entry& entry : visit.entries) {
            if (entry.type == DT_DIR) subdirectories.insert(entry.name);
        }
        for (const Entry& entry : visit.entries) {
            if (entry.type == DT_UNKNOWN) continue;
            if (entry.name.starts_with(names::kOwnPrefix)) {
                lookAtOwnName(entry, pair);
            } else if (entry.type == DT_DIR) {
                lookAtSubdirectory(entry.name, pair);
            } else if (entry.type == DT_REG) {
                const bool besideDotted =
                    !subdirectories.empty() && subdirectories.contains("." + entry.name);
                if (besideDotted) found(Finding::kDottedDirectory, pair.source.pathOf(entry.name));
                lookAtFile(entry.name, pair);
            } else if (entry.type == DT_LNK) {
                lookAtLink(entry.name, pair);
            } else {
                found(Finding::kSpecialFile, pair.source.pathOf(entry.name));
            }
        }
    }

    /// One entry without a type stands for the whole file system.
    void lookAtTypes(const std::vector<Entry>& entries, const std::string& directory) {
        const bool untyped = std::any_of(entries.begin(), entries.end(), [](const Entry& entry) {
            return entry.type == DT_UNKNOWN;
        });
        if (untyped && !result_.findings.contains(Finding::kNoEntryTypes)) {
            found(Finding::kNoEntryTypes, directory);
        }
    }

    /// What the file system finds under this name; 0 for nothing.
    static mode_t kindAt(const HeldDirectory& directory, const std::string& name) {
        struct stat status {};
        return directory.look(name, &status) ? status.st_mode : 0;
    }

    /// Whether there is nothing in it, so that no name of the source need be looked for there. A
    /// name that is in no listing may still be taken for one that is.
    bool lookAtTargetDirectory(HeldDirectory& directory) {
        // What stands there instead is told with the directory above it.
        if (directory.error() == -ENOENT || directory.error() == -ENOTDIR) return true;
        if (!directory.isOpen() || !isUsable(directory)) {
            found(Finding::kDirectoryUnusable, directory.path());
            return false;
        }
        const std::vector<Entry> entries = listDirectory(directory);
        lookAtTypes(entries, directory.path());
        // A list on this side belongs to a job of the other direction.
        const std::string list(names::kProcessFile);
        if (kindAt(directory, list) != 0 && abandonedLists_ != &target_)
            found(Finding::kForeignList, directory.pathOf(list));
        return entries.empty();
    }

    void lookAtOwnName(const Entry& entry, const Pair& pair) {
        const std::string_view name = entry.name;
        const bool inRoot = pair.visit.relative.empty();
        const bool ofAJob = name.starts_with(names::kJobRecord) || name.starts_with(names::kMark);
        if (name == names::kProcessFile) {
            if (abandonedLists_ != &source_) {
                found(Finding::kForeignList, pair.source.pathOf(entry.name));
            }
        } else if (!ofAJob && !(inRoot && name.starts_with(names::kManifest))) {
            found(Finding::kOwnName, pair.source.pathOf(entry.name));
        }
    }

    void lookAtSubdirectory(const std::string& name, const Pair& pair) {
        if (name.size() > longestName_) {
            found(Finding::kNameTooLong, pair.source.pathOf(name));
        }
        const mode_t kind = pair.targetIsEmpty ? 0 : kindAt(pair.target, name);
        if (kind != 0 && !S_ISDIR(kind)) {
            found(Finding::kOtherKindOnTarget, pair.target.pathOf(name));
        }
    }

    void lookAtFile(const std::string& name, const Pair& pair) {
        for (const Finding fault : faultsOfName(name, pair.target.path(), longestName_)) {
            found(fault, pair.source.pathOf(name));
        }
        lookAtContent(name, pair);
        if (pair.targetIsEmpty) return;
        if (kindAt(pair.target, "." + name) != 0) {
            found(Finding::kDottedOnTarget, pair.source.pathOf(name));
        }
        const mode_t kind = kindAt(pair.target, name);
        if (S_ISDIR(kind)) {
            found(Finding::kOtherKindOnTarget, pair.target.pathOf(name));
        } else if (kind != 0 && !options_.replace &&
                   // The same bytes are a file that could not be deleted here after it had arrived
                   // there: it is moved once more.
                   !isTwin(name, pair)) {
            found(Finding::kSameNameOnTarget, pair.target.pathOf(name));
        }
    }

    void lookAtLink(const std::string& name, const Pair& pair) {
        const std::string path = pair.source.pathOf(name);
        if (name.size() > longestName_) found(Finding::kNameTooLong, path);
        struct stat status {};
        if (!pair.source.look(name, &status)) return found(Finding::kUnreadable, path);
        lookAtOwner(status, pair.source, name);
        ++result_.links;
        if (begun_) onlooker_.each(describeLink(pair.source, above_, name));
        if (pair.targetIsEmpty) return;
        // The same link is one that could not be removed here after it had been made there.
        if (kindAt(pair.target, name) != 0 &&
            !isSameLink(HeldLink(pair.target, name), HeldLink(pair.source, name).text())) {
            found(Finding::kOtherKindOnTarget, pair.target.pathOf(name));
        }
    }

    static bool isTwin(const std::string& name, const Pair& pair) {
        try {
            return sameBytes(pair.source, name, pair.target, name);
        } catch (const std::system_error&) {
            return false;  // Whether it is cannot be known.
        }
    }

    void lookAtContent(const std::string& name, const Pair& pair) {
        struct stat status {};
        // What has become something else since the listing could not be moved as a file.
        if (!pair.source.look(name, &status) || !S_ISREG(status.st_mode) ||
            !isReadable(name, status, pair.source)) {
            return found(Finding::kUnreadable, pair.source.pathOf(name));
        }
        lookAtOwner(status, pair.source, name);
        if (status.st_nlink > 1) {
            foundAdding(Finding::kHardLink, pair.source.pathOf(name), added_.byCopying(status));
        }
        const uint64_t filling = AddedBytes::byFilling(status);
        if (filling != 0) foundAdding(Finding::kHoles, pair.source.pathOf(name), filling);
        if (begun_) onlooker_.each(describeFile(pair.source, above_, name, status));
        const auto size = static_cast<uint64_t>(status.st_size);
        ++result_.files;
        result_.bytes += size;
        result_.largest = std::max(result_.largest, size);
    }

    /// Asks only where the file's status does not tell. Files that are not root's to read, in a
    /// user namespace, are told of by their owners.
    bool isReadable(const std::string& name, const struct stat& status,
                    const HeldDirectory& directory) const {
        if (ourUser() == 0 || (status.st_uid == ourUser() && (status.st_mode & S_IRUSR) != 0))
            return true;
        return faccessat(directory.descriptor(), name.c_str(), R_OK, AT_SYMLINK_NOFOLLOW) == 0;
    }

    /// Of a file, or of the directory itself where there is no name.
    void lookAtOwner(const struct stat& status, const HeldDirectory& directory,
                     const std::string& name) {
        if (owners_.canBePutBack(status)) return;
        found(Finding::kOwner, name.empty() ? directory.path() : directory.pathOf(name));
    }

    const HeldDirectory& source_;
    const HeldDirectory& target_;
    Descent targets_;
    const PreflightOptions& options_;
    const Onlooker& onlooker_;
    bool begun_ = false;
    Metadata above_;                       ///< once begun: of the directory that is looked at
    const HeldDirectory* abandonedLists_;  ///< the root of the tree they lie in, or null
    Owners owners_;
    AddedBytes added_;
    size_t longestName_ = NAME_MAX;
    Preflight result_;
};

}  // namespace

Preflight inspect(const HeldTree& tree, Direction direction, const PreflightOptions& options,
                  std::optional<Direction> abandoned, const Onlooker& onlooker) {
    return Inspector(tree, direction, options, abandoned, onlooker).run(tree);
}

}  // namespace host
