#include "command/rebuild.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <unordered_map>
#include <utility>

#include "end/throw_errno.h"
#include "job/evidence.h"
#include "job/survey.h"
#include "lists/lists.h"
#include "manifest/description.h"
#include "manifest/held_link.h"
#include "tree/descent.h"
#include "tree/durable.h"
#include "tree/names.h"
#include "tree/walk.h"

using files::HeldDirectory;

namespace host {
namespace {

/// Until an undo has turned the lists, what has not arrived stands where the job began.
Direction standingDirection(const JobRecord& record) {
    return record.state == JobState::kTurning ? record.begun() : record.direction;
}

void surveyJob(const HeldTree& tree, const JobRecord& record,
               const std::function<void(const SurveyedDirectory&)>& each) {
    Manifest manifest = openManifest(tree, record);
    const Direction direction = standingDirection(record);
    survey(manifest, tree.source(direction), tree.target(direction), record.replace, each);
}

/// What the worker has still to deal with. What does not fit stays listed, so that the resume names
/// it.
bool isToBeListed(const SurveyedFile& file) {
    if (file.fate == Fate::kGone) return file.listed;
    return file.fate != Fate::kArrived;
}

bool exists(const HeldDirectory& directory, const std::string& name) {
    struct stat status {};
    if (directory.look(name, &status)) return true;
    if (errno != ENOENT) throwErrno("cannot look at " + directory.pathOf(name));
    return false;
}

bool isOwn(const Entry& entry) { return entry.name.starts_with(names::kOwnPrefix); }

bool listIsDamaged(const HeldDirectory& directory) {
    try {
        (void)loadProcessFile(directory);
        return false;
    } catch (const ListDamaged&) {
        return true;
    }
}

bool isKept(Fate fate) { return fate == Fate::kArrived || fate == Fate::kWaits; }

/// What a manifest that is written anew has not got as it was, and what has become of that.
using NotKept = std::unordered_map<std::string, Fate>;

NotKept whatIsNotKept(const HeldTree& tree, const JobRecord& record) {
    NotKept found;
    surveyJob(tree, record, [&](const SurveyedDirectory& directory) {
        const std::string above = directory.metadata.relative + "/";
        for (const SurveyedFile& file : directory.files) {
            if (file.fate == Fate::kGone || file.fate == Fate::kChanged) {
                found.emplace(above + file.name, file.fate);
            }
        }
        for (const SurveyedLink& link : directory.links) {
            if (!isKept(link.fate)) found.emplace(link.metadata.relative, link.fate);
        }
    });
    return found;
}

/// As it is now in the source. What has become something else than a file cannot be moved.
std::optional<Metadata> describeAnew(const HeldDirectory& directory, const Metadata& above,
                                     const Metadata& before, const JobRecord& record) {
    const std::string name = before.relative.substr(above.relative.size() + 1);
    if (before.link) {
        // One that cannot be moved stays, and is not asked for.
        if (HeldLink(directory, name).error() != 0) return std::nullopt;
        return describeLink(directory, above, name);
    }
    struct stat status {};
    if (!directory.look(name, &status)) throwErrno("cannot look at " + directory.pathOf(name));
    if (!S_ISREG(status.st_mode)) return std::nullopt;
    Metadata now = describeFile(directory, above, name, status);
    if (record.undo && record.state == JobState::kMoving) {
        // It has none of its own before it is back.
        now.mode = before.mode;
        now.uid = before.uid;
        now.gid = before.gid;
        now.attributes = before.attributes;
    }
    return now;
}

}  // namespace

Rebuilt surveyForRepair(const HeldTree& tree, const JobRecord& record) {
    Rebuilt rebuilt;
    surveyJob(tree, record, [&](const SurveyedDirectory& directory) {
        if (directory.metadata.relative.empty()) rebuilt.rootTime = directory.metadata.modified;
        for (const SurveyedFile& file : directory.files) {
            ++rebuilt.files;
            rebuilt.bytes += file.size + file.name.size();
            rebuilt.nameBytes += file.name.size();
            if (file.inSource) continue;
            ++rebuilt.moved;
            if (file.fate != Fate::kArrived && file.fate != Fate::kWaits) {
                ++rebuilt.movedButMissing;
            }
        }
        for (const SurveyedLink& link : directory.links) {
            if (link.inSource) continue;
            ++rebuilt.moved;
            if (link.fate != Fate::kArrived) ++rebuilt.movedButMissing;
        }
    });
    return rebuilt;
}

void rebuildLists(const HeldTree& tree, const JobRecord& record) {
    surveyJob(tree, record, [&](const SurveyedDirectory& directory) {
        std::vector<std::string_view> entries;
        for (const SurveyedFile& file : directory.files) {
            if (isToBeListed(file)) entries.emplace_back(file.name);
        }
        if (!entries.empty()) {
            throwIfError(directory.source.error(), "cannot open " + directory.source.path());
            writeList(directory.source, std::move(entries));
        } else if (directory.source.isOpen()) {
            removeDurably(directory.source, names::kProcessFile);
        }
    });
}

void rewriteManifest(const HeldTree& tree, const JobRecord& record) {
    const NotKept notKept = whatIsNotKept(tree, record);
    ManifestWriter writer(tree.plain, {.job = record.id, .direction = record.begun()});
    Descent sources(tree.source(standingDirection(record)));
    HeldDirectory directory;
    Metadata above;
    Manifest manifest = openManifest(tree, record);
    manifest.forEach([&](const Metadata& metadata) {
        if (metadata.directory) {
            directory = sources.open(metadata.relative);
            above = metadata;
        }
        const auto found = notKept.find(metadata.relative);
        if (found == notKept.end()) return writer.add(metadata);
        if (found->second != Fate::kChanged) return;
        if (const auto now = describeAnew(directory, above, metadata, record)) writer.add(*now);
    });
    writer.commit();
}

std::vector<std::string> rebuildListsFromSource(const HeldTree& tree, const JobRecord& record) {
    std::vector<std::string> doubtful;
    Descent targets(tree.target(record.direction));
    walkTree(tree.source(record.direction), [&](const Visit& visit) {
        if (!listIsDamaged(visit.directory)) return;
        std::vector<std::string_view> entries;
        for (const Entry& entry : visit.entries) {
            if (entry.type == DT_REG && !isOwn(entry)) entries.emplace_back(entry.name);
        }
        writeList(visit.directory, std::move(entries));
        HeldDirectory target = targets.open(visit.relative);
        for (const Entry& entry : listDirectory(target)) {
            if (entry.type != DT_REG || isOwn(entry) || entry.name.front() != '.') continue;
            const std::string base = entry.name.substr(1);
            if (base.empty() || exists(target, base) || exists(visit.directory, base)) continue;
            doubtful.push_back(target.pathOf(entry.name));
        }
    });
    return doubtful;
}

}  // namespace host
