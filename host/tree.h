#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <android-base/unique_fd.h>

namespace host {

enum class Direction { kEncrypt, kDecrypt };

/// "encrypt" or "decrypt": the command, and the word in messages and records.
[[nodiscard]] std::string_view toWord(Direction direction);

/// The two directories a job works between: absolute, no trailing slash, links resolved.
struct Tree {
    std::string plain;
    std::string encrypted;

    [[nodiscard]] const std::string& source(Direction direction) const {
        return direction == Direction::kEncrypt ? plain : encrypted;
    }
    [[nodiscard]] const std::string& target(Direction direction) const {
        return direction == Direction::kEncrypt ? encrypted : plain;
    }
    [[nodiscard]] std::string recordPath() const;
    [[nodiscard]] std::string manifestPath() const;
    [[nodiscard]] std::string markPath() const;
};

/// The tree that the person's DIR names. DIR itself may be missing (a way back makes it); throws
/// JobEnd (refused) when it cannot be the plain tree of anything.
[[nodiscard]] Tree resolveTree(const std::string& directory);

[[nodiscard]] bool isDirectory(const std::string& path);
[[nodiscard]] bool isOnEcryptfs(const std::string& path);
/// Bytes that an unprivileged process may still write there; 0 when unknown.
[[nodiscard]] uint64_t freeBytes(const std::string& path);
[[nodiscard]] bool onOneFileSystem(const std::string& left, const std::string& right);

/// Who works on a tree at this moment.
enum class Holder { kNobody, kHost, kWorkerAlone };

/// One job per tree. The lock on DIR is a flock of an open directory, which belongs to the open
/// file description: the worker inherits the descriptor, so the lock holds for as long as either
/// lives. A second lock, on DIR_enc and not inherited, tells a worker whose host has died from a
/// pair that is well.
class TreeLock {
  public:
    /// Takes both locks, or says in `holder` who has them and holds none.
    TreeLock(const Tree& tree, Holder& holder);
    /// The descriptor that the worker inherits.
    [[nodiscard]] int inherited() const { return tree_.get(); }

  private:
    android::base::unique_fd tree_;
    android::base::unique_fd host_;
};

/// Looks without keeping anything.
[[nodiscard]] Holder lookAtLock(const Tree& tree);
/// The same, but gives a worker that was just killed a moment to be gone.
[[nodiscard]] Holder lookAtLockPatiently(const Tree& tree);

}  // namespace host
