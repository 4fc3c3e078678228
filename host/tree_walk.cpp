#include "tree_walk.h"

#include <dirent.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "durable_file.h"
#include "names.h"

namespace host {

std::vector<Entry> listDirectory(const std::string& path) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
    if (directory == nullptr) throwErrno("cannot open " + path);
    std::vector<Entry> entries;
    while (true) {
        errno = 0;
        const dirent* const entry = readdir(directory.get());
        if (entry == nullptr) break;
        const std::string name = entry->d_name;
        if (name != "." && name != "..") entries.push_back({name, entry->d_type});
    }
    if (errno != 0) throwErrno("cannot list " + path);
    return entries;
}

void walkTree(const std::string& root, const OnDirectory& onDirectory,
              const OnUnlisted& onUnlisted) {
    std::vector<std::string> waiting = {""};
    while (!waiting.empty()) {
        const std::string relative = std::move(waiting.back());
        waiting.pop_back();
        std::vector<Entry> entries;
        try {
            entries = listDirectory(root + relative);
        } catch (const std::system_error& error) {
            onUnlisted(relative, error.code().value());
            continue;
        }
        onDirectory(relative, entries);
        for (const Entry& entry : entries) {
            if (entry.type == DT_DIR && !entry.name.starts_with(names::kOwnPrefix))
                waiting.push_back(relative + "/" + entry.name);
        }
    }
}

void walkTree(const std::string& root, const OnDirectory& onDirectory) {
    walkTree(root, onDirectory, [&root](const std::string& relative, int error) {
        throw std::system_error(error, std::generic_category(), "cannot list " + root + relative);
    });
}

}  // namespace host
