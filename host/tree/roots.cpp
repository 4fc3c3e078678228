#include "tree/roots.h"

#include <filesystem>
#include <system_error>

#include "end/job_end.h"
#include "tree/names.h"

namespace fs = std::filesystem;

namespace host {
std::string_view toWord(Direction direction) {
    return direction == Direction::kEncrypt ? "encrypt" : "decrypt";
}

std::optional<Direction> directionOf(std::string_view word) {
    for (const Direction direction : {Direction::kEncrypt, Direction::kDecrypt}) {
        if (word == toWord(direction)) return direction;
    }
    return std::nullopt;
}

Direction opposite(Direction direction) {
    return direction == Direction::kEncrypt ? Direction::kDecrypt : Direction::kEncrypt;
}

Tree resolveTree(const std::string& directory) {
    std::error_code error;
    const fs::path path = fs::weakly_canonical(fs::absolute(directory), error);
    if (error) {
        throw JobEnd(ExitStatus::kRefused, "cannot resolve " + directory + ": " + error.message());
    }
    std::string plain = path.string();
    while (plain.size() > 1 && plain.ends_with('/')) plain.pop_back();
    if (plain == "/") throw JobEnd(ExitStatus::kRefused, "the root directory cannot be moved");
    const std::string encrypted = plain + std::string(names::kEncryptedSuffix);
    return {.plain = plain, .encrypted = encrypted};
}

}  // namespace host
