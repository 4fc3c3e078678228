#include <sys/stat.h>

#include <algorithm>

#include <android-base/strings.h>

#include "actions/scaner.h"
#include "debug_log.h"
#include "records/open_directory.h"
#include "records/proccess_generater.h"
#include "records/process_file.h"

bool Scaner::scanInternal(const std::string& directory) {
    DEBUG_LOG() << "scanInternal " << std::string(53, '+') << " : " << directory;
    std::vector<std::string> subdirectories;
    bool result = listDirectory(directory, &subdirectories);
    DEBUG_LOG() << "scanInternal " << std::string(53, '-') << " ";

    for (const std::string& subdirectory : subdirectories) {
        if (!result || isPaused()) break;
        result = scanInternal(subdirectory);
    }
    return result;
}

bool Scaner::listDirectory(const std::string& directory, std::vector<std::string>* subdirectories) {
    ProccessGenerater writer(directory);
    const Directory listing = openDirectory(directory);
    if (!listing) {
        if (errno != ENOENT) PLOG(ERROR) << "Failed to opendir " << directory;
        return false;
    }
    if (!writer.init()) return false;

    bool result = true;
    while (result && !isPaused()) {
        const dirent* entry = readdir(listing.get());
        if (entry == nullptr) break;
        const std::string name = entry->d_name;
        if (isDotEntry(name) || android::base::StartsWith(name, process_file::kOwnPrefix)) continue;
        const std::string fullPath = directory + "/" + name;
        if (entry->d_type == DT_REG) {
            result = addFile(fullPath, name, &writer);
        } else if (entry->d_type == DT_DIR) {
            DEBUG_LOG() << "dir: " << fullPath;
            subdirectories->push_back(fullPath);
        }
    }
    return result;
}

bool Scaner::addFile(const std::string& fullPath, const std::string& name,
                     ProccessGenerater* writer) {
    DEBUG_LOG() << "file: " << fullPath;
    struct stat status = {};
    if (stat(fullPath.c_str(), &status) != 0) {
        LOG(ERROR) << "Failed to stat file: " << fullPath;
        return true;
    }
    const bool listed = writer->pushNewFile(name);
    const uint64_t size = static_cast<uint64_t>(status.st_size) + name.size();
    maxFileSize = std::max(maxFileSize, size);
    scanTotalSize += size;
    return listed;
}
