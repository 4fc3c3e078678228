#include "actions/scaner.h"

#include <cinttypes>

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include "actions/avail_space.h"

using android::base::StringPrintf;

namespace {

constexpr uint64_t kReservedSize = 5242880;  // bytes kept free beside the largest file

std::string noSpaceMessage(uint64_t needed, uint64_t free) {
    return StringPrintf("error nospace %" PRIu64 " %" PRIu64, needed, free);
}

}  // namespace

bool Scaner::scan(int32_t cmdFd, int32_t statusFd, const std::string& path) {
    Scaner scaner(cmdFd, statusFd, 0, 0);
    if (!scaner.init()) return false;
    scaner.path = path;
    scaner.freeSize = utils::GetAvailSpace(path);
    if (scaner.freeSize < kReservedSize) {
        scaner.writeMessagePipe(noSpaceMessage(kReservedSize, scaner.freeSize));
        LOG(ERROR) << "Free space not enough: " << path
                   << ", need redundant size: " << kReservedSize
                   << ", freeSize:" << scaner.freeSize;
        return false;
    }
    scaner.root = files::HeldDirectory::openRoot(path);
    const bool walked = scaner.scanInternal("");
    if (scaner.isPaused()) {
        scaner.writeMessagePipe("paused");
        LOG(INFO) << "can paused !";
        return walked;
    }
    return scaner.reportWalk(walked);
}

bool Scaner::reportWalk(bool walked) {
    const uint64_t needSize = maxFileSize + kReservedSize;
    const bool fits = needSize <= freeSize;
    if (!fits) {
        writeMessagePipe(noSpaceMessage(needSize, freeSize));
        LOG(ERROR) << "Free space not enough: " << path;
    } else if (walked) {
        writeMessagePipe(StringPrintf("total_size %" PRIu64, scanTotalSize));
    }
    LOG(DEBUG) << "max file size: " << maxFileSize << ", need size: " << needSize
               << ", free size: " << freeSize << ", total size: " << scanTotalSize;
    return fits && walked;
}
