#include "report.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>

namespace host {
namespace {

constexpr size_t kNamesShown = 10;
constexpr std::chrono::seconds kBetweenSentences(10);
constexpr size_t kUsualWidth = 80;

size_t terminalWidth() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 2) return kUsualWidth;
    return size.ws_col;
}

void print(std::FILE* stream, const std::string& text) {
    // An output that has gone away is no reason to stop moving files.
    (void)std::fputs(text.c_str(), stream);
    (void)std::fflush(stream);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    for (const char byte : text) {
        if (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f) {
            result += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
        } else {
            result += byte;
        }
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

void Report::endProgress() {
    if (lineShown_) print(stdout, "\n");
    lineShown_ = false;
}

void Report::printJson(const std::string& event, nlohmann::json& fields) {
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

void Report::progress(const std::string& title, const Progress& progress) {
    if (style_.quiet) return;
    if (style_.json) {
        nlohmann::json fields = {{"bytes", progress.done},
                                 {"total", progress.total},
                                 {"percent", progress.percent()},
                                 {"bytes_per_second", static_cast<uint64_t>(progress.rate)}};
        if (progress.left) fields["seconds_left"] = progress.left->count();
        return printJson("progress", fields);
    }
    if (terminal_) {
        // One column less than there are: a full line would move the cursor to the next one.
        print(stdout, fmt::format("\r{}\033[K", progressBar(title, progress, terminalWidth() - 1)));
        lineShown_ = true;
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    const bool due = !lastSentenceTime_ || now - *lastSentenceTime_ >= kBetweenSentences;
    const bool complete = progress.percent() == 100;
    if ((!due && !complete) || endShown_) return;
    print(stdout, progressSentence(title, progress) + "\n");
    endShown_ = complete;
    lastSentenceTime_ = now;
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
    if (lineShown_) print(stdout, "\r\033[K");
    lineShown_ = false;
}

}  // namespace host
