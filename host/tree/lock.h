#pragma once

#include <vector>

#include "files/held_directory.h"
#include "tree/held_tree.h"

namespace host {

/// Who works on a tree at this moment.
enum class Holder { kNobody, kHost, kWorkerAlone };

/// One job per tree, whichever of its two roots the tree is called by. Both roots are locked with
/// flock, which belongs to the open file description: the worker inherits both, so that they are
/// locked for as long as it or its host lives.
///
/// flock cannot be asked whether it is held, only be tried, and whoever tries holds it for a
/// moment, in which another would be refused. So the holders say that they are there with record
/// locks, which exclude nobody and can be asked for: one on a byte of the locked descriptor, and
/// one on a descriptor that the worker does not inherit. The second tells a worker whose host has
/// died from a pair that is well.
class TreeLock {
  public:
    /// Locks the roots that are there, or says in `holder` who has one of them and holds none. A
    /// worker that was just killed is given a moment to be gone. The roots must not be the same
    /// directory. Throws std::system_error.
    TreeLock(const HeldTree& tree, Holder& holder);

    /// Locks a plain root that was made meanwhile; false when somebody else has it.
    [[nodiscard]] bool lockPlain(const files::HeldDirectory& plain) { return plain_.take(plain); }

    /// The descriptors that the worker inherits.
    [[nodiscard]] std::vector<int> inherited() const;

  private:
    class RootLock {
      public:
        [[nodiscard]] bool take(const files::HeldDirectory& root);
        [[nodiscard]] bool isHeld() const { return shared_.isOpen(); }
        [[nodiscard]] int inherited() const { return shared_.descriptor(); }

      private:
        files::HeldDirectory shared_;  ///< with the worker
        files::HeldDirectory own_;
    };
    [[nodiscard]] Holder takeBoth(const HeldTree& tree);

    RootLock plain_;
    RootLock encrypted_;
};

/// Who has locked this root. Holds nothing, so that it is in nobody's way; a directory that may not
/// be listed counts as free.
[[nodiscard]] Holder lookAtLock(const files::HeldDirectory& root);

}  // namespace host
