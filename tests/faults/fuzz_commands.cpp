// The command listener: the input is what the host sends before it closes the pipe.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include <android-base/file.h>
#include <android-base/logging.h>

#include "channel/command_listener.h"

namespace {

// The rule in other words: some line, cut every 1023 bytes, begins with the word.
bool asksForPause(const std::string& sent) {
    for (size_t start = 0; start < sent.size();) {
        const size_t end = std::min(sent.find('\n', start), start + 1022) + 1;
        // The C string of the line ends at its first zero byte.
        const std::string line = sent.substr(start, end - start).c_str();
        if (line == "pause" || line.rfind("pause ", 0) == 0 || line == "pause\n") return true;
        start = end;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kPipeCapacity = 65536;  // no one reads yet when the input is written
    if (size > kPipeCapacity) return 0;
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    int ends[2];
    if (pipe(ends) != 0 || !android::base::WriteFully(ends[1], data, size)) abort();
    close(ends[1]);

    const auto paused = std::make_shared<std::atomic<bool>>(false);
    listenForCommands(ends[0], paused);
    const std::string sent(reinterpret_cast<const char*>(data), size);
    if (paused->load() != asksForPause(sent)) abort();
    return 0;
}
