#include "engine/crypt_worker.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <android-base/file.h>

#include "debug_log.h"
#include "records/process_file.h"

CryptWorker::CryptWorker(const std::string& root, const std::string& relative, bool encrypt)
    : rootPath(root), relativePath(relative), isEncrypt(encrypt) {
    DEBUG_LOG() << "CryptWorker construct +++ : " << getSourcePath();
}

CryptWorker::~CryptWorker() {
    DEBUG_LOG() << "CryptWorker destory file total: " << files.size();
    DEBUG_LOG() << "CryptWorker destory file index: " << fileIndex;
    if (fileIndex >= files.size()) {
        // Not looked at: the list that stays says that there is nothing left to do.
        (void)android::base::RemoveFileIfExists(processFile);
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

bool CryptWorker::init() {
    LOG(INFO) << "CryptWorker init +++";
    processFile = process_file::pathIn(getSourcePath());
    if (!process_file::load(processFile, &files)) {
        PLOG(ERROR) << "Fail to read file " << processFile;
        processFile.clear();  // not to be removed: it lists files that are still to be moved
        return false;
    }
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

    processFd.reset(static_cast<int>(
        TEMP_FAILURE_RETRY(open(processFile.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC))));
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
    FileMover mover(getSourcePath(), getTargetPath(), progress, isPaused, nospace);
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
