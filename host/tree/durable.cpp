#include "tree/durable.h"

#include <cerrno>
#include <system_error>

#include "end/throw_errno.h"
#include "files/durable_file.h"

using files::DurableFile;
using files::HeldDirectory;

namespace host {

void replaceDurably(const HeldDirectory& directory, std::string_view name, std::string_view bytes) {
    DurableFile file(directory, std::string(name));
    file.append(bytes);
    throwIfError(file.commit(), "cannot write " + directory.pathOf(std::string(name)));
}

void removeDurably(const HeldDirectory& directory, std::string_view name) {
    bool removed = false;
    for (const std::string& each :
         {DurableFile::replacementOf(std::string(name)), std::string(name)}) {
        if (directory.remove(each)) {
            removed = true;
        } else if (errno != ENOENT) {
            throwErrno("cannot remove " + directory.pathOf(each));
        }
    }
    if (removed) syncDirectory(directory);
}

void syncDirectory(const HeldDirectory& directory) {
    if (!directory.sync()) throwErrno("cannot sync " + directory.path());
}

void syncFound(const HeldDirectory& directory) {
    if (!directory.syncFound()) throwErrno("cannot sync " + directory.path());
}

std::optional<std::string> readIfThere(const HeldDirectory& directory, std::string_view name) {
    const std::string file(name);
    std::string bytes;
    struct stat status {};
    const int error = files::readWhole(directory, file, &bytes, &status);
    if (error == -ENOENT) return std::nullopt;
    throwIfError(error, "cannot read " + directory.pathOf(file));
    return bytes;
}

}  // namespace host
