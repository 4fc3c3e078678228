#include "tree/lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "end/throw_errno.h"

using files::HeldDirectory;

namespace host {
namespace {

/// The bytes of a root on which holders say that they are there.
constexpr off_t kLockedByte = 0;
constexpr off_t kHostByte = 1;

struct flock lockOf(off_t byte, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

/// For those who look. A file system without record locks makes them see nobody; the lock itself
/// does not depend on it.
void announce(const HeldDirectory& root, off_t byte) {
    struct flock lock = lockOf(byte, F_RDLCK);
    (void)fcntl(root.descriptor(), F_OFD_SETLK, &lock);
}

bool isAnnounced(const HeldDirectory& root, off_t byte) {
    struct flock lock = lockOf(byte, F_WRLCK);
    return fcntl(root.descriptor(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

/// An open file description of its own: the lock must not end with that of `root`.
HeldDirectory openAgain(const HeldDirectory& root) {
    HeldDirectory again = root.openBelow("");
    throwIfError(again.error(), "cannot open " + root.path());
    return again;
}

/// Of a root that is locked.
Holder holderOf(const HeldDirectory& root) {
    return isAnnounced(root, kHostByte) ? Holder::kHost : Holder::kWorkerAlone;
}

}  // namespace

bool TreeLock::RootLock::take(const HeldDirectory& root) {
    HeldDirectory shared = openAgain(root);
    if (flock(shared.descriptor(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) return false;
        throwErrno("cannot lock " + root.path());
    }
    own_ = openAgain(root);
    announce(own_, kHostByte);
    announce(shared, kLockedByte);
    shared_ = std::move(shared);
    return true;
}

TreeLock::TreeLock(const HeldTree& tree, Holder& holder) {
    constexpr std::chrono::milliseconds kPause(50);
    constexpr int kAttempts = 10;
    holder = takeBoth(tree);
    for (int i = 1; i < kAttempts && holder == Holder::kWorkerAlone; ++i) {
        std::this_thread::sleep_for(kPause);
        holder = takeBoth(tree);
    }
}

Holder TreeLock::takeBoth(const HeldTree& tree) {
    if (tree.plain.isOpen() && !plain_.take(tree.plain)) return holderOf(tree.plain);
    if (tree.encrypted.isOpen() && !encrypted_.take(tree.encrypted)) {
        plain_ = RootLock();
        return holderOf(tree.encrypted);
    }
    return Holder::kNobody;
}

std::vector<int> TreeLock::inherited() const {
    std::vector<int> descriptors;
    for (const RootLock* root : {&plain_, &encrypted_}) {
        if (root->isHeld()) descriptors.push_back(root->inherited());
    }
    return descriptors;
}

Holder lookAtLock(const HeldDirectory& root) {
    return isAnnounced(root, kLockedByte) ? holderOf(root) : Holder::kNobody;
}

}  // namespace host
