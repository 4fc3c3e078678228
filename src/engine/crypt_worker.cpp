#include "engine/crypt_worker.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "debug_log.h"
#include "records/process_file.h"

using files::HeldDirectory;

CryptWorker::CryptWorker(const std::string& root, const std::string& relative, bool encrypt)
    : CryptWorker(root, relative, encrypt, HeldDirectory::openRoot(root).openBelow(relative),
                  HeldDirectory::openRoot(root + "_enc").openBelow(relative)) {}

// By value, since both are moved from.
CryptWorker::CryptWorker(const std::string& root, const std::string& relative, bool encrypt,
                         // cppcheck-suppress passedByValue
                         HeldDirectory plain,
                         // cppcheck-suppress passedByValue
                         HeldDirectory encrypted)
    : rootPath(root),
      relativePath(relative),
      isEncrypt(encrypt),
      source(std::move(encrypt ? plain : encrypted)),
      target(std::move(encrypt ? encrypted : plain)) {
    DEBUG_LOG() << "CryptWorker construct +++ : " << getSourcePath();
}

CryptWorker::~CryptWorker() {
    DEBUG_LOG() << "CryptWorker destory file total: " << files.size();
    DEBUG_LOG() << "CryptWorker destory file index: " << fileIndex;
    if (fileIndex >= files.size()) {
        if (!processFile.empty()) process_file::remove(source);
        DEBUG_LOG() << "CryptWorker delete status file :" << processFile;
    }
    DEBUG_LOG() << "CryptWorker destory --- : " << getSourcePath();
}

std::string CryptWorker::getSourcePath() const {
    return rootPath + (isEncrypt ? "" : "_enc") + relativePath;
}

std::string CryptWorker::getTargetPath() const {
    return rootPath + (isEncrypt ? "_enc" : "") + relativePath;
}

// A directory that could not be opened for a lack of something, or by a fault of the disk, holds a
// list that was not seen: such a run must not end as if there were nothing to do.
bool CryptWorker::loadProcessFile() {
    const int error = source.error();
    if (error != 0 && error != -ENOENT && error != -EACCES) {
        errno = -error;
        PLOG(ERROR) << "Failed to opendir " << source.path();
        return error == -ENOTDIR;
    }
    if (process_file::load(source, &files)) return true;
    if (errno == ELOOP) {
        PLOG(ERROR) << "Fail to open file" << processFile;
    } else {
        PLOG(ERROR) << "Fail to read file " << processFile;
    }
    processFile.clear();  // not to be removed: it lists files that are still to be moved
    return false;
}

bool CryptWorker::init() {
    LOG(INFO) << "CryptWorker init +++";
    processFile = source.pathOf(process_file::kName);
    if (!loadProcessFile()) return false;
    if (files.empty()) {
        LOG(INFO) << "CryptWorker empty files in : " << processFile;
        return true;
    }
    if (files[0].size() != sizeof(header)) {
        LOG(ERROR) << "CryptWorker header size invalid : " << files[0].size();
        return false;
    }
    memcpy(&header, files[0].data(), sizeof(header));
    LOG(INFO) << "CryptWorker magic: " << header.magic;
    LOG(INFO) << "CryptWorker version: " << header.version;
    LOG(INFO) << "CryptWorker number: " << header.number;
    fileIndex = uint64_t{header.number} + 1;

    processFd = source.openForWriting(process_file::kName);
    if (!processFd.ok()) {
        PLOG(ERROR) << "Fail to open file" << processFile;
        return false;
    }
    LOG(INFO) << "CryptWorker init ---";
    return true;
}

bool CryptWorker::crypto(const ProgressCallback& progress, const PauseQuery& isPaused, int& error,
                         const NoSpaceCallback& nospace) {
    DEBUG_LOG() << "CryptWorker crypto +++ ";
    if (!files.empty() && !processFd.ok()) {
        error = -EBADF;
        return false;
    }
    FileMover mover(source, target, progress, isPaused, nospace);
    for (std::string name = nextEntry(); !name.empty() && !isPaused(); name = nextEntry()) {
        const FileMover::Result result = mover.move(name, error);
        if (result == FileMover::Result::kPaused) continue;
        if (result == FileMover::Result::kFailed || !mover.syncNames(error)) return false;
        recordEntry();
    }
    DEBUG_LOG() << "CryptWorker crypto --- ";
    return true;
}

// Empty when no entry is left.
std::string CryptWorker::nextEntry() const {
    if (fileIndex >= files.size()) return "";
    DEBUG_LOG() << "Get index file : " << fileIndex << " , " << files[fileIndex];
    return files[fileIndex];
}

// The file is rewritten in place and only in its header: a torn write cannot reach the entries.
// No failure here stops the run, since an entry that is not recorded is found done by the next one.
void CryptWorker::recordEntry() {
    header.number = static_cast<uint32_t>(fileIndex);
    ++fileIndex;
    DEBUG_LOG() << "Seek to index: " << fileIndex << " of " << files.size() - 1;
    if (lseek(processFd.get(), 0, SEEK_SET) < 0) {
        PLOG(ERROR) << "Fail to lseek " << processFile;
        return;  // anywhere else in the file the header would destroy entries
    }
    (void)process_file::writeHeader(header, processFd);
    (void)fsync(processFd.get());
}
