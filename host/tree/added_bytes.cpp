#include "tree/added_bytes.h"

namespace host {

uint64_t AddedBytes::byFilling(const struct stat& status) {
    constexpr uint64_t kBlock = 512;  // of st_blocks, whatever the file system's are
    const auto size = static_cast<uint64_t>(status.st_size);
    const uint64_t written = static_cast<uint64_t>(status.st_blocks) * kBlock;
    const auto rounding = static_cast<uint64_t>(status.st_blksize);
    return size > written + rounding ? size - written : 0;
}

uint64_t AddedBytes::byCopying(const struct stat& status) {
    if (status.st_nlink < 2) return 0;
    const nlink_t names = ++names_[{status.st_dev, status.st_ino}];
    return names == status.st_nlink ? 0 : static_cast<uint64_t>(status.st_size);
}

}  // namespace host
