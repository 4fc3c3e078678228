#include "look/findings.h"

#include <algorithm>

namespace host {

bool isRefusal(Finding finding) { return finding < Finding::kAttributeDropped; }

bool Preflight::refused() const {
    return std::any_of(findings.begin(), findings.end(),
                       [](const auto& finding) { return isRefusal(finding.first); });
}

uint64_t Preflight::addedBytes() const {
    uint64_t all = 0;
    for (const auto& [finding, more] : added) all += more;
    return all;
}

void Preflight::merge(Preflight other) {
    findings.merge(other.findings);
    attributes.merge(other.attributes);
}

}  // namespace host
