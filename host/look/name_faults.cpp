#include "look/name_faults.h"

#include <limits.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "tree/names.h"

namespace host {
namespace {

/// With a dot in front these are names of the worker's or the host's own files.
constexpr std::array<std::string_view, 5> kReservedNames = {
    names::kProcessFile.substr(1), names::kIntermediatePrefix.substr(1),
    names::kJobRecord.substr(1), names::kMark.substr(1), names::kManifest.substr(1)};

bool isReserved(std::string_view name) {
    return std::any_of(kReservedNames.begin(), kReservedNames.end(),
                       [name](std::string_view reserved) { return name.starts_with(reserved); });
}

}  // namespace

std::vector<Finding> faultsOfName(const std::string& name, const std::string& target,
                                  size_t longest) {
    const size_t moving = names::kIntermediatePrefix.size() + name.size();
    std::vector<Finding> faults;
    if (name.find('\n') != std::string::npos) faults.push_back(Finding::kNewline);
    if (moving > longest) faults.push_back(Finding::kNameTooLong);
    if (target.size() + 1 + moving >= PATH_MAX) faults.push_back(Finding::kPathTooLong);
    if (isReserved(name)) faults.push_back(Finding::kReservedName);
    return faults;
}

}  // namespace host
