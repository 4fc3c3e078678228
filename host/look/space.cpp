#include "look/space.h"

#include <cstdint>

#include "tree/file_system.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {

void judgeSpace(const HeldDirectory& source, const HeldDirectory& target, Preflight& result) {
    const uint64_t needed = result.largest + names::kSpaceReserve;
    // The scan asks for it on its own side.
    if (needed > freeBytes(source)) result.findings[Finding::kNoSpace].push_back(source.path());
    if (result.files == 0 || !target.isOpen()) return;
    const uint64_t free = freeBytes(target);
    if (needed > free) {
        result.findings[Finding::kNoSpace].push_back(target.path());
        return;
    }
    // Within one file system every file that has been moved makes room for the next.
    const bool one = onOneFileSystem(source, target);
    const uint64_t all = one ? needed + result.addedBytes() : result.bytes;
    if (all > free) result.findings[Finding::kMaybeNoSpace].push_back(target.path());
}

}  // namespace host
