#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "channel/command_listener.h"

/// The worker's end of the two pipes to its host: sends status lines, throttles progress reports
/// and knows whether the host has asked for a pause.
///
/// One object exists per run, on the stack of the action that it is the base of. All operations
/// are for the action's thread. The object owns `statusFd` from a successful init on; the command
/// listener thread owns `cmdFd`. That thread never holds a pointer to the object, so it may start
/// late and stay on after the object is gone.
class Communicator {
  public:
    /// The two pipe descriptors, and the two progress counts of the command line (0 for a scan).
    Communicator(int32_t commandPipe, int32_t statusPipe, uint64_t baseCount, uint64_t totalCount);
    Communicator(const Communicator&) = delete;
    Communicator& operator=(const Communicator&) = delete;

    /// Opens the status stream and starts the command listener. False, logged, when the stream
    /// cannot be opened; then no listener runs and every message is dropped.
    [[nodiscard]] bool init();

    /// Sends `message` (without a line feed) as one line, at once. Dropped silently while there is
    /// no stream; a line that cannot be written is logged and the run goes on.
    void writeMessagePipe(std::string message);

    /// Adds `count` (bytes, by the per-file measure) to the process-wide running total and sends
    /// the progress lines that are due. `record` is true on the call that completes a file.
    void updateProgress(uint64_t count, bool record);

    /// Sends the progress of the latest completed file once more, if there is one.
    void repeatRecordedProgress();

    /// Whether the host has asked for a pause; never goes back to false.
    [[nodiscard]] bool isPaused() const { return paused->load(std::memory_order_relaxed); }

    /// Hands `communicator`'s command pipe and pause flag to a new detached listener thread. Reads
    /// the object before it returns and never after. A null pointer is logged and nothing starts.
    static void commandProcess(Communicator* communicator);

  private:
    void sendProgress(const char* word, uint64_t progress);

    int32_t cmdFd;
    int32_t statusFd;
    PauseFlag paused;
    uint64_t baseSize;
    uint64_t totalSize;
    uint64_t recordedProgress = 0;  ///< The running total when the latest file was completed.
    std::unique_ptr<FILE, decltype(&fclose)> statusFile;
};
