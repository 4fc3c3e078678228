#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include <android-base/strings.h>

#include "actions/scaner.h"
#include "debug_log.h"
#include "records/proccess_generater.h"
#include "records/process_file.h"

using files::HeldDirectory;

bool Scaner::scanInternal(const std::string& relDir) {
    DEBUG_LOG() << "scanInternal " << std::string(53, '+') << " : " << path << relDir;
    std::vector<std::string> subdirectories;
    bool result = listDirectory(relDir, &subdirectories);
    DEBUG_LOG() << "scanInternal " << std::string(53, '-') << " ";

    for (const std::string& subdirectory : subdirectories) {
        if (!result || isPaused()) break;
        result = scanInternal(relDir + "/" + subdirectory);
    }
    return result;
}

bool Scaner::listDirectory(const std::string& relDir, std::vector<std::string>* subdirectories) {
    HeldDirectory directory = root.openBelow(relDir);
    ProccessGenerater writer(directory);
    if (!directory.beginListing()) {
        if (errno != ENOENT) PLOG(ERROR) << "Failed to opendir " << directory.path();
        return false;
    }
    if (!writer.init()) return false;

    bool result = true;
    while (result && !isPaused()) {
        const dirent* entry = directory.nextEntry();
        if (entry == nullptr) break;
        const std::string name = entry->d_name;
        if (android::base::StartsWith(name, process_file::kOwnPrefix)) continue;
        if (entry->d_type == DT_REG) {
            result = addFile(directory, name, &writer);
        } else if (entry->d_type == DT_DIR) {
            DEBUG_LOG() << "dir: " << directory.pathOf(name);
            subdirectories->push_back(name);
        }
    }
    return result;
}

bool Scaner::addFile(const HeldDirectory& directory, const std::string& name,
                     ProccessGenerater* writer) {
    const std::string fullPath = directory.pathOf(name);
    DEBUG_LOG() << "file: " << fullPath;
    struct stat status = {};
    if (!directory.look(name, &status)) {
        LOG(ERROR) << "Failed to stat file: " << fullPath;
        return true;
    }
    if (!S_ISREG(status.st_mode)) return true;  // no longer what the listing said
    const bool listed = writer->pushNewFile(name);
    const uint64_t size = static_cast<uint64_t>(status.st_size) + name.size();
    maxFileSize = std::max(maxFileSize, size);
    scanTotalSize += size;
    return listed;
}
