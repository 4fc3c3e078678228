#include "job/survey.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "end/throw_errno.h"
#include "lists/lists.h"
#include "manifest/held_link.h"
#include "tree/descent.h"
#include "tree/same_bytes.h"

using files::HeldDirectory;

namespace host {
namespace {

/// What is found under a name.
struct Found {
    bool there = false;
    struct stat status {};
};

Found lookAt(const HeldDirectory& directory, const std::string& name) {
    Found found;
    found.there = directory.look(name, &found.status);
    if (!found.there && errno != ENOENT) throwErrno("cannot look at " + directory.pathOf(name));
    return found;
}

bool hasItsSize(const Found& found, const SurveyedFile& file) {
    return found.there && S_ISREG(found.status.st_mode) &&
           static_cast<uint64_t>(found.status.st_size) == file.size;
}

bool isAsItWas(const Found& found, const SurveyedFile& file) {
    return hasItsSize(found, file) && found.status.st_mtim.tv_sec == file.modified.tv_sec &&
           found.status.st_mtim.tv_nsec == file.modified.tv_nsec;
}

/// The files of one directory.
class Judge {
  public:
    Judge(SurveyedDirectory& directory, bool replace) : at_(directory), replace_(replace) {
        for (const SurveyedLink& link : at_.links) {
            links_.insert(link.name);
            meet(link.name);
        }
        for (const SurveyedFile& file : at_.files) meet(file.name);
        for (const SurveyedFile& file : at_.files) {
            const auto met = known_.find(file.name);
            if (met != known_.end()) met->second = &file;
        }
    }

    void judge(SurveyedLink& link) const {
        const HeldLink source(at_.source, link.name);
        const HeldLink target(at_.target, link.name);
        link.inSource = source.error() == 0 || source.error() == EINVAL;
        if (isSameLink(target, link.metadata.text)) {
            link.fate = Fate::kArrived;
        } else if (isSameLink(source, link.metadata.text)) {
            link.fate = isNothing(target) || isCopy(link) ? Fate::kWaits : Fate::kNameTaken;
        } else {
            link.fate = link.inSource ? Fate::kChanged : Fate::kGone;
        }
    }

    void judge(SurveyedFile& file) {
        const auto source = lookAt(at_.source, file.name);
        const auto target =
            isCopyOfAnother(file, source.there) ? Found() : lookAt(at_.target, file.name);
        const std::string dotted = "." + file.name;
        const auto copy =
            isMovedFile(dotted) || isMovedLink(dotted) ? Found() : lookAt(at_.target, dotted);
        file.inSource = source.there;
        file.asItWas = isAsItWas(source, file);
        if (!file.listed && hasItsSize(target, file)) {
            file.fate = Fate::kArrived;
        } else if (source.there) {
            file.fate = fateInSource(file, copy.there, target.there);
        } else if (copy.there) {
            file.fate = fateOfCopy(file, hasItsSize(copy, file), target.there);
        } else {
            file.fate = hasItsSize(target, file) ? Fate::kArrived : Fate::kGone;
        }
    }

  private:
    /// Of a pair N and .N both have to be known, of all others none.
    void meet(std::string_view name) {
        if (!name.starts_with('.')) return;
        known_.emplace(name, nullptr);
        known_.emplace(name.substr(1), nullptr);
    }

    /// The file of this name that the manifest has, one of a pair; or null.
    [[nodiscard]] const SurveyedFile* known(std::string_view name) const {
        const auto found = known_.find(name);
        return found == known_.end() ? nullptr : found->second;
    }

    /// A user's own file .N, which leaves the source only after N has been dealt with.
    bool isMovedFile(const std::string& dotted) {
        return known(dotted) != nullptr && !lookAt(at_.source, dotted).there;
    }

    /// A link .N that is over already, while a list has come back; it would be made again.
    bool isMovedLink(const std::string& dotted) {
        return links_.contains(dotted) && S_ISLNK(lookAt(at_.target, dotted).status.st_mode);
    }

    static bool isNothing(const HeldLink& link) { return link.error() == ENOENT; }

    /// What stands under the name of a link .N may be the copy of a file N on its way.
    bool isCopy(const SurveyedLink& link) const {
        return link.name.front() == '.' && known(std::string_view(link.name).substr(1)) != nullptr;
    }

