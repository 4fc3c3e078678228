#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace host {

enum class Direction { kEncrypt, kDecrypt };

/// "encrypt" or "decrypt": the command, and the word in messages and records.
[[nodiscard]] std::string_view toWord(Direction direction);
/// The other way; nothing for any other word.
[[nodiscard]] std::optional<Direction> directionOf(std::string_view word);

[[nodiscard]] Direction opposite(Direction direction);

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
};

/// The tree that the person's DIR names. DIR itself may be missing (a way back makes it); throws
/// JobEnd (refused) when it cannot be the plain tree of anything.
[[nodiscard]] Tree resolveTree(const std::string& directory);

}  // namespace host
