#include "channel/command_listener.h"

#include <array>
#include <cstdio>

#include <android-base/logging.h>

namespace {

constexpr size_t kLineSize = 1024;  // bytes; a longer line is taken in pieces

void handleLine(const std::string& message, const PauseFlag& paused) {
    LOG(INFO) << "Receive Message : " << message;
    const std::string word = commandWord(message);
    if (word.empty()) return;
    if (word == "pause") {
        LOG(INFO) << "execute command : " << word;
        paused->store(true, std::memory_order_relaxed);
    } else {
        LOG(ERROR) << "Unknown command [" << word << "]";
    }
    LOG(DEBUG) << "Exit command process";
}

}  // namespace

std::string commandWord(std::string_view line) {
    return std::string(line.substr(0, line.find_first_of(" \n")));
}

void listenForCommands(int cmdFd, const PauseFlag& paused) {
    LOG(DEBUG) << "Command process runing cmdFd:" << cmdFd;
    const std::unique_ptr<FILE, decltype(&fclose)> commands(fdopen(cmdFd, "r"), fclose);
    if (!commands) {
        PLOG(ERROR) << "Fail to open command fd: " << cmdFd;
        return;
    }
    std::array<char, kLineSize> line{};
    while (fgets(line.data(), line.size(), commands.get()) != nullptr) {
        handleLine(line.data(), paused);
    }
}
