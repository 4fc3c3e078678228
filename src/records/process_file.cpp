#include "records/process_file.h"

#include <sys/stat.h>

#include <fstream>

#include "channel/write_newline.h"

namespace process_file {

std::string pathIn(const std::string& directory) { return directory + "/" + kName; }

bool load(const std::string& path, std::vector<std::string>* lines) {
    struct stat status = {};
    // Only a file is a list: opening a pipe would wait for ever, and some devices never end.
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return true;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) lines->push_back(line);
    return !file.bad();
}

bool writeHeader(const ProcessHeader& header, android::base::borrowed_fd fd) {
    return utils::writeNewlineToFd(
        std::string(reinterpret_cast<const char*>(&header), sizeof(header)), fd);
}

}  // namespace process_file