    /// What stands under the name of a user's own file .N while that is still in the source is the
    /// copy of N, as long as N has not arrived.
    bool isCopyOfAnother(const SurveyedFile& file, bool inSource) {
        if (!inSource || file.name.front() != '.') return false;
        const std::string base = file.name.substr(1);
        const SurveyedFile* const other = known(base);
        if (other == nullptr) return false;
        return file.listed || !hasItsSize(lookAt(at_.target, base), *other);
    }

    Fate fateInSource(const SurveyedFile& file, bool hasCopy, bool nameTaken) {
        if (!file.asItWas) return Fate::kChanged;
        // The worker would delete the source for this copy.
        if (hasCopy) {
            const bool same = sameBytes(at_.source, file.name, at_.target, "." + file.name);
            return same ? Fate::kWaits : Fate::kDottedInWay;
        }
        // The same bytes are a file that could not be deleted here after it had arrived there.
        const bool taken =
            nameTaken && !replace_ && !sameBytes(at_.source, file.name, at_.target, file.name);
        return taken ? Fate::kNameTaken : Fate::kWaits;
    }

    Fate fateOfCopy(const SurveyedFile& file, bool complete, bool nameTaken) {
        if (!complete) return Fate::kDottedInWay;
        const bool taken = nameTaken && !replace_ &&
                           !sameBytes(at_.target, "." + file.name, at_.target, file.name);
        return taken ? Fate::kNameTaken : Fate::kWaits;
    }

    SurveyedDirectory& at_;
    bool replace_;
    std::unordered_map<std::string_view, const SurveyedFile*> known_;
    std::unordered_set<std::string_view> links_;
};

/// Compares the list with the files that the manifest names.
void takeList(SurveyedDirectory& directory) {
    ProcessFile list;
    try {
        list = loadProcessFile(directory.source);
    } catch (const ListDamaged&) {
        directory.listDamaged = true;
    }
    std::vector<std::string_view>& left = list.entries;
    left.erase(left.begin(), left.begin() + std::min<ptrdiff_t>(list.number, std::ssize(left)));
    std::sort(left.begin(), left.end());
    left.erase(std::unique(left.begin(), left.end()), left.end());
    std::vector<bool> isKnown(left.size());
    for (SurveyedFile& file : directory.files) {
        const auto found = std::lower_bound(left.begin(), left.end(), file.name);
        file.listed = found != left.end() && *found == file.name;
        if (file.listed) isKnown[static_cast<size_t>(found - left.begin())] = true;
    }
    for (size_t i = 0; i < left.size(); ++i) {
        if (!isKnown[i]) directory.unknown.emplace_back(left[i]);
    }
}

}  // namespace

void survey(Manifest& manifest, const HeldDirectory& source, const HeldDirectory& target,
            bool replace, const std::function<void(const SurveyedDirectory&)>& each) {
    Descent sources(source);
    Descent targets(target);
    std::optional<Metadata> directory;
    std::vector<SurveyedFile> files;
    std::vector<SurveyedLink> links;
    const auto lookAtFiles = [&] {
        if (!directory) return;
        const HeldDirectory from = sources.open(directory->relative);
        const HeldDirectory to = targets.open(directory->relative);
        SurveyedDirectory surveyed{
            *directory, from, to, std::exchange(files, {}), std::exchange(links, {}), {}, false};
        if (from.isOpen()) takeList(surveyed);
        Judge judge(surveyed, replace);
        for (SurveyedFile& file : surveyed.files) judge.judge(file);
        for (SurveyedLink& link : surveyed.links) judge.judge(link);
        each(surveyed);
    };
    manifest.forEach([&](const Metadata& metadata) {
        if (metadata.directory) {
            lookAtFiles();
            directory = metadata;
            return;
        }
        const std::string name = metadata.relative.substr(metadata.relative.rfind('/') + 1);
        if (metadata.link) {
            links.push_back({.metadata = metadata, .name = name});
        } else {
            files.push_back({.name = name,
                             .size = metadata.size,
                             .modified = metadata.modified,
                             .uid = metadata.uid});
        }
    });
    lookAtFiles();
}

}  // namespace host
