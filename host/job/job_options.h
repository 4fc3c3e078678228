#pragma once

#include <string>

#include "look/preflight.h"
#include "say/command_text.h"
#include "tree/roots.h"

namespace host {

/// What the person asked for.
struct JobOptions {
    /// In which files move now; an undo takes it from the record.
    Direction direction = Direction::kEncrypt;
    bool undo = false;
    bool discard = false;     ///< after an encrypt: the source's free space
    std::string worker;       ///< path of the executable
    std::string givenWorker;  ///< as the person named it, or empty
    PreflightOptions preflight;

    /// What a named command repeats.
    [[nodiscard]] CommandOptions named() const {
        return {.undo = undo,
                .allowPlain = preflight.allowPlain,
                .replace = preflight.replace,
                .dropAttributes = preflight.dropAttributes,
                .discard = discard,
                .worker = givenWorker};
    }
    /// The command that carries on.
    [[nodiscard]] std::string command(const std::string& plain) const {
        return commandFor(direction, plain, named());
    }
    /// "encrypt", "decrypt" or "undo".
    [[nodiscard]] std::string word() const {
        return std::string(undo ? "undo" : toWord(direction));
    }
};

}  // namespace host
