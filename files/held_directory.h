#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>

#include <android-base/unique_fd.h>

namespace files {

/// A directory that is held open, and the files in it, each named by (directory, name).
///
/// For work with more rights than the owner of the tree has: he may rename, remove or replace
/// whatever stands in it at any moment, and must not lead the program to files that are not his.
/// So a path is looked up once, for the root of a tree. Every directory below is opened by name
/// below its open parent, and every file is opened by name in its open directory; links are never
/// followed, no open waits for the other end of a pipe, and what a file is gets asked of the
/// descriptor that is then used.
///
/// A name is one component: an empty one, ".", ".." and one with a slash are refused with EINVAL.
/// Operations that can fail return false, or an empty handle, with errno set. A directory that
/// could not be opened fails each of them with the errno of its opening. Opens are repeated when a
/// signal interrupts them. Listing and reading leave no time of access, where this user is root or
/// the owner. For one thread.
class HeldDirectory {
  public:
    /// Holds nothing: every operation fails with EBADF.
    HeldDirectory() = default;

    /// The root of a tree, by its path; links on the way are followed.
    [[nodiscard]] static HeldDirectory openRoot(const std::string& path);

    /// The subdirectory `name`. A link there fails with ENOTDIR, even one that leads to a
    /// directory. One that may not be listed (EACCES) is held all the same; its files can be used,
    /// but it can be neither listed nor synced.
    [[nodiscard]] HeldDirectory openChild(const std::string& name) const;

    /// The directory at `relative`, which is empty (this directory once more) or "/" and a name
    /// for each level. The levels are opened one below the other, so its length has no limit.
    [[nodiscard]] HeldDirectory openBelow(const std::string& relative) const;

    /// 0, or the negated errno of the opening.
    [[nodiscard]] int error() const { return error_; }
    [[nodiscard]] bool isOpen() const { return error_ == 0; }

    /// For messages alone: where the directory was found.
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string pathOf(const std::string& name) const { return path_ + "/" + name; }

    /// The descriptor, which stays this object's; -1 when the directory could not be opened.
    [[nodiscard]] int descriptor() const;

    /// What stands at `name`; of a link the link itself.
    [[nodiscard]] bool look(const std::string& name, struct stat* status) const;

    /// Opens what stands at `name` for reading, whatever it is but a link (ELOOP). What it is has
    /// still to be asked of the descriptor.
    [[nodiscard]] android::base::unique_fd openAny(const std::string& name) const;

    /// Holds what stands at `name`, a link itself too, without opening it: it can be asked what it
    /// is and be given an owner and times, by calls that take AT_EMPTY_PATH.
    [[nodiscard]] android::base::unique_fd openPlace(const std::string& name) const;

    /// Opens the regular file `name` for reading and says what it is. Anything else is refused: a
    /// link with ELOOP, a directory with EISDIR, the rest with EINVAL.
    [[nodiscard]] android::base::unique_fd openForReading(const std::string& name,
                                                          struct stat* status) const;

    /// Opens the regular file `name` for writing, as it is. A file with a second name (EMLINK) is
    /// refused too, because that name may stand in a place that is not the owner's to write to.
    [[nodiscard]] android::base::unique_fd openForWriting(const std::string& name) const;

    /// The same, and creates the file (permissions `mode` less the umask) if it is not there.
    [[nodiscard]] android::base::unique_fd openOrCreate(const std::string& name, mode_t mode) const;

    /// Opens a new, empty file `name` for writing. A file or link of that name is removed first;
    /// a file that cannot be removed is emptied, unless openForWriting would refuse it. Fails with
    /// EISDIR where a directory stands and with EEXIST where a pipe or device does.
    [[nodiscard]] android::base::unique_fd createFile(const std::string& name, mode_t mode) const;

    /// Opens a file for writing that this call creates, or fails with EEXIST.
    [[nodiscard]] android::base::unique_fd createNew(const std::string& name, mode_t mode) const;

    /// Makes a subdirectory, or fails with EEXIST.
    [[nodiscard]] bool makeChild(const std::string& name, mode_t mode) const;

    /// Makes a symbolic link `name` that says `text`, or fails with EEXIST.
    [[nodiscard]] bool makeLink(const std::string& text, const std::string& name) const;

    /// Removes a subdirectory that is empty.
    [[nodiscard]] bool removeChild(const std::string& name) const;

    /// Renames `from` to `to`, which is replaced, within this directory.
    [[nodiscard]] bool rename(const std::string& from, const std::string& to) const;

    /// Removes what is no directory.
    [[nodiscard]] bool remove(const std::string& name) const;

    /// Makes what was created, renamed or removed here last through a power cut. A directory that
    /// may not be opened for listing, and one whose file system cannot sync directories (EINVAL),
    /// are passed over with true: they have the durability that the file system gives.
    [[nodiscard]] bool sync() const;

    /// The same for what was found here, changed by an earlier run. After a failing write a file
    /// system may show what is not on the disk, and sync it with success because nothing changes it
    /// any more; but then it refuses changes. So this one also asks it to remove an attribute that
    /// no directory has. Where there are no attributes, it is sync().
    [[nodiscard]] bool syncFound() const;

    /// Begins a listing; once per object.
    [[nodiscard]] bool beginListing();

    /// The next entry but for "." and "..", valid until the next call; null at the end, and after
    /// an error, which errno tells from the end, where it is 0.
    [[nodiscard]] const dirent* nextEntry();

  private:
    struct StreamCloser {
        void operator()(DIR* stream) const { (void)closedir(stream); }  // nothing was written
    };

    [[nodiscard]] static HeldDirectory open(int parent, const std::string& name, int flags,
                                            const std::string& path);
    [[nodiscard]] bool canUse(const std::string& name) const;
    [[nodiscard]] android::base::unique_fd openFile(const std::string& name, int flags,
                                                    mode_t mode) const;

    std::string path_;
    int error_ = -EBADF;
    bool canBeListed_ = true;
    android::base::unique_fd fd_;                 ///< Until a listing begins, then the stream's.
    std::unique_ptr<DIR, StreamCloser> listing_;  ///< Null until then.
};

}  // namespace files
