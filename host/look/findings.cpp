#include "look/findings.h"

#include <algorithm>

namespace host {

bool isRefusal(Finding finding) { return finding < Finding::kSymbolicLink; }

bool Preflight::refused() const {
    return std::any_of(findings.begin(), findings.end(),
                       [](const auto& finding) { return isRefusal(finding.first); });
}

}  // namespace host
