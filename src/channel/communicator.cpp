#include "channel/communicator.h"

#include <cinttypes>
#include <thread>

#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include "channel/progress_throttle.h"

using android::base::StringPrintf;

Communicator::Communicator(int32_t commandPipe, int32_t statusPipe, uint64_t baseCount,
                           uint64_t totalCount)
    : cmdFd(commandPipe),
      statusFd(statusPipe),
      paused(std::make_shared<std::atomic<bool>>(false)),
      baseSize(baseCount),
      totalSize(totalCount),
      statusFile(nullptr, fclose) {}

bool Communicator::init() {
    statusFile.reset(fdopen(statusFd, "wb"));
    if (!statusFile) {
        PLOG(ERROR) << "Failed to open the status pipe:" << statusFd;
        return false;
    }
    commandProcess(this);
    return true;
}

void Communicator::commandProcess(Communicator* communicator) {
    if (communicator == nullptr) {
        LOG(ERROR) << "Invalid communicator";
        return;
    }
    // The thread may be scheduled only after the action has returned: it gets copies of all that
    // it needs here, while the object certainly lives.
    std::thread(listenForCommands, communicator->cmdFd, communicator->paused).detach();
}

// By value, as every caller hands over a line that it has just built.
// cppcheck-suppress passedByValue
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void Communicator::writeMessagePipe(std::string message) {
    if (!statusFile) return;
    if (fprintf(statusFile.get(), "%s\n", message.c_str()) < 0) {
        LOG(ERROR) << "Failed to write pipe [" << message << "] " << fileno(statusFile.get());
    }
    // Not checked: a host that has gone away must not stop the move, and a failed flush keeps the
    // line for the next one.
    (void)fflush(statusFile.get());
}

void Communicator::updateProgress(uint64_t count, bool record) {
    const auto now = std::chrono::system_clock::now();
    static ProgressThrottle throttle(baseSize, now);
    const bool progressDue = throttle.addProgress(count, now);
    if (progressDue) sendProgress("progress", throttle.progressTotal());
    if (!record) return;
    recordedProgress = throttle.progressTotal();
    if (throttle.recordDue(now)) sendProgress("record_progress", recordedProgress);
}

void Communicator::repeatRecordedProgress() {
    if (recordedProgress != 0) sendProgress("record_progress", recordedProgress);
}

void Communicator::sendProgress(const char* word, uint64_t progress) {
    writeMessagePipe(StringPrintf("%s %" PRIu64 " %" PRIu64, word, progress, totalSize));
}
