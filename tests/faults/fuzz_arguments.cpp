// The argument rules: the input is the command line, its arguments separated by zero bytes.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <android-base/logging.h>
#include <android-base/strings.h>

#include "arguments.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::vector<std::string> words = android::base::Split(text, std::string(1, '\0'));
    std::vector<const char*> argv = {"VaultMover"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    const int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);

    Arguments arguments;
    if (!parseArguments(argc, argv.data(), &arguments)) return 0;
    if (argc != 8 || arguments.version[0] != '1' || arguments.path != words[2]) abort();
    return 0;
}
