#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "progress.h"

namespace host {

/// The text with control characters written out, fit for a terminal: names may hold anything.
[[nodiscard]] std::string printable(std::string_view text);
/// The first names of a list, one line each, and how many more there are.
[[nodiscard]] std::string nameLines(const std::vector<std::string>& names);

/// Everything that vaultctl says. For people: text on the standard output, problems on the
/// standard error, progress as one line that is redrawn on a terminal and otherwise a line now
/// and then. For programs (--json): one object per line and event on the standard output.
class Report {
  public:
    struct Style {
        bool json = false;
        bool quiet = false;    ///< problems only
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
    void progress(const std::string& title, const Progress& progress);
    /// Leaves the last progress line standing; what follows begins on a line of its own.
    void endProgress();
    void workerLog(const std::string& line);
    [[nodiscard]] bool forPrograms() const { return style_.json; }

  private:
    void printJson(const std::string& event, nlohmann::json& fields);
    /// Takes the progress line off the terminal, so that other text can stand there.
    void clearLine();

    Style style_;
    bool terminal_;
    bool lineShown_ = false;
    bool endShown_ = false;
    std::optional<std::chrono::steady_clock::time_point> lastSentenceTime_;
};

}  // namespace host
