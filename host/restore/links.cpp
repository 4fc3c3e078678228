#include "restore/links.h"

#include <unistd.h>

#include <cerrno>
#include <optional>
#include <set>
#include <string>
#include <system_error>

#include "manifest/held_link.h"
#include "tree/descent.h"
#include "tree/durable.h"

using files::HeldDirectory;

namespace host {
namespace {

/// Goes from link to link, and opens only the directories that links are in.
class LinkDirectories {
  public:
    explicit LinkDirectories(const HeldDirectory& root) : descent_(root) {}

    /// The directory of this link, and the link's name in it.
    const HeldDirectory& open(const Metadata& link, std::string* name) {
        const size_t slash = link.relative.rfind('/');
        *name = link.relative.substr(slash + 1);
        std::string relative = link.relative.substr(0, slash);
        if (!directory_ || relative != relative_) {
            sync();
            directory_ = descent_.open(relative);
            relative_ = std::move(relative);
        }
        return *directory_;
    }
    /// The directory that was opened last has changed.
    void touch() { touched_ = true; }
    /// Makes the change last; every other one has been made so.
    void sync() {
        if (touched_) syncDirectory(*directory_);
        touched_ = false;
    }

  private:
    Descent descent_;
    std::optional<HeldDirectory> directory_;
    std::string relative_;
    bool touched_ = false;
};

/// False where the link is not there afterwards.
bool makeLink(const HeldDirectory& directory, const std::string& name, const Metadata& metadata,
              RestoreNotes& notes) {
    if (!directory.isOpen()) {
        notes.notThere(metadata, -directory.error(), "is in no directory");
        return false;
    }
    // EEXIST: made by an earlier attempt, or something else, which is found out now.
    if (!directory.makeLink(metadata.text, name) && errno != EEXIST) {
        notes.missing(metadata, "cannot be made: " + std::generic_category().message(errno));
        return false;
    }
    const HeldLink link(directory, name);
    if (!isSameLink(link, metadata.text)) {
        if (link.error() == 0 || link.error() == EINVAL) {
            notes.missing(metadata, "is something else, in the way");
        } else {
            notes.notThere(metadata, link.error(), "is no link");
        }
        return false;
    }
    notes.refused(metadata, link.putBack(metadata).describe());
    return true;
}

}  // namespace

void moveLinks(Manifest& manifest, const HeldDirectory& source, const HeldDirectory& target,
               const std::function<void()>& between, Restored& restored) {
    RestoreNotes notes(source, target, restored);
    LinkDirectories targets(target);
    LinkDirectories sources(source);
    std::set<std::string> notMade;
    std::string name;
    manifest.forEach([&](const Metadata& metadata) {
        between();
        if (!metadata.link) return;
        const HeldDirectory& directory = targets.open(metadata, &name);
        if (makeLink(directory, name, metadata, notes)) {
            targets.touch();
        } else {
            notMade.insert(metadata.relative);
        }
    });
    targets.sync();
    // What a long link says is kept like the bytes of a file, but a link cannot be opened to be
    // synced; as in syncTrees(), the sync of everything reports nothing.
    sync();
    syncFound(target);
    manifest.forEach([&](const Metadata& metadata) {
        between();
        if (!metadata.link || notMade.contains(metadata.relative)) return;
        const HeldDirectory& directory = sources.open(metadata, &name);
        if (directory.error() == -ENOENT) return;
        if (!directory.isOpen()) {
            // Somebody hides it, and may show it again.
            const std::string why = std::generic_category().message(-directory.error());
            return notes.refusedInSource(metadata, "cannot be removed: " + why);
        }
        const HeldLink link(directory, name);
        if (link.error() == ENOENT || link.error() == EINVAL) return;  // it has gone
        if (link.error() == 0 && !isSameLink(link, metadata.text)) return;
        if (link.error() == 0 && directory.remove(name)) return sources.touch();
        // An undo, which leaves what was never moved, would not find it at its end.
        const int error = link.error() == 0 ? errno : link.error();
        notes.refusedInSource(metadata,
                              "cannot be removed: " + std::generic_category().message(error));
    });
    sources.sync();
}

}  // namespace host
