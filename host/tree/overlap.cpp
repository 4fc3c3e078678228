#include "tree/overlap.h"

#include <sys/stat.h>

#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

using files::HeldDirectory;

namespace host {
namespace {

bool isAbove(const HeldDirectory& above, const HeldDirectory& directory) {
    bool met = false;
    visitAbove(directory, [&](const HeldDirectory& each) { met = met || isSame(each, above); });
    return met;
}

}  // namespace

bool isSame(const HeldDirectory& left, const HeldDirectory& right) {
    struct stat one {};
    struct stat other {};
    return left.isOpen() && right.isOpen() && fstat(left.descriptor(), &one) == 0 &&
           fstat(right.descriptor(), &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

void visitAbove(const HeldDirectory& directory,
                const std::function<void(const HeldDirectory&)>& each) {
    std::error_code error;
    fs::path path = fs::canonical(directory.path(), error);
    // What is no longer there has nothing above it.
    while (!error && path != path.parent_path()) {
        path = path.parent_path();
        const HeldDirectory above = HeldDirectory::openRoot(path.string());
        if (above.isOpen()) each(above);
    }
}

Overlap overlapOf(const HeldDirectory& plain, const HeldDirectory& encrypted) {
    if (isSame(plain, encrypted)) return Overlap::kSame;
    if (isAbove(plain, encrypted)) return Overlap::kEncryptedInside;
    if (isAbove(encrypted, plain)) return Overlap::kPlainInside;
    return Overlap::kNone;
}

}  // namespace host
