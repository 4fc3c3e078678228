#include "tree/file_system.h"

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

using files::HeldDirectory;

namespace host {

bool isOnEcryptfs(const HeldDirectory& directory) {
    struct statfs status {};
    return fstatfs(directory.descriptor(), &status) == 0 && status.f_type == ECRYPTFS_SUPER_MAGIC;
}

uint64_t freeBytes(const HeldDirectory& directory) {
    struct statvfs status {};
    if (fstatvfs(directory.descriptor(), &status) != 0) return 0;
    return uint64_t{status.f_bavail} * status.f_bsize;
}

bool onOneFileSystem(const HeldDirectory& left, const HeldDirectory& right) {
    // eCryptfs passes on the identity of the file system below it, but has a device of its own.
    struct statvfs one {};
    struct statvfs other {};
    if (fstatvfs(left.descriptor(), &one) != 0 || fstatvfs(right.descriptor(), &other) != 0) {
        return false;
    }
    if (one.f_fsid != 0 && one.f_fsid == other.f_fsid) return true;
    struct stat first {};
    struct stat second {};
    return fstat(left.descriptor(), &first) == 0 && fstat(right.descriptor(), &second) == 0 &&
           first.st_dev == second.st_dev;
}

}  // namespace host
