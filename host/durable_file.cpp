#include "durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include <android-base/file.h>

#include "names.h"

namespace host {
namespace {

constexpr size_t kBufferSize = 65536;

std::string directoryOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

std::string replacementOf(const std::string& path) {
    return path + std::string(names::kReplacementSuffix);
}

}  // namespace

void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

DurableFile::DurableFile(std::string path) : path_(std::move(path)) {
    const std::string replacement = replacementOf(path_);
    file_.reset(
        open(replacement.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file_.ok()) throwErrno("cannot create " + replacement);
}

void DurableFile::append(std::string_view bytes) {
    buffer_ += bytes;
    if (buffer_.size() >= kBufferSize) flush();
}

void DurableFile::flush() {
    if (!android::base::WriteStringToFd(buffer_, file_)) throwErrno("cannot write " + path_);
    buffer_.clear();
}

void DurableFile::commit() {
    flush();
    if (fsync(file_.get()) != 0) throwErrno("cannot sync " + path_);
    file_.reset();
    if (rename(replacementOf(path_).c_str(), path_.c_str()) != 0) {
        throwErrno("cannot replace " + path_);
    }
    syncDirectory(directoryOf(path_));
}

void replaceDurably(const std::string& path, std::string_view bytes) {
    DurableFile file(path);
    file.append(bytes);
    file.commit();
}

void removeDurably(const std::string& path) {
    if (unlink(path.c_str()) == 0) {
        syncDirectory(directoryOf(path));
    } else if (errno != ENOENT) {
        throwErrno("cannot remove " + path);
    }
}

void syncDirectory(const std::string& path) {
    const android::base::unique_fd directory(
        open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.ok()) throwErrno("cannot open " + path);
    if (fsync(directory.get()) != 0 && errno != EINVAL) throwErrno("cannot sync " + path);
}

std::optional<std::string> readIfThere(const std::string& path) {
    std::string bytes;
    if (android::base::ReadFileToString(path, &bytes)) return bytes;
    if (errno == ENOENT) return std::nullopt;
    throwErrno("cannot read " + path);
}

}  // namespace host
