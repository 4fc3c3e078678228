#include "say/report.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "say/text.h"
#include "tree/hex.h"

namespace host {
namespace {

constexpr size_t kNamesShown = 10;
constexpr std::chrono::seconds kBetweenSentences(10);
constexpr std::chrono::seconds kBetweenEvents(1);
constexpr std::chrono::milliseconds kBetweenDraws(100);
constexpr size_t kUsualWidth = 80;
/// A full line would move the cursor to the next one, and so would the "^C" that a terminal shows.
constexpr size_t kRoomForEcho = 3;

size_t terminalWidth() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 2) return kUsualWidth;
    return size.ws_col;
}

/// Adds the bytes of every text that is no UTF-8, which is shown with replacements.
void addBytes(nlohmann::json& fields) {
    const auto isBytes = [](const nlohmann::json& value) {
        return value.is_string() && !isUtf8(value.get_ref<const std::string&>());
    };
    nlohmann::json bytes = nlohmann::json::object();
    for (const auto& [name, value] : fields.items()) {
        if (isBytes(value)) bytes[name + "_hex"] = inHex(value.get_ref<const std::string&>());
        if (!value.is_array() || std::none_of(value.begin(), value.end(), isBytes)) continue;
        for (const std::string text : value) bytes[name + "_hex"].push_back(inHex(text));
    }
    fields.update(bytes);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const size_t length = characterLength(text);
        if (length == 0) {
            result += "\\x" + inHex(text.substr(0, 1));
        } else {
            result += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(1, length));
    }
    return result;
}

std::string nameLines(const std::vector<std::string>& names) {
    std::string lines;
    const size_t shown = std::min(names.size(), kNamesShown);
    for (size_t i = 0; i < shown; ++i) lines += "\n  " + printable(names[i]);
    if (names.size() > shown) lines += fmt::format("\n  and {} more", names.size() - shown);
    return lines;
}

Report::Report(const Style& style) : style_(style), terminal_(isatty(STDOUT_FILENO) == 1) {}

Report::~Report() { endProgress(); }

void Report::print(std::FILE* stream, const std::string& text) {
    // An output that has gone away is no reason to stop moving files.
    if (std::fputs(text.c_str(), stream) >= 0 && std::fflush(stream) == 0) return;
    if (outputError_ == 0) outputError_ = errno;
    std::clearerr(stream);
}

void Report::endProgress() {
    if (lineLength_ != 0) print(stdout, "\n");
    lineLength_ = 0;
    completeShown_ = false;
    lastProgress_.reset();
}

void Report::printJson(const std::string& event, nlohmann::json& fields) {
    addBytes(fields);
    fields["event"] = event;
    // A name that is no UTF-8 must not end the job: what cannot be shown is replaced.
    print(stdout, fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

void Report::say(const std::string& event, nlohmann::json fields, const std::string& text) {
    if (style_.quiet) return;
    if (style_.json) return printJson(event, fields);
    clearLine();
    print(stdout, text + "\n");
}

void Report::warn(const std::string& event, nlohmann::json fields, const std::string& text) {
    if (!style_.quiet) problem(event, std::move(fields), text);
}

void Report::problem(const std::string& event, nlohmann::json fields, const std::string& text) {
    if (style_.json) return printJson(event, fields);
    clearLine();
    print(stderr, text + "\n");
}

void Report::end(bool done, nlohmann::json fields, const std::string& text) {
    if (style_.json) return printJson("end", fields);
    if (done) return say("end", std::move(fields), text);
    problem("end", std::move(fields), text);
}

bool Report::progressDue(bool complete) const {
    if (style_.quiet || completeShown_) return false;
    if (complete || !lastProgress_) return true;
    const auto since = std::chrono::steady_clock::now() - *lastProgress_;
    if (style_.json) return since >= kBetweenEvents;
    return terminal_ ? since >= kBetweenDraws : since >= kBetweenSentences;
}

void Report::progress(const std::string& title, const Progress& progress) {
    lastProgress_ = std::chrono::steady_clock::now();
    completeShown_ = progress.done >= progress.total;
    if (style_.json) {
        nlohmann::json fields = {{"bytes", progress.sizeDone},
                                 {"total", progress.size},
                                 {"files", progress.filesDone},
                                 {"files_total", progress.filesTotal},
                                 {"percent", progress.percent()},
                                 {"bytes_per_second", static_cast<uint64_t>(progress.rate)}};
        if (progress.left) fields["seconds_left"] = progress.left->count();
        return printJson("progress", fields);
    }
    if (!terminal_) return print(stdout, progressSentence(title, progress) + "\n");
    const size_t columns = terminalWidth() - std::min(kRoomForEcho, terminalWidth() - 1);
    const std::string line = progressBar(title, progress, columns);
    print(stdout, eraseLine() + line);
    lineLength_ = line.size();
}

void Report::workerLog(const std::string& line) {
    if (!style_.verbose) return;
    if (style_.json) {
        nlohmann::json fields = {{"line", line}};
        return printJson("log", fields);
    }
    clearLine();
    print(stderr, line + "\n");
}

void Report::clearLine() {
    if (lineLength_ != 0) print(stdout, eraseLine());
}

std::string Report::eraseLine() {
    const size_t length = std::exchange(lineLength_, 0);
    if (length == 0) return "";
    // A terminal that has become narrower has broken the line into several.
    const size_t rowsAbove = (length - 1) / terminalWidth();
    return rowsAbove == 0 ? "\r\033[K" : fmt::format("\r\033[{}A\033[J", rowsAbove);
}

}  // namespace host
