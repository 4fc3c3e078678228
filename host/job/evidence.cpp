#include "job/evidence.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <fmt/format.h>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "files/durable_file.h"
#include "lists/lists.h"
#include "say/command_text.h"
#include "say/report.h"
#include "tree/descent.h"
#include "tree/durable.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {
namespace {

/// The lists have changed the times of the directories they lay in.
void putBackTimes(const HeldTree& tree, const JobRecord& record) try {
    struct stat status {};
    // Not written yet, and so there were no lists.
    if (!tree.plain.look(std::string(names::kManifest), &status) && errno == ENOENT) return;
    Manifest manifest(tree.plain);
    if (manifest.header().job != record.id) return;  // neither was this one's
    Descent descent(tree.source(record.direction));
    manifest.forEach([&](const Metadata& metadata) {
        if (!metadata.directory) return;
        const HeldDirectory directory = descent.open(metadata.relative);
        // One that has gone needs no time. Something in its place may hide it, with its list.
        if (directory.error() == -ENOENT) return;
        throwIfError(directory.error(), "cannot open " + directory.path());
        // What belongs to somebody else has kept its time or lost it.
        (void)putBackTime(metadata.modified, directory.descriptor());
    });
} catch (const ManifestDamaged& damaged) {
    throw JobEnd(ExitStatus::kRefused,
                 fmt::format("{}, which knows the times that directories had. Nothing was moved; "
                             "put that right, or remove it to give them up, and run this again.",
                             printable(damaged.what())));
}

[[noreturn]] void refuse(const HeldTree& tree, const std::string& what) {
    throw JobEnd(ExitStatus::kRefused,
                 fmt::format("{}, so owners, permissions and times could not be put back. No file "
                             "is lost; {} tells more.",
                             printable(what), commandFor("repair", tree.plain.path())));
}

}  // namespace

Manifest openManifest(const HeldTree& tree, const JobRecord& record) {
    try {
        Manifest manifest(tree.plain);
        if (manifest.header().job == record.id) return manifest;
    } catch (const ManifestDamaged& damaged) {
        refuse(tree, damaged.what());
    }
    refuse(tree, tree.plain.pathOf(std::string(names::kManifest)) + " is that of another job");
}

void discardPreparation(const HeldTree& tree, const JobRecord& record) {
    const HeldDirectory& source = tree.source(record.direction);
    if (record.looked) {
        removeLists(source);
        putBackTimes(tree, record);
        removeEvidence(tree);
    } else {
        // Whatever else is there belongs to a job that has lost its record.
        removeDurably(tree.plain, files::DurableFile::replacementOf(std::string(names::kManifest)));
        removeDurably(tree.plain, names::kJobRecord);
    }
    (void)putBackTime(record.rootTime, source.descriptor());  // Only the record knew it.
}

void syncTrees(const HeldTree& tree) {
    // Of everything, because a sync of a stacked file system alone does not reach the one below it;
    // but that one reports nothing.
    sync();
    syncFound(tree.plain);
    syncFound(tree.encrypted);
}

void removeEvidence(const HeldTree& tree) {
    removeDurably(tree.plain, names::kManifest);
    if (tree.encrypted.isOpen()) removeDurably(tree.encrypted, names::kMark);
    removeDurably(tree.plain, names::kJobRecord);
}

void putBackRootTimes(const HeldTree& tree, const JobRecord& record) {
    for (const HeldDirectory* const root : {&tree.plain, &tree.encrypted}) {
        // What belongs to somebody else has kept its time or lost it; there is nothing to repeat.
        if (root->isOpen()) (void)putBackTime(record.rootTime, root->descriptor());
    }
}

}  // namespace host
