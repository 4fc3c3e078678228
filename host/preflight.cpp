#include "preflight.h"

#include <dirent.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "names.h"
#include "tree_walk.h"

namespace host {
namespace {

/// With a dot in front these are names of the worker's or the host's own files.
constexpr std::array<std::string_view, 4> kReservedNames = {
    names::kProcessFile.substr(1), names::kIntermediatePrefix.substr(1),
    names::kJobRecord.substr(1), names::kManifest.substr(1)};

bool isReserved(std::string_view name) {
    return std::any_of(kReservedNames.begin(), kReservedNames.end(),
                       [name](std::string_view reserved) { return name.starts_with(reserved); });
}

/// For a user other than root, who could not give such a file its owner and group back.
bool ownershipCanBePutBack(const struct stat& status) {
    if (geteuid() == 0) return true;
    if (status.st_uid != geteuid()) return false;
    std::vector<gid_t> groups(static_cast<size_t>(std::max(0, getgroups(0, nullptr))));
    groups.resize(static_cast<size_t>(
        std::max(0, getgroups(static_cast<int>(groups.size()), groups.data()))));
    return status.st_gid == getegid() ||
           std::find(groups.begin(), groups.end(), status.st_gid) != groups.end();
}

/// One look at a tree; what it meets goes into `result`.
class Inspector {
  public:
    Inspector(const Tree& tree, Direction direction, const PreflightOptions& options)
        : source_(tree.source(direction)), target_(tree.target(direction)), options_(options) {}

    Preflight run(const Tree& tree, const std::function<void()>& betweenDirectories) {
        lookAtRoots(tree);
        if (!isDirectory(source_)) return std::move(result_);
        walkTree(
            source_,
            [&](const std::string& relative, const std::vector<Entry>& entries) {
                betweenDirectories();
                lookAtDirectory(relative, entries);
            },
            [&](const std::string& relative, int) {
                found(Finding::kDirectoryUnusable, source_ + relative);
            });
        lookAtSpace();
        return std::move(result_);
    }

  private:
    void found(Finding finding, const std::string& path) {
        result_.findings[finding].push_back(path);
    }

    void lookAtRoots(const Tree& tree) {
        if (!isDirectory(tree.encrypted)) {
            found(Finding::kTargetMissing, tree.encrypted);
        } else if (!isOnEcryptfs(tree.encrypted) && !options_.allowPlain) {
            found(Finding::kTargetPlain, tree.encrypted);
        }
        if (!isDirectory(tree.plain) && source_ == tree.plain) {
            found(Finding::kSourceMissing, source_);
        }
        struct statvfs limits {};
        if (statvfs(target_.c_str(), &limits) == 0) longestName_ = limits.f_namemax;
    }

