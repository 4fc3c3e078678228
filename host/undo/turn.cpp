#include "undo/turn.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "job/survey.h"
#include "lists/lists.h"
#include "manifest/metadata.h"
#include "say/text.h"
#include "tree/durable.h"
#include "tree/names.h"
#include "tree/same_bytes.h"

using android::base::unique_fd;
using files::HeldDirectory;

namespace host {
namespace {

bool exists(const HeldDirectory& directory, const std::string& name) {
    struct stat status {};
    if (directory.look(name, &status)) return true;
    if (errno != ENOENT && errno != ENAMETOOLONG)
        throwErrno("cannot look at " + directory.pathOf(name));
    return false;
}

/// True when there was something.
bool removeIfThere(const HeldDirectory& directory, const std::string& name) {
    if (directory.remove(name)) return true;
    if (errno != ENOENT && errno != ENAMETOOLONG)
        throwErrno("cannot remove " + directory.pathOf(name));
    return false;
}

[[noreturn]] void refuse(const std::string& path, const char* why) {
    throw JobEnd(ExitStatus::kRefused,
                 fmt::format("{} {}. Put that right and run this again, or let `vaultctl repair`, "
                             "with the directory behind it, tell what it can do.",
                             printable(path), why));
}

bool hasArrived(const SurveyedFile& file) { return !file.inSource && file.fate == Fate::kArrived; }

/// A user's own file of this name that has been moved.
bool isMoved(const SurveyedDirectory& directory, const std::string& name) {
    for (const SurveyedFile& file : directory.files) {
        if (file.name == name) return !file.inSource;
    }
    return false;
}

/// True when the directory has changed.
bool settle(const SurveyedDirectory& directory, const SurveyedFile& file) {
    const std::string copy = "." + file.name;
    const HeldDirectory& target = directory.target;
    bool changed = false;
    if (file.listed) {
        changed = removeIfThere(target, std::string(names::kIntermediatePrefix) + file.name);
    }
    if (file.fate != Fate::kWaits || !exists(target, copy) || isMoved(directory, copy)) {
        return changed;
    }
    if (!file.inSource) {
        if (!target.rename(copy, file.name)) throwErrno("cannot rename " + target.pathOf(copy));
    } else if (!sameBytes(directory.source, file.name, target, copy)) {
        return changed;
    } else if (!target.remove(copy)) {
        throwErrno("cannot remove " + target.pathOf(copy));
    }
    return true;
}

/// The files that have to move on, in no order.
std::vector<const SurveyedFile*> goingOn(const SurveyedDirectory& directory) {
    std::unordered_map<std::string, const SurveyedFile*> waiting;
    for (const SurveyedFile& file : directory.files) {
        if (file.inSource && file.name.front() == '.') waiting.emplace(file.name, &file);
    }
    std::vector<const SurveyedFile*> going;
    if (waiting.empty()) return going;
    for (const SurveyedFile& file : directory.files) {
        if (!hasArrived(file)) continue;
        std::string dotted = "." + file.name;
        for (auto next = waiting.find(dotted); next != waiting.end(); next = waiting.find(dotted)) {
            going.push_back(next->second);
            waiting.erase(next);
            dotted.insert(0, 1, '.');
        }
    }
    return going;
}

/// For a file that is about to be moved back: what a resume will compare.
void giveTime(const SurveyedDirectory& directory, const SurveyedFile& file) {
    struct stat status {};
    const HeldDirectory& target = directory.target;
    const unique_fd moved = target.openForReading(file.name, &status);
    if (!moved.ok()) throwErrno("cannot open " + target.pathOf(file.name));
    const bool own = status.st_uid == ourUser() || status.st_uid == file.uid;
    if (!own || status.st_nlink != 1) {
        refuse(target.pathOf(file.name), "is not the file that was moved there");
    }
    throwIfError(-putBackTime(file.modified, moved.get()),
                 "cannot set the time of " + target.pathOf(file.name));
}

void giveList(const HeldDirectory& directory, std::vector<std::string_view> entries) {
    if (!entries.empty()) {
        throwIfError(directory.error(), "cannot open " + directory.path());
        writeList(directory, std::move(entries));
    } else if (directory.isOpen()) {
        removeDurably(directory, names::kProcessFile);
    }
}

void turnDirectory(const SurveyedDirectory& directory, std::vector<std::string>& staying) {
    std::vector<std::string_view> entries;
    for (const SurveyedFile& file : directory.files) {
        if (file.inSource) {
            if (!file.asItWas) refuse(directory.source.pathOf(file.name), "is not what it was");
            if (!exists(directory.target, file.name)) continue;
            staying.push_back(directory.target.pathOf(file.name));
            continue;
        }
        if (!hasArrived(file)) {
            refuse(directory.target.pathOf(file.name), "is not there as it was moved");
        }
        if (exists(directory.source, "." + file.name)) {
            refuse(directory.source.pathOf("." + file.name),
                   "has the name that a file needs on its way back");
        }
        giveTime(directory, file);
        entries.emplace_back(file.name);
    }
    giveList(directory.source, {});
    giveList(directory.target, std::move(entries));
}

}  // namespace

void settleCopies(Manifest& manifest, const HeldDirectory& source, const HeldDirectory& target) {
    survey(manifest, source, target, true, [](const SurveyedDirectory& directory) {
        bool changed = false;
        for (const SurveyedFile& file : directory.files) changed |= settle(directory, file);
        if (changed) syncDirectory(directory.target);
    });
}

std::vector<std::string> listWhatGoesOn(Manifest& manifest, const HeldDirectory& source,
                                        const HeldDirectory& target, bool replace, bool write) {
    std::vector<std::string> paths;
    survey(manifest, source, target, replace, [&](const SurveyedDirectory& directory) {
        std::vector<std::string_view> entries;
        for (const SurveyedFile* const file : goingOn(directory)) {
            if (file->fate != Fate::kWaits) {
                refuse(directory.source.pathOf(file->name),
                       "has to move on first, and the target has something in its way");
            }
            entries.emplace_back(file->name);
            paths.push_back(directory.source.pathOf(file->name));
        }
        if (write) giveList(directory.source, std::move(entries));
    });
    return paths;
}

bool linksStandInTheWay(Manifest& manifest, const HeldDirectory& source,
                        const HeldDirectory& target) {
    bool found = false;
    if (!manifest.namesLinks()) return found;
    survey(manifest, source, target, true, [&](const SurveyedDirectory& directory) {
        std::unordered_set<std::string> links;
        for (const SurveyedLink& link : directory.links) {
            if (link.inSource) links.insert(link.name);
        }
        if (links.empty()) return;
        for (const SurveyedFile& file : directory.files) {
            found |= !file.inSource && links.contains("." + file.name);
        }
    });
    return found;
}

void turnLists(Manifest& manifest, const HeldDirectory& source, const HeldDirectory& target,
               const std::function<void()>& betweenDirectories, Report& report) {
    std::vector<std::string> staying;
    survey(manifest, source, target, true, [&](const SurveyedDirectory& directory) {
        betweenDirectories();
        turnDirectory(directory, staying);
    });
    if (staying.empty()) return;
    report.warn("left", {{"paths", staying}},
                fmt::format("{} also in the other tree, and left there:{}",
                            counted(staying.size(), "file"), nameLines(staying)));
}

}  // namespace host
