#include "tree/discard.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

namespace host {

Discarded discardFreeSpace(const files::HeldDirectory& directory) {
    fstrim_range range{};
    range.len = std::numeric_limits<decltype(range.len)>::max();
    if (syncfs(directory.descriptor()) != 0 || ioctl(directory.descriptor(), FITRIM, &range) != 0) {
        return {.bytes = 0, .error = -errno};
    }
    return {.bytes = range.len, .error = 0};
}

}  // namespace host
