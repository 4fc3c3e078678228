#include "channel/write_newline.h"

#include <android-base/file.h>

namespace utils {

bool writeNewlineToFd(const std::string& text, android::base::borrowed_fd fd) {
    const std::string line = text + '\n';
    return android::base::WriteFully(fd, line.data(), line.size());
}

}  // namespace utils
