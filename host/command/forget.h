#pragma once

#include <string>

#include "say/report.h"
#include "tree/roots.h"

namespace host {

/// `vaultctl forget`: closes a job whose files have all been moved, but which could not put
/// everything back. Names what is given up, and does so only when it was `confirmed`. Throws JobEnd
/// (refused) when there is no such job, or no confirmation.
void forgetJob(const Tree& tree, bool confirmed, const std::string& givenWorker, Report& report);

}  // namespace host
