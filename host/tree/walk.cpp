#include "tree/walk.h"

#include <dirent.h>

#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include "end/throw_errno.h"
#include "tree/descent.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {
namespace {

bool isOwn(std::string_view name) { return name.starts_with(names::kOwnPrefix); }

std::vector<Entry> list(HeldDirectory& directory, Keep keep) {
    if (!directory.beginListing()) throwErrno("cannot open " + directory.path());
    std::vector<Entry> entries;
    while (const dirent* const entry = directory.nextEntry()) {
        if (keep == Keep::kAll || entry->d_type == DT_DIR || isOwn(entry->d_name)) {
            entries.push_back({entry->d_name, entry->d_type});
        }
    }
    if (errno != 0) throwErrno("cannot list " + directory.path());
    return entries;
}

void walk(const HeldDirectory& root, Keep keep, const OnDirectory& onDirectory,
          const OnUnlisted& onUnlisted) {
    Descent descent(root);
    std::vector<std::string> waiting = {""};
    while (!waiting.empty()) {
        const std::string relative = std::move(waiting.back());
        waiting.pop_back();
        HeldDirectory directory = descent.open(relative);
        std::vector<Entry> entries;
        try {
            entries = list(directory, keep);
        } catch (const std::system_error& error) {
            onUnlisted(relative, error.code().value());
            continue;
        }
        onDirectory({relative, directory, entries});
        for (const Entry& entry : entries) {
            if (entry.type == DT_DIR && !isOwn(entry.name))
                waiting.push_back(relative + "/" + entry.name);
        }
    }
}

}  // namespace

std::vector<Entry> listDirectory(HeldDirectory& directory) { return list(directory, Keep::kAll); }

void walkTree(const HeldDirectory& root, const OnDirectory& onDirectory,
              const OnUnlisted& onUnlisted) {
    walk(root, Keep::kAll, onDirectory, onUnlisted);
}

void walkTree(const HeldDirectory& root, const OnDirectory& onDirectory, Keep keep) {
    walk(root, keep, onDirectory, [&root](const std::string& relative, int error) {
        throwIfError(-error, "cannot list " + root.path() + relative);
    });
}

}  // namespace host
