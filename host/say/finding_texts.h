#pragma once

#include "look/findings.h"
#include "say/report.h"

namespace host {

/// Every finding with its name and reason.
void reportFindings(const Preflight& preflight, Report& report);

}  // namespace host
