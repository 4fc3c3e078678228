#include "restore/restore.h"

#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "manifest/held_link.h"
#include "restore/certainty.h"
#include "tree/descent.h"

using android::base::unique_fd;
using files::HeldDirectory;

namespace host {
namespace {

std::string nameOf(const Metadata& metadata) {
    return metadata.relative.substr(metadata.relative.rfind('/') + 1);
}

class Restorer {
  public:
    Restorer(const HeldDirectory& source, const HeldDirectory& target, bool onlyLook,
             Restored& restored)
        : sources_(source),
          targets_(target),
          onlyLook_(onlyLook),
          notes_(source, target, restored) {}

    void putBackOne(const Metadata& metadata) {
        if (metadata.directory) {
            putBackDirectory(metadata);
        } else if (!metadata.link) {
            putBackFile(metadata);
        } else if (onlyLook_) {
            compareLink(metadata);
        }
    }

  private:
    void putBackDirectory(const Metadata& metadata) {
        directory_ = targets_.open(metadata.relative);
        if (!directory_.isOpen()) {
            notes_.notThere(metadata, -directory_.error(), "is no directory");
        } else {
            const int descriptor = directory_.descriptor();
            take(metadata, lookAtOpen(descriptor), descriptor);
        }
        if (onlyLook_) return;
        // The next job takes this directory's times for those of its twin in the target.
        const HeldDirectory twin = sources_.open(metadata.relative);
        if (twin.error() == -ENOENT || twin.error() == -ENOTDIR) return;
        const int error = twin.isOpen() ? putBackTimes(metadata, twin.descriptor()) : -twin.error();
        if (error == 0) return;
        notes_.refusedInSource(metadata, "time: " + std::generic_category().message(error));
    }

    /// The manifest names what is in a directory right after the directory.
    void putBackFile(const Metadata& metadata) {
        struct stat status {};
        const unique_fd file = directory_.openForReading(nameOf(metadata), &status);
        if (!file.ok()) {
            notes_.notThere(metadata, errno, "is no regular file");
        } else if (static_cast<uint64_t>(status.st_size) != metadata.size) {
            notes_.missing(metadata, fmt::format("has {} bytes", status.st_size));
        } else {
            putBackOpen(metadata, lookAtOpen(file.get(), status), file.get());
        }
    }

    void putBackOpen(const Metadata& metadata, const FoundMetadata& found, int file) {
        // As after an earlier attempt, or where it never was moved.
        const bool asItWas = differences(metadata, found).empty();
        if (!asItWas && found.status.st_nlink != 1) {
            // Its other name may stand where the owner of the tree has no rights.
            return notes_.missing(metadata, "has a second name, which no moved file has");
        }
        notes_.count();
        if (!asItWas) take(withoutBorrowedRights(metadata, found.status, file), found, file);
    }

    Metadata withoutBorrowedRights(const Metadata& metadata, const struct stat& found, int file) {
        if (onlyLook_ || ourUser() != 0 || !lendsRights(metadata) ||
            isCertain(metadata, found, file)) {
            return metadata;
        }
        notes_.refused(metadata,
                       "set-ID bits and capabilities, because it is not for certain the file that "
                       "had them");
        return withoutLentRights(metadata);
    }

    void compareLink(const Metadata& metadata) {
        const HeldLink link(directory_, nameOf(metadata));
        if (link.error() != 0) {
            notes_.notThere(metadata, link.error(), "is no link");
        } else if (link.text() != metadata.text) {
            notes_.missing(metadata, "leads elsewhere");
        } else {
            notes_.refused(metadata, link.differences(metadata));
        }
    }

    void take(const Metadata& metadata, const FoundMetadata& found, int descriptor) {
        notes_.refused(metadata, onlyLook_ ? differences(metadata, found)
                                           : putBack(metadata, found, descriptor).describe());
    }

    Descent sources_;
    Descent targets_;
    bool onlyLook_;
    RestoreNotes notes_;
    HeldDirectory directory_;  ///< of the target, whose files come next
};

}  // namespace

void restoreMetadata(Manifest& manifest, const HeldDirectory& source, const HeldDirectory& target,
                     const std::function<void()>& between, Restored& restored) {
    Restorer restorer(source, target, false, restored);
    manifest.forEach([&](const Metadata& metadata) {
        between();
        restorer.putBackOne(metadata);
    });
}

Restored compareMetadata(Manifest& manifest, const HeldDirectory& source,
                         const HeldDirectory& target) {
    Restored restored;
    Restorer restorer(source, target, true, restored);
    manifest.forEach([&](const Metadata& metadata) { restorer.putBackOne(metadata); });
    return restored;
}

}  // namespace host
