#pragma once

#include <string>
#include <string_view>

#include "tree/roots.h"

namespace host {

/// The options that a named command repeats.
struct CommandOptions {
    bool undo = false;  ///< the command is `undo`, which knows the others from the record
    bool allowPlain = false;
    bool replace = false;
    bool dropAttributes = false;
    bool discard = false;  ///< said only with encrypt, which alone takes it
    std::string worker;    ///< as the person gave it, or empty
};

/// "`vaultctl encrypt DIR`", the command that carries on; between the back quotes it can be pasted
/// into a shell.
[[nodiscard]] std::string commandFor(Direction direction, const std::string& plain,
                                     const CommandOptions& options);

/// "`vaultctl repair DIR`", likewise, for a command that takes no options.
[[nodiscard]] std::string commandFor(std::string_view command, const std::string& plain);

/// "an encrypt" or "a decrypt".
[[nodiscard]] std::string withArticle(Direction direction);

}  // namespace host
