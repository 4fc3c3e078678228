#include "restore/certainty.h"

#include <fcntl.h>

#include <cerrno>

#include "tree/content_sum.h"

namespace host {
namespace {

bool isOpenForWriting(int file) {
    // A lease for reading is given only where nobody writes. Where there are no leases, or not for
    // this process, it cannot be known; then only who may write counts.
    return fcntl(file, F_SETLEASE, F_RDLCK) != 0 && (errno == EAGAIN || errno == EBUSY);
}

}  // namespace

bool isCertain(const Metadata& metadata, const struct stat& found, int file) {
    const mode_t mode = found.st_mode & 07777;
    const bool closed = (mode & (S_IWGRP | S_IWOTH)) == 0 || mode == metadata.mode;
    return !metadata.sum.empty() && mayPutBack(metadata, found) && found.st_nlink == 1 && closed &&
           !isOpenForWriting(file) && contentSum(file, metadata.relative) == metadata.sum;
}

}  // namespace host
