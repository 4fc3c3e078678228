#include "look/target_trial.h"

#include <fcntl.h>

#include <cerrno>

#include <android-base/strings.h>

#include "end/throw_errno.h"

using android::base::unique_fd;
using files::HeldDirectory;

namespace host {
namespace {

/// Trees in which every file has a value of its own must not fill the memory.
constexpr size_t kMostKept = 1000;

const std::string kFile = "file";
const std::string kDirectory = "directory";
const std::string kLink = "link";

std::vector<std::string> notTaken(const Attributes& wanted, int descriptor) {
    std::vector<std::string> names;
    int error = 0;
    const Attributes given = readAttributes(descriptor, &error);
    (void)putAttributes(wanted, given, descriptor);  // what is there afterwards tells more
    const Attributes taken = readAttributes(descriptor, &error);
    for (const auto& [name, value] : wanted) {
        const auto there = taken.find(name);
        if (there == taken.end() || there->second != value) names.push_back(name);
    }
    return names;
}

}  // namespace

const TrialFolder& TargetTrial::folder() {
    if (!folder_) folder_.emplace(target_);
    return *folder_;
}

bool TargetTrial::takes(const std::string& linkText) {
    if (longestTaken_ && linkText.size() <= *longestTaken_) return true;
    const HeldDirectory& held = folder().held();
    if (!held.makeLink(linkText, kLink)) return false;
    longestTaken_ = linkText.size();
    if (!held.remove(kLink)) throwErrno("cannot remove " + held.pathOf(kLink));
    return true;
}

std::vector<std::string> TargetTrial::tryOn(const Tried& tried) {
    const HeldDirectory& held = folder().held();
    const auto& [isDirectory, attributes] = tried;
    if (isDirectory) {
        if (!held.makeChild(kDirectory, 0700)) throwErrno("cannot create " + held.path());
        const HeldDirectory directory = held.openChild(kDirectory);
        throwIfError(directory.error(), "cannot open " + directory.path());
        std::vector<std::string> names = notTaken(attributes, directory.descriptor());
        if (!held.removeChild(kDirectory)) throwErrno("cannot remove " + directory.path());
        return names;
    }
    const unique_fd file = held.createNew(kFile, 0600);
    if (!file.ok()) throwErrno("cannot create " + held.pathOf(kFile));
    std::vector<std::string> names = notTaken(attributes, file.get());
    if (!held.remove(kFile)) throwErrno("cannot remove " + held.pathOf(kFile));
    return names;
}

const std::vector<std::string>& TargetTrial::refusedOf(const Metadata& metadata) {
    const Tried tried(metadata.directory, metadata.attributes);
    const auto before = tried_.find(tried);
    if (before != tried_.end()) return before->second;
    if (tried_.size() >= kMostKept) tried_.clear();
    return tried_.emplace(tried, tryOn(tried)).first->second;
}

void TargetTrial::judge(Metadata& metadata) {
    const std::string path = source_.path() + metadata.relative;
    if (metadata.link) {
        if (!takes(metadata.text)) found_.findings[Finding::kLinkNotTaken].push_back(path);
        return;
    }
    if (metadata.attributes.empty()) return;
    const std::vector<std::string>& refused = refusedOf(metadata);
    if (refused.empty()) return;
    found_.findings[drop_ ? Finding::kAttributeDropped : Finding::kAttribute].push_back(path);
    found_.attributes[path] = android::base::Join(refused, ", ");
    for (const std::string& name : refused) {
        if (name == kAccessList) {
            metadata.mode = modeWithoutList(metadata.mode, metadata.attributes[name]);
        }
        metadata.attributes.erase(name);
    }
}

Preflight TargetTrial::finish() {
    if (folder_) folder_->finish();
    folder_.reset();
    return std::move(found_);
}

}  // namespace host
