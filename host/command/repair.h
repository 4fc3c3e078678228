#pragma once

#include <string>

#include "say/report.h"
#include "tree/roots.h"

namespace host {

/// `vaultctl repair`: for a job whose record, manifest, mark or lists have been spoilt. Says what
/// is known and makes whole again what follows from the rest, so that the command it names carries
/// on; moves nothing. What it can only do at a price (changed files as they are now, lost ones
/// given up, no metadata without a manifest) it does `asItIs`. Throws JobEnd (refused) when it
/// cannot.
void repairJob(const Tree& tree, bool asItIs, const std::string& givenWorker, Report& report);

}  // namespace host
