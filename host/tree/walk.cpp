#include "tree/walk.h"

#include <dirent.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "end/throw_errno.h"
#include "tree/descent.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {

std::vector<Entry> listDirectory(HeldDirectory& directory) {
    if (!directory.beginListing()) throwErrno("cannot open " + directory.path());
    std::vector<Entry> entries;
    while (const dirent* const entry = directory.nextEntry()) {
        entries.push_back({entry->d_name, entry->d_type});
    }
    if (errno != 0) throwErrno("cannot list " + directory.path());
    return entries;
}

void walkTree(const HeldDirectory& root, const OnDirectory& onDirectory,
              const OnUnlisted& onUnlisted) {
    Descent descent(root);
    std::vector<std::string> waiting = {""};
    while (!waiting.empty()) {
        const std::string relative = std::move(waiting.back());
        waiting.pop_back();
        HeldDirectory directory = descent.open(relative);
        std::vector<Entry> entries;
        try {
            entries = listDirectory(directory);
        } catch (const std::system_error& error) {
            onUnlisted(relative, error.code().value());
            continue;
        }
        onDirectory({relative, directory, entries});
        for (const Entry& entry : entries) {
            if (entry.type == DT_DIR && !entry.name.starts_with(names::kOwnPrefix))
                waiting.push_back(relative + "/" + entry.name);
        }
    }
}

void walkTree(const HeldDirectory& root, const OnDirectory& onDirectory) {
    walkTree(root, onDirectory, [&root](const std::string& relative, int error) {
        throwIfError(-error, "cannot list " + root.path() + relative);
    });
}

}  // namespace host