    void lookAtDirectory(const std::string& relative, const std::vector<Entry>& entries) {
        const std::string directory = source_ + relative;
        if (access(directory.c_str(), R_OK | W_OK | X_OK) != 0) {
            found(Finding::kDirectoryUnusable, directory);
        }
        lookAtOwner(directory);
        lookAtTypes(entries, directory);
        lookAtTargetDirectory(target_ + relative);
        for (const Entry& entry : entries) {
            const std::string path = directory + "/" + entry.name;
            if (entry.type == DT_UNKNOWN) continue;
            if (entry.name.starts_with(names::kOwnPrefix)) {
                lookAtOwnName(entry, path, relative.empty());
            } else if (entry.type == DT_DIR) {
                lookAtSubdirectory(entry.name, relative);
            } else if (entry.type == DT_REG) {
                lookAtFile(entry.name, relative);
            } else {
                found(entry.type == DT_LNK ? Finding::kSymbolicLink : Finding::kSpecialFile, path);
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

    /// What is found at this path, which need not be called quite the same; 0 for nothing.
    static mode_t kindAt(const std::string& path) {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
    }

    void lookAtTargetDirectory(const std::string& directory) {
        if (!isDirectory(directory)) return;
        if (access(directory.c_str(), R_OK | W_OK | X_OK) != 0) {
            found(Finding::kDirectoryUnusable, directory);
            return;
        }
        lookAtTypes(listDirectory(directory), directory);
        // A list on this side belongs to a job of the other direction.
        const std::string list = directory + "/" + std::string(names::kProcessFile);
        if (kindAt(list) != 0) found(Finding::kForeignList, list);
    }

    void lookAtOwnName(const Entry& entry, const std::string& path, bool inRoot) {
        if (entry.name == names::kProcessFile) {
            found(Finding::kForeignList, path);
        } else if (!inRoot || !(entry.name.starts_with(names::kJobRecord) ||
                                entry.name.starts_with(names::kManifest))) {
            found(Finding::kOwnName, path);
        }
    }

    void lookAtSubdirectory(const std::string& name, const std::string& relative) {
        if (name.size() > longestName_) {
            found(Finding::kNameTooLong, source_ + relative + "/" + name);
        }
        const std::string other = target_ + relative + "/" + name;
        const mode_t kind = kindAt(other);
        if (kind != 0 && !S_ISDIR(kind)) found(Finding::kOtherKindOnTarget, other);
    }

    void lookAtFile(const std::string& name, const std::string& relative) {
        const std::string path = source_ + relative + "/" + name;
        lookAtName(name, path, target_ + relative);
        const std::string dotted = relative + "/." + name;
        if (S_ISDIR(kindAt(source_ + dotted))) found(Finding::kDottedDirectory, path);
        if (kindAt(target_ + dotted) != 0) found(Finding::kDottedOnTarget, path);
        const std::string same = target_ + relative + "/" + name;
        const mode_t kind = kindAt(same);
        if (S_ISDIR(kind)) {
            found(Finding::kOtherKindOnTarget, same);
        } else if (kind != 0 && !options_.replace) {
            found(Finding::kSameNameOnTarget, same);
        }
        lookAtContent(name, path);
    }

    void lookAtName(const std::string& name, const std::string& path,
                    const std::string& targetDirectory) {
        if (name.find('\n') != std::string::npos) found(Finding::kNewline, path);
        const size_t moving = names::kIntermediatePrefix.size() + name.size();
        if (moving > longestName_) found(Finding::kNameTooLong, path);
        if (targetDirectory.size() + 1 + moving >= PATH_MAX) found(Finding::kPathTooLong, path);
        if (isReserved(name)) found(Finding::kReservedName, path);
    }

    void lookAtContent(const std::string& name, const std::string& path) {
        struct stat status {};
        if (lstat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
            found(Finding::kUnreadable, path);
            return;
        }
        lookAtOwner(path);
        if (status.st_nlink > 1) found(Finding::kHardLink, path);
        const auto size = static_cast<uint64_t>(status.st_size);
        ++result_.files;
        result_.bytes += size + name.size();
        result_.largest = std::max(result_.largest, size);
    }

    void lookAtOwner(const std::string& path) {
        struct stat status {};
        if (lstat(path.c_str(), &status) == 0 && !ownershipCanBePutBack(status)) {
            found(Finding::kOwner, path);
        }
    }

    void lookAtSpace() {
        if (result_.files == 0 || !isDirectory(target_)) return;
        const uint64_t free = freeBytes(target_);
        if (result_.largest + names::kSpaceReserve > free) {
            found(Finding::kNoSpace, target_);
        } else if (result_.bytes > free && !onOneFileSystem(source_, target_)) {
            found(Finding::kMaybeNoSpace, target_);
        }
    }

    const std::string& source_;
    const std::string& target_;
    const PreflightOptions& options_;
    size_t longestName_ = NAME_MAX;
    Preflight result_;
};

}  // namespace

bool isRefusal(Finding finding) { return finding < Finding::kSymbolicLink; }

FindingText describe(Finding finding) {
    switch (finding) {
        case Finding::kTargetMissing:
            return {"target-missing",
                    "is missing: create it and mount the eCryptfs directory there"};
        case Finding::kTargetPlain:
            return {"target-plain",
                    "is not on an eCryptfs mount, nothing would be encrypted (--allow-plain if "
                    "that is what you want)"};
        case Finding::kSourceMissing:
            return {"source-missing", "is missing"};
        case Finding::kDirectoryUnusable:
            return {"directory-unusable", "is a directory that you cannot list and write"};
        case Finding::kNoEntryTypes:
            return {"no-entry-types",
                    "is on a file system that reports no entry types; its files would not be seen"};
        case Finding::kNewline:
            return {"newline",
                    "has a line feed in its name, which the lists of the move cannot hold"};
        case Finding::kNameTooLong:
            return {
                "name-too-long",
                "has a name too long for the target, where a file needs 23 bytes more on its way"};
        case Finding::kPathTooLong:
            return {"path-too-long", "has a path too long for the target"};
        case Finding::kReservedName:
            return {"reserved-name",
                    "has a name that becomes one of the mover's own with a dot in front"};
        case Finding::kDottedDirectory:
            return {"dotted-directory",
                    "stands beside a directory called the same with a dot in front, the name the "
                    "file needs on its way"};
        case Finding::kDottedOnTarget:
            return {"dotted-on-target",
                    "needs its name with a dot in front on its way, and the target has something "
                    "called that"};
        case Finding::kSameNameOnTarget:
            return {"on-target", "is already in the target (--replace overwrites it)"};
        case Finding::kOtherKindOnTarget:
            return {"other-kind-on-target",
                    "is in the way in the target: a file where a directory belongs, or the other "
                    "way round"};
        case Finding::kUnfitName:
            return {"unfit-name",
                    "has a name that the target refuses, or does not tell from another beside it, "
                    "in upper or lower case, with or without a dot in front"};
        case Finding::kUnreadable:
            return {"unreadable", "cannot be read"};
        case Finding::kOwner:
            return {"owner", "belongs to a user or group that only root could give it back to"};
        case Finding::kForeignList:
            return {"unfinished-move",
                    "belongs to an unfinished move that vaultctl did not begin in this direction: "
                    "finish that first"};
        case Finding::kNoSpace:
            return {"no-space", "has no room for the largest file and 5 MiB beside it"};
        case Finding::kSymbolicLink:
            return {"symbolic-link", "is a symbolic link and stays behind"};
        case Finding::kSpecialFile:
            return {"special-file", "is a special file and stays behind"};
        case Finding::kHardLink:
            return {"hard-link", "has more than one hard link and becomes a separate copy"};
        case Finding::kOwnName:
            return {"own-name", "has one of the mover's own names and stays behind"};
        case Finding::kMaybeNoSpace:
            return {"space-tight",
                    "has less free space than the files need; a move that fills it stops and can "
                    "be carried on"};
    }
    return {};
}

bool Preflight::refused() const {
    return std::any_of(findings.begin(), findings.end(),
                       [](const auto& finding) { return isRefusal(finding.first); });
}

Preflight inspect(const Tree& tree, Direction direction, const PreflightOptions& options,
                  const std::function<void()>& betweenDirectories) {
    return Inspector(tree, direction, options).run(tree, betweenDirectories);
}

}  // namespace host
