#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <android-base/unique_fd.h>

#include "files/held_directory.h"
#include "records/process_file.h"

// The least a durable, resumable move can cost: moves the files that a scan has listed in SOURCE
// into TARGET with the system calls that the move consists of, in the worker's order and with all
// of its syncs, and nothing else: no logging, no reports, no look at what is already there, no
// question about free space. Any failure ends it.
//
// With the word "looks" it also makes the calls by which the worker finds out where an earlier run
// stopped and whether the file fits: what the worker takes beyond that is its own doing.

namespace {

using android::base::unique_fd;
using files::HeldDirectory;

constexpr off_t kChunkLimit = 262144;

void require(bool good, const std::string& what) {
    if (good) return;
    perror(what.c_str());
    exit(EXIT_FAILURE);
}

struct Folders {
    HeldDirectory source;
    HeldDirectory target;
};

unique_fd open(const HeldDirectory& directory, const std::string& name, int flags) {
    unique_fd file(openat(directory.descriptor(), name.c_str(), flags | O_NOFOLLOW, 0666));
    require(file.ok(), name);
    return file;
}

void copy(const Folders& folders, const std::string& from, const std::string& to) {
    const unique_fd source = open(folders.source, from, O_RDONLY);
    const unique_fd destination = open(folders.target, to, O_WRONLY | O_CREAT | O_EXCL);
    struct stat status = {};
    require(fstat(source.get(), &status) == 0, from);
    for (off_t offset = 0; offset < status.st_size;) {
        const off_t count = std::min(status.st_size - offset, kChunkLimit);
        const ssize_t sent =
            sendfile(destination.get(), source.get(), &offset, static_cast<size_t>(count));
        require(sent == count && fsync(destination.get()) == 0, to);
    }
    require(fsync(destination.get()) == 0, to);
}

// Answers are not used: a fresh move finds the base and nothing else.
void look(const Folders& folders, const std::string& base, const std::string& stash) {
    struct stat status = {};
    struct statvfs space = {};
    (void)!folders.target.look(stash, &status);
    (void)!folders.source.look(base, &status);
    (void)!fstatvfs(folders.target.descriptor(), &space);
}

void move(const Folders& folders, const std::string& name, bool looks) {
    const std::string intermediate = ".ecryptfs_intermediate_" + name;
    const std::string stash = "." + name;
    if (looks) look(folders, name, stash);
    copy(folders, name, intermediate);
    require(folders.target.rename(intermediate, stash), stash);
    require(folders.target.sync(), folders.target.path());
    require(folders.source.remove(name), name);
    require(folders.target.rename(stash, name), name);
    require(folders.target.sync(), folders.target.path());
    require(folders.source.sync(), folders.source.path());
}

}  // namespace

int main(int argc, char* argv[]) {
    errno = EINVAL;
    const bool looks = argc == 4 && std::string_view(argv[1]) == "looks";
    require(argc == 3 || looks, "usage: floor [looks] SOURCE TARGET");
    const Folders folders = {HeldDirectory::openRoot(argv[argc - 2]),
                             HeldDirectory::openRoot(argv[argc - 1])};
    const std::string list = process_file::kName;
    std::vector<std::string> names;
    require(process_file::load(folders.source, &names), list);
    const unique_fd record = open(folders.source, list, O_WRONLY);
    for (size_t i = 1; i < names.size(); ++i) {
        move(folders, names[i], looks);
        ProcessHeader header;
        header.number = static_cast<uint32_t>(i);
        require(pwrite(record.get(), &header, sizeof(header), 0) == sizeof(header), list);
        require(fsync(record.get()) == 0, list);
    }
    require(folders.source.remove(list), list);
}
