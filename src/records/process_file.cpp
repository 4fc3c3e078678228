#include "records/process_file.h"

#include <cstdio>
#include <memory>

#include "channel/write_newline.h"
#include "files/line_buffer.h"

namespace process_file {

bool load(const files::HeldDirectory& directory, std::vector<std::string>* lines) {
    android::base::unique_fd file = directory.openAny(kName);
    if (!file.ok()) return errno != ELOOP;
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) return false;
    if (!S_ISREG(status.st_mode)) return true;
    const std::unique_ptr<FILE, decltype(&fclose)> stream(
        android::base::Fdopen(std::move(file), "r"), fclose);
    if (!stream) return false;
    files::LineBuffer line;
    ssize_t size = 0;
    while ((size = getline(&line.text, &line.capacity, stream.get())) > 0) {
        if (line.text[size - 1] == '\n') --size;
        lines->emplace_back(line.text, static_cast<size_t>(size));
    }
    return ferror(stream.get()) == 0;
}

bool writeHeader(const ProcessHeader& header, android::base::borrowed_fd fd) {
    return utils::writeNewlineToFd(
        std::string(reinterpret_cast<const char*>(&header), sizeof(header)), fd);
}

void remove(const files::HeldDirectory& directory) {
    struct stat status = {};
    if (!directory.look(kName, &status) || !S_ISREG(status.st_mode)) return;
    // Not looked at: a list that stays says that there is nothing left to do.
    (void)directory.remove(kName);
}

}  // namespace process_file
