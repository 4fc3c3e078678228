#pragma once

#include "files/held_directory.h"
#include "tree/roots.h"

namespace host {

/// The two roots, held open while a command works between them: what was looked at is what is
/// used, whatever their paths lead to meanwhile. Either may be missing; ask it whether it is open.
struct HeldTree {
    explicit HeldTree(const Tree& tree)
        : plain(files::HeldDirectory::openRoot(tree.plain)),
          encrypted(files::HeldDirectory::openRoot(tree.encrypted)) {}

    [[nodiscard]] const files::HeldDirectory& source(Direction direction) const {
        return direction == Direction::kEncrypt ? plain : encrypted;
    }
    [[nodiscard]] const files::HeldDirectory& target(Direction direction) const {
        return direction == Direction::kEncrypt ? encrypted : plain;
    }

    files::HeldDirectory plain;
    files::HeldDirectory encrypted;
};

}  // namespace host
