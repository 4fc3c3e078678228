#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <android-base/unique_fd.h>

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

constexpr off_t kChunkLimit = 262144;

void require(bool good, const std::string& what) {
    if (good) return;
    perror(what.c_str());
    exit(EXIT_FAILURE);
}

void copy(const std::string& from, const std::string& to) {
    const unique_fd source(open(from.c_str(), O_RDONLY));
    const unique_fd destination(open(to.c_str(), O_WRONLY | O_CREAT, 0666));
    struct stat status = {};
    require(fstat(source.get(), &status) == 0 && destination.ok(), to);
    for (off_t offset = 0; offset < status.st_size;) {
        const off_t count = std::min(status.st_size - offset, kChunkLimit);
        const ssize_t sent =
            sendfile(destination.get(), source.get(), &offset, static_cast<size_t>(count));
        require(sent == count && fsync(destination.get()) == 0, to);
    }
    require(fsync(destination.get()) == 0, to);
}

// Answers are not used: a fresh move finds the base and nothing else.
void look(const std::string& base, const std::string& stash, const std::string& intermediate,
          const std::string& target) {
    struct stat status = {};
    struct statvfs space = {};
    (void)!access(stash.c_str(), F_OK);
    (void)!access(base.c_str(), F_OK);
    (void)!lstat(stash.c_str(), &status);
    (void)!lstat(intermediate.c_str(), &status);
    (void)unique_fd(open(intermediate.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
    (void)!stat(base.c_str(), &status);
    (void)!statvfs(target.c_str(), &space);
}

struct Folders {
    std::string source;
    std::string target;
    unique_fd sourceFd;
    unique_fd targetFd;
};

void move(const Folders& folders, const std::string& name, bool looks) {
    const std::string base = folders.source + "/" + name;
    const std::string intermediate = folders.target + "/.ecryptfs_intermediate_" + name;
    const std::string stash = folders.target + "/." + name;
    const std::string target = folders.target + "/" + name;
    if (looks) look(base, stash, intermediate, folders.target);
    copy(base, intermediate);
    require(rename(intermediate.c_str(), stash.c_str()) == 0, stash);
    require(fsync(folders.targetFd.get()) == 0, folders.target);
    struct stat status = {};
    if (looks) require(lstat(base.c_str(), &status) == 0, base);
    require(unlink(base.c_str()) == 0, base);
    require(rename(stash.c_str(), target.c_str()) == 0, target);
    require(fsync(folders.targetFd.get()) == 0, folders.target);
    require(fsync(folders.sourceFd.get()) == 0, folders.source);
}

}  // namespace

int main(int argc, char* argv[]) {
    errno = EINVAL;
    const bool looks = argc == 4 && std::string_view(argv[1]) == "looks";
    require(argc == 3 || looks, "usage: floor [looks] SOURCE TARGET");
    const std::string source = argv[argc - 2];
    const std::string target = argv[argc - 1];
    const std::string list = process_file::pathIn(source);
    std::vector<std::string> names;
    require(process_file::load(list, &names), list);

    const unique_fd record(open(list.c_str(), O_WRONLY));
    const Folders folders = {source, target,
                             unique_fd(open(source.c_str(), O_RDONLY | O_DIRECTORY)),
                             unique_fd(open(target.c_str(), O_RDONLY | O_DIRECTORY))};
    for (size_t i = 1; i < names.size(); ++i) {
        move(folders, names[i], looks);
        ProcessHeader header;
        header.number = static_cast<uint32_t>(i);
        require(pwrite(record.get(), &header, sizeof(header), 0) == sizeof(header), list);
        require(fsync(record.get()) == 0, list);
    }
    require(unlink(list.c_str()) == 0, list);
}
