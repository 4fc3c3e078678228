#include "manifest.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <fmt/format.h>

#include "durable_file.h"
#include "job_end.h"
#include "names.h"
#include "tree_walk.h"

namespace host {
namespace {

std::string encode(const Metadata& metadata) {
    std::string record =
        fmt::format("{} {:o} {} {} {}.{:09} {} {}", metadata.directory ? 'd' : 'f', metadata.mode,
                    metadata.uid, metadata.gid, metadata.modified.tv_sec, metadata.modified.tv_nsec,
                    metadata.size, metadata.relative);
    record += '\0';
    return record;
}

bool decode(const char* record, Metadata& metadata) {
    char kind = 0;
    int consumed = 0;
    // Written by encode() alone, so that no field can be too large for its type.
    // NOLINTNEXTLINE(cert-err34-c)
    const int fields = sscanf(record, "%c %o %u %u %ld.%ld %" SCNu64 " %n", &kind, &metadata.mode,
                              &metadata.uid, &metadata.gid, &metadata.modified.tv_sec,
                              &metadata.modified.tv_nsec, &metadata.size, &consumed);
    if (fields != 7 || consumed == 0) return false;
    metadata.directory = kind == 'd';
    metadata.relative = record + consumed;
    return true;
}

/// What getdelim() grows.
struct Line {
    char* text = nullptr;
    size_t capacity = 0;
    Line() = default;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line() { std::free(text); }
};

[[noreturn]] void throwDamaged(const Tree& tree) {
    throw JobEnd(ExitStatus::kFailed,
                 tree.manifestPath() + " cannot be read. No file is lost; look at this file.");
}

}  // namespace

Metadata metadataOf(const struct stat& status, const std::string& relative) {
    return {.directory = S_ISDIR(status.st_mode),
            .mode = status.st_mode & 07777,
            .uid = status.st_uid,
            .gid = status.st_gid,
            .modified = status.st_mtim,
            .size = static_cast<uint64_t>(status.st_size),
            .relative = relative};
}

void writeManifest(const Tree& tree, Direction direction, const timespec& rootTime,
                   const std::function<void()>& betweenDirectories) {
    DurableFile manifest(tree.manifestPath());
    const std::string& root = tree.source(direction);
    const auto add = [&](const std::string& relative) {
        struct stat status {};
        const std::string path = root + relative;
        if (lstat(path.c_str(), &status) != 0) throwErrno("cannot look at " + path);
        if (relative.empty()) status.st_mtim = rootTime;
        manifest.append(encode(metadataOf(status, relative)));
    };
    walkTree(root, [&](const std::string& relative, const std::vector<Entry>& entries) {
        betweenDirectories();
        add(relative);
        for (const Entry& entry : entries) {
            if (entry.type == DT_REG && !entry.name.starts_with(names::kOwnPrefix)) {
                add(relative + "/" + entry.name);
            }
        }
    });
    manifest.commit();
}

bool readManifest(const Tree& tree, const std::function<void(const Metadata&)>& each) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(tree.manifestPath().c_str(), "re"),
                                                     fclose);
    if (file == nullptr) {
        if (errno == ENOENT) return false;
        throwErrno("cannot open " + tree.manifestPath());
    }
    Line line;
    while (getdelim(&line.text, &line.capacity, '\0', file.get()) > 0) {
        Metadata metadata;
        if (!decode(line.text, metadata)) throwDamaged(tree);
        each(metadata);
    }
    if (ferror(file.get()) != 0) throwDamaged(tree);
    return true;
}

bool putBackTime(const Metadata& metadata, const std::string& path) {
    const timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, metadata.modified};
    return utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

bool putBack(const Metadata& metadata, const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return false;
    if ((status.st_uid != metadata.uid || status.st_gid != metadata.gid) &&
        lchown(path.c_str(), metadata.uid, metadata.gid) != 0) {
        return false;
    }
    return chmod(path.c_str(), metadata.mode) == 0 && putBackTime(metadata, path);
}

void makeDirectoryLike(const std::string& model, const std::string& path) {
    struct stat status {};
    if (stat(model.c_str(), &status) != 0) throwErrno("cannot look at " + model);
    if (mkdir(path.c_str(), 0700) != 0) {
        if (errno != EEXIST) throwErrno("cannot create " + path);
        return;
    }
    if (!putBack(metadataOf(status, ""), path)) {
        throwErrno("cannot set the owner and mode of " + path);
    }
    syncDirectory(path.substr(0, path.rfind('/')));
}

void makeTargetDirectories(const Tree& tree, Direction direction,
                           const std::function<void()>& betweenDirectories) {
    walkTree(tree.source(direction), [&](const std::string& relative, const std::vector<Entry>&) {
        betweenDirectories();
        makeDirectoryLike(tree.source(direction) + relative, tree.target(direction) + relative);
    });
}

Restored restoreMetadata(const Tree& tree, Direction direction) {
    const std::string& source = tree.source(direction);
    const std::string& target = tree.target(direction);
    Restored restored;
    readManifest(tree, [&](const Metadata& metadata) {
        const std::string path = target + metadata.relative;
        if (metadata.relative.empty()) {
            restored.root = metadata;
            return;
        }
        struct stat status {};
        const bool there =
            lstat(path.c_str(), &status) == 0 &&
            (metadata.directory ? S_ISDIR(status.st_mode) : S_ISREG(status.st_mode)) &&
            (metadata.directory || static_cast<uint64_t>(status.st_size) == metadata.size);
        if (!there) {
            restored.missing.push_back(path);
        } else if (!putBack(metadata, path)) {
            restored.refused.push_back(path);
        }
        if (there && !metadata.directory) ++restored.files;
        // The next job takes this directory's time for that of its twin in the target.
        if (metadata.directory) (void)putBackTime(metadata, source + metadata.relative);
    });
    return restored;
}

}  // namespace host
