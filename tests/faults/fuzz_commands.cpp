// The command listener: the input is what the host sends before it closes the pipe.
#include <unistd.h>

#include <cstdlib>

#include <android-base/file.h>

#include "channel/command_listener.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int ends[2];
    if (pipe(ends) != 0 || !android::base::WriteFully(ends[1], data, size)) abort();
    close(ends[1]);

    const auto paused = std::make_shared<std::atomic<bool>>(false);
    listenForCommands(ends[0], paused);
    const std::string_view sent(reinterpret_cast<const char*>(data), size);
    if (paused->load() && sent.find("pause") == std::string_view::npos) abort();
    return 0;
}
