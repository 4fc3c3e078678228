#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "files/durable_file.h"
#include "files/held_directory.h"
#include "manifest/metadata.h"
#include "tree/roots.h"

namespace host {

/// Whose manifest it is.
struct ManifestHeader {
    std::string job;  ///< the id in the job's record
    Direction direction = Direction::kEncrypt;
};

/// Says what is wrong with which file.
struct ManifestDamaged : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Counts and sums up the lines of a manifest before its last one.
class ManifestSum {
  public:
    void add(std::string_view line);
    [[nodiscard]] std::string lastLine() const;

  private:
    uint64_t lines_ = 0;
    uint64_t sum_ = 0xcbf29ce484222325;
};

/// `.ecryptfs_manifest` in the plain root: the metadata of a whole tree as it was before the job.
/// Lines of text:
///
///     vaultctl-manifest 1 JOB DIRECTION
///     d mode=755 uid=0 gid=0 mtime=981173106.789012345 atime=981173107.000000000 name=/a
///     f mode=644 uid=0 gid=0 mtime=981173106.0... atime=... size=3 attr=user.b:6f6e65 name=/a/b
///     l uid=0 gid=0 mtime=... atime=... target=../b name=/a/c
///     end LINES CHECKSUM
///
/// A file that lends rights has also sum=SHA256, in front of its attributes. Each directory comes
/// before what is in it, its files and links before its subdirectories. Control characters, blanks
/// and % in a name are written as % and two hexadecimal digits, and so is the value of an
/// attribute, all of it and without the %. The last line counts the lines before it and sums up
/// their bytes, so that what is cut or spoilt is told from what is complete before anybody relies
/// on it.
class Manifest {
  public:
    using OnRecord = std::function<void(const Metadata&)>;

    /// Opens the manifest, sums all of it up and decodes it. Throws ManifestDamaged when it is
    /// missing, not complete, spoilt, of another format or not written by the user this runs as,
    /// and std::system_error when it cannot be read.
    explicit Manifest(const files::HeldDirectory& plain);

    [[nodiscard]] const ManifestHeader& header() const { return header_; }
    [[nodiscard]] bool namesLinks() const { return namesLinks_; }
    /// Calls `each` for every record in order; throws as the construction does.
    void forEach(const OnRecord& each);

  private:
    [[nodiscard]] ManifestDamaged damaged(const char* what) const;
    void readLines(const std::function<void(std::string_view line)>& each);

    std::string path_;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
    ManifestHeader header_;
    bool namesLinks_ = false;
};

/// Writes a manifest, which takes the place of the old one when it is complete.
class ManifestWriter {
  public:
    ManifestWriter(const files::HeldDirectory& plain, const ManifestHeader& header);
    void add(const Metadata& metadata);
    /// Throws std::system_error.
    void commit();

  private:
    void append(const std::string& line);

    std::string path_;
    files::DurableFile file_;
    ManifestSum sum_;
};

}  // namespace host
