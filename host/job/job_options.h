#pragma once

#include <string>

#include "look/preflight.h"
#include "say/command_text.h"
#include "tree/roots.h"

namespace host {

/// What the person asked for.
struct JobOptions {
    Direction direction = Direction::kEncrypt;
    std::string worker;       ///< path of the executable
    std::string givenWorker;  ///< as the person named it, or empty
    PreflightOptions preflight;

    /// What a named command repeats.
    [[nodiscard]] CommandOptions named() const {
        return {preflight.allowPlain, preflight.replace, preflight.dropAttributes, givenWorker};
    }
};

}  // namespace host
