#include "records/process_file.h"

#include <cerrno>
#include <fstream>

#include "channel/write_newline.h"

namespace process_file {

std::string pathIn(const std::string& directory) { return directory + "/" + kName; }

bool load(const std::string& path, std::vector<std::string>* lines) {
    errno = 0;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) lines->push_back(line);
    return !file.bad() || errno == EISDIR;
}

bool writeHeader(const ProcessHeader& header, android::base::borrowed_fd fd) {
    return utils::writeNewlineToFd(
        std::string(reinterpret_cast<const char*>(&header), sizeof(header)), fd);
}

}  // namespace process_file
