#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "say/progress.h"

namespace host {

/// The text with control characters and what is no UTF-8 written out, fit for a terminal: names may
/// hold anything.
[[nodiscard]] std::string printable(std::string_view text);
/// The first names of a list, one line each, and how many more there are.
[[nodiscard]] std::string nameLines(const std::vector<std::string>& names);

/// Everything that vaultctl says. For people: text on the standard output, problems on the
/// standard error, progress as one line that is redrawn on a terminal and otherwise a line now
/// and then. For programs (--json): one object per line and event on the standard output; a member
/// that is no UTF-8 is followed by one with its bytes, called the same with "_hex" at its end.
/// An output that cannot be written ends nothing, and is remembered.
class Report {
  public:
    struct Style {
        bool json = false;
        bool quiet = false;    ///< problems only; for programs the end too
        bool verbose = false;  ///< the worker's log too
    };

    explicit Report(const Style& style);
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    /// One event: `fields` for programs, `text` for people.
    void say(const std::string& event, nlohmann::json fields, const std::string& text);
    /// The same, for people on the standard error.
    void warn(const std::string& event, nlohmann::json fields, const std::string& text);
    /// The same again, but not silenced by -q.
    void problem(const std::string& event, nlohmann::json fields, const std::string& text);
    /// The last event, which is a problem unless the job is done.
    void end(bool done, nlohmann::json fields, const std::string& text);
    /// Whether a progress is due by now: at most ten a second on a terminal, one a second for
    /// programs, one in ten seconds elsewhere, and 100% once.
    [[nodiscard]] bool progressDue(bool complete) const;
    void progress(const std::string& title, const Progress& progress);
    /// Leaves the last progress line standing; what follows begins on a line of its own, and is the
    /// progress of something else.
    void endProgress();
    void workerLog(const std::string& line);
    [[nodiscard]] bool forPrograms() const { return style_.json; }
    /// Why something could not be written, as an errno; 0 when all of it was.
    [[nodiscard]] int outputError() const { return outputError_; }

  private:
    void print(std::FILE* stream, const std::string& text);
    void printJson(const std::string& event, nlohmann::json& fields);
    /// Takes the progress line off the terminal, so that other text can stand there; eraseLine()
    /// gives what does that.
    void clearLine();
    [[nodiscard]] std::string eraseLine();

    Style style_;
    bool terminal_;
    int outputError_ = 0;
    size_t lineLength_ = 0;  ///< of the progress line that stands on the terminal, or 0
    bool completeShown_ = false;
    std::optional<std::chrono::steady_clock::time_point> lastProgress_;
};

}  // namespace host
