#pragma once

#include <string>
#include <string_view>

#include "look/findings.h"
#include "say/report.h"

namespace host {

/// One thing that is refused: a path, and what is wrong with it for programs and for people.
void reportRefusal(const std::string& path, std::string_view code, std::string_view reason,
                   Report& report);

/// Every finding with its name and reason.
void reportFindings(const Preflight& preflight, Report& report);

}  // namespace host
