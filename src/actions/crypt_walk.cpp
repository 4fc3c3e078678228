#include "actions/crypt_walk.h"

#include <cerrno>

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include "debug_log.h"
#include "engine/crypt_worker.h"
#include "records/open_directory.h"

using android::base::StringPrintf;

namespace {

bool walkSubdirectories(Communicator& host, const std::string& root, const std::string& relDir,
                        const CryptWords& words, const Directory& directory) {
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (isDotEntry(name) || entry->d_type != DT_DIR) continue;
        const std::string child = relDir + "/" + name;
        if (words.announcesDirectory) {
            DEBUG_LOG() << words.walkName << "dir " << std::string(68, '-') << " : " << child;
        }
        if (!walkTree(host, root, child, words)) return false;
    }
    return true;
}

bool moveFiles(Communicator& host, CryptWorker* worker) {
    if (!worker->init()) return false;
    const auto progress = [&host](unsigned long count, bool done) {
        host.updateProgress(count, done);
    };
    const auto isPaused = [&host] { return host.isPaused(); };
    const auto nospace = [&host](unsigned long needed, unsigned long free) {
        host.writeMessagePipe(StringPrintf("error nospace %lu %lu", needed, free));
    };
    int error = 0;
    if (worker->crypto(progress, isPaused, error, nospace)) return true;
    if (error != -ENOSPC) host.writeMessagePipe(StringPrintf("error crypto %d", error));
    return false;
}

}  // namespace

bool walkTree(Communicator& host, const std::string& root, const std::string& relDir,
              const CryptWords& words) {
    const std::string fullPath = root + relDir;
    Directory directory = openDirectory(fullPath);
    if (!directory) {
        if (errno != ENOENT) PLOG(ERROR) << "Failed to opendir " << fullPath;
        return true;
    }
    bool result = walkSubdirectories(host, root, relDir, words, directory);
    directory.reset();
    if (result) {
        DEBUG_LOG() << words.walkName << std::string(words.ruleLength, '+') << " :" << fullPath;
        CryptWorker worker(root, relDir, words.isEncrypt);
        result = moveFiles(host, &worker);
    }
    DEBUG_LOG() << words.walkName << std::string(words.ruleLength, '-') << " \n";
    return result;
}

void reportEnd(Communicator& host, const CryptWords& words) {
    if (host.isPaused()) {
        host.writeMessagePipe("paused");
        LOG(INFO) << words.pausedRecord;
    }
    host.repeatRecordedProgress();
}
