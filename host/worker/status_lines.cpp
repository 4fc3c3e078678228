#include "worker/status_lines.h"

#include <vector>

#include <android-base/parseint.h>
#include <android-base/strings.h>

namespace host {

std::optional<uint64_t> takeStatusLine(const std::string& line, WorkerOutcome& outcome) {
    const std::vector<std::string> words = android::base::Split(line, " ");
    const auto number = [&words](size_t index) {
        uint64_t value = 0;
        return index < words.size() && android::base::ParseUint(words[index], &value) ? value : 0;
    };
    if (words[0] == "progress" || words[0] == "record_progress") return number(1);
    if (words[0] == "total_size") outcome.totalSize = number(1);
    if (words[0] == "error" && words.size() > 1 && words[1] == "nospace") {
        outcome.noSpace = {.needed = number(2), .free = number(3)};
    }
    if (words[0] == "error" && words.size() > 2 && words[1] == "crypto") {
        int code = 0;
        if (android::base::ParseInt(words[2], &code)) outcome.transferError = code;
    }
    return std::nullopt;
}

}  // namespace host
