#include "restore/restored.h"

#include <cerrno>
#include <system_error>

#include <fmt/format.h>

namespace host {

void RestoreNotes::notThere(const Metadata& metadata, int error, const char* otherKind) {
    if (error == ENOENT) {
        missing(metadata, "is not there");
    } else if (error == ELOOP || error == EISDIR || error == EINVAL || error == ENOTDIR) {
        missing(metadata, otherKind);
    } else {
        refused(metadata, std::generic_category().message(error));
    }
}

void RestoreNotes::missing(const Metadata& metadata, const std::string& what) {
    std::string text = fmt::format("{}{} {}; it was {}{}", target_.path(), metadata.relative, what,
                                   source_.path(), metadata.relative);
    if (metadata.link) {
        text += ", a link to " + metadata.text;
    } else if (!metadata.directory) {
        text += fmt::format(" with {} bytes", metadata.size);
    }
    restored_.missing.push_back(text);
}

void RestoreNotes::refused(const Metadata& metadata, const std::string& what) {
    if (what.empty()) return;
    restored_.refused.push_back(target_.path() + metadata.relative + ": " + what);
}

void RestoreNotes::refusedInSource(const Metadata& metadata, const std::string& what) {
    restored_.refused.push_back(source_.path() + metadata.relative + ": " + what);
}

void reportRestored(const Restored& restored, Report& report) {
    const auto name = [&report](const char* event, const std::vector<std::string>& paths,
                                const char* what) {
        if (paths.empty()) return;
        report.problem(event, {{"paths", paths}},
                       fmt::format("{} ({}):{}", what, paths.size(), nameLines(paths)));
    };
    name("missing", restored.missing, "Not in the target as they were at the start");
    name("metadata", restored.refused,
         "Without the owner, permissions, attributes or time they had");
}

}  // namespace host
