#pragma once

#include "files/held_directory.h"
#include "look/findings.h"

namespace host {

/// Adds to `result`, which knows what is to be moved, whether both trees have the room for it.
void judgeSpace(const files::HeldDirectory& source, const files::HeldDirectory& target,
                Preflight& result);

}  // namespace host
