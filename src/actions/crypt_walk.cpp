#include "actions/crypt_walk.h"

#include <cerrno>
#include <utility>

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include "debug_log.h"
#include "engine/crypt_worker.h"
#include "files/held_directory.h"

using android::base::StringPrintf;
using files::HeldDirectory;

namespace {

/// The walk of one run: what it needs in every directory.
struct Walk {
    Communicator& host;
    const std::string& root;         ///< path of the plain tree
    const HeldDirectory& encrypted;  ///< root of the other one
    const CryptWords& words;
};

bool walkDirectory(const Walk& walk, const std::string& relDir, HeldDirectory plain);

bool walkSubdirectories(const Walk& walk, const std::string& relDir, HeldDirectory& plain) {
    while (const dirent* entry = plain.nextEntry()) {
        if (entry->d_type != DT_DIR) continue;
        const std::string name = entry->d_name;
        const std::string child = relDir + "/" + name;
        if (walk.words.announcesDirectory) {
            DEBUG_LOG() << walk.words.walkName << "dir " << std::string(68, '-') << " : " << child;
        }
        if (!walkDirectory(walk, child, plain.openChild(name))) return false;
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

// The listing stays open while the files are moved: its descriptor is that of the plain directory.
// The encrypted directory is opened from its root down, which costs a deep tree no second
// descriptor for each level.
bool walkDirectory(const Walk& walk, const std::string& relDir, HeldDirectory plain) {
    const std::string fullPath = plain.path();
    if (!plain.beginListing()) {
        if (errno != ENOENT) PLOG(ERROR) << "Failed to opendir " << fullPath;
        return true;
    }
    const CryptWords& words = walk.words;
    bool result = walkSubdirectories(walk, relDir, plain);
    if (result) {
        DEBUG_LOG() << words.walkName << std::string(words.ruleLength, '+') << " :" << fullPath;
        CryptWorker worker(walk.root, relDir, words.isEncrypt, std::move(plain),
                           walk.encrypted.openBelow(relDir));
        result = moveFiles(walk.host, &worker);
    }
    DEBUG_LOG() << words.walkName << std::string(words.ruleLength, '-') << " \n";
    return result;
}

}  // namespace

bool walkTree(Communicator& host, const std::string& root, const std::string& relDir,
              const CryptWords& words) {
    const HeldDirectory encrypted = HeldDirectory::openRoot(root + "_enc");
    return walkDirectory({host, root, encrypted, words}, relDir,
                         HeldDirectory::openRoot(root).openBelow(relDir));
}

void reportEnd(Communicator& host, const CryptWords& words) {
    if (host.isPaused()) {
        host.writeMessagePipe("paused");
        LOG(INFO) << words.pausedRecord;
    }
    host.repeatRecordedProgress();
}
