// The argument rules: the input is the command line, its arguments separated by zero bytes.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <android-base/strings.h>

#include "arguments.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::vector<std::string> words = android::base::Split(text, std::string(1, '\0'));
    std::vector<const char*> argv = {"VaultMover"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    argv.push_back(nullptr);

    Arguments arguments;
    const bool accepted =
        parseArguments(static_cast<int>(words.size()) + 1, argv.data(), &arguments);
    if (accepted && (words.size() != 7 || arguments.path != words[2])) abort();
    return 0;
}
