#include "mend/rebuild.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "end/throw_errno.h"
#include "job/evidence.h"
#include "job/survey.h"
#include "tree/descent.h"
#include "tree/description.h"
#include "tree/durable.h"
#include "tree/held_link.h"
#include "tree/names.h"
#include "tree/walk.h"
#include "worker/lists.h"

using files::HeldDirectory;

namespace host {
namespace {

void surveyJob(const HeldTree& tree, const JobRecord& record,
               const std::function<void(const SurveyedDirectory&)>& each) {
    Manifest manifest = openManifest(tree, record);
    // Until an undo has turned the lists, what has not arrived stands where the job began.
    const Direction direction =
        record.state == JobState::kTurning ? record.begun() : record.direction;
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

/// As it is now, if it is a link; one that cannot be moved stays, and is not asked for.
void addLink(const SurveyedDirectory& directory, const SurveyedLink& link, ManifestWriter& writer) {
    if (link.fate == Fate::kArrived || link.fate == Fate::kWaits) return writer.add(link.metadata);
    const bool isLink = HeldLink(directory.source, link.name).error() == 0;
    if (link.fate == Fate::kChanged && isLink) {
        writer.add(describeLink(directory.source, directory.metadata, link.name));
    }
}

}  // namespace

Rebuilt surveyForRepair(const HeldTree& tree, const JobRecord& record) {
    Rebuilt rebuilt;
    surveyJob(tree, record, [&](const SurveyedDirectory& directory) {
        if (directory.metadata.relative.empty()) rebuilt.rootTime = directory.metadata.modified;
        for (const SurveyedFile& file : directory.files) {
            ++rebuilt.files;
            rebuilt.bytes += file.metadata.size + file.name.size();
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
    ManifestWriter writer(tree.plain, {.job = record.id, .direction = record.begun()});
    surveyJob(tree, record, [&](const SurveyedDirectory& directory) {
        writer.add(directory.metadata);
        for (const SurveyedFile& file : directory.files) {
            if (file.fate == Fate::kGone) continue;
            if (file.fate != Fate::kChanged) {
                writer.add(file.metadata);
                continue;
            }
            struct stat status {};
            if (!directory.source.look(file.name, &status)) {
                throwErrno("cannot look at " + directory.source.pathOf(file.name));
            }
            // What has become something else than a file cannot be moved; it is left out.
            if (!S_ISREG(status.st_mode)) continue;
            Metadata now = describeFile(directory.source, directory.metadata, file.name, status);
            if (record.undo && record.state == JobState::kMoving) {
                // It has none of its own before it is back.
                now.mode = file.metadata.mode;
                now.uid = file.metadata.uid;
                now.gid = file.metadata.gid;
                now.attributes = file.metadata.attributes;
            }
            writer.add(now);
        }
        for (const SurveyedLink& link : directory.links) addLink(directory, link, writer);
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
