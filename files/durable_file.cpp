#include "files/durable_file.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include <android-base/file.h>

namespace files {
namespace {

constexpr size_t kBufferSize = 65536;

}  // namespace

DurableFile::DurableFile(const HeldDirectory& directory, std::string name)
    : directory_(directory), name_(std::move(name)) {
    file_ = directory_.createFile(replacementOf(name_), 0600);
    keepErrno(file_.ok());
}

DurableFile::~DurableFile() {
    // One that stays is replaced by the next attempt.
    if (!renamed_) (void)directory_.remove(replacementOf(name_));
}

void DurableFile::keepErrno(bool succeeded) {
    if (!succeeded && error_ == 0) error_ = -errno;
}

void DurableFile::append(std::string_view bytes) {
    buffer_ += bytes;
    if (buffer_.size() >= kBufferSize) flush();
}

void DurableFile::flush() {
    if (error_ == 0) keepErrno(android::base::WriteStringToFd(buffer_, file_));
    buffer_.clear();
}

int DurableFile::commit() {
    flush();
    if (error_ == 0) keepErrno(fsync(file_.get()) == 0);
    if (error_ == 0) {
        renamed_ = directory_.rename(replacementOf(name_), name_);
        keepErrno(renamed_);
    }
    if (error_ == 0) keepErrno(directory_.sync());
    return error_;
}

int readWhole(const HeldDirectory& directory, const std::string& name, std::string* bytes,
              struct stat* status) {
    const android::base::unique_fd file = directory.openForReading(name, status);
    if (!file.ok() || !android::base::ReadFdToString(file, bytes)) return -errno;
    return 0;
}

}  // namespace files
