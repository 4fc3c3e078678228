#include <linux/close_range.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "command/check.h"
#include "command/forget.h"
#include "command/repair.h"
#include "command/run.h"
#include "command/status.h"
#include "end/job_end.h"
#include "files/descriptors.h"
#include "tree/roots.h"

namespace {

using host::Direction;
using host::ExitStatus;
using host::JobEnd;

struct Arguments {
    host::Report::Style style;
    host::JobOptions job;
    std::string directory;
    bool confirmed = false;  ///< forget: what is given up
    bool asItIs = false;     ///< repair: what it costs
};

/// Beside this executable, or under libexec of its own installation.
std::string findWorker() {
    namespace fs = std::filesystem;
    const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path& place :
         {here / "VaultMover", here / "../" VAULTCTL_LIBEXEC "/VaultMover"}) {
        if (access(place.c_str(), X_OK) == 0) return place.lexically_normal().string();
    }
    throw JobEnd(ExitStatus::kRefused,
                 "The worker VaultMover was not found; name it with --worker.");
}

/// The end of a command that has said everything to people by then.
void endQuietly(host::Report& report) {
    if (report.forPrograms()) report.end(true, {{"result", "done"}, {"exit_status", 0}}, "");
}

void runCommand(const std::string& name, Arguments& arguments, host::Report& report) {
    const host::Tree tree = host::resolveTree(arguments.directory);
    // It is named in commands that may be pasted elsewhere.
    std::string& given = arguments.job.givenWorker;
    if (!given.empty()) given = std::filesystem::absolute(given).lexically_normal().string();
    if (name == "status") {
        showStatus(tree, given, report);
        return endQuietly(report);
    }
    if (name == "repair") {
        repairJob(tree, arguments.asItIs, given, report);
        return endQuietly(report);
    }
    if (name == "forget") {
        forgetJob(tree, arguments.confirmed, given, report);
        return endQuietly(report);
    }
    if (name == "check") {
        if (!checkJob(tree, arguments.job, report)) {
            throw JobEnd(ExitStatus::kRefused, "The job would be refused for the reasons above.");
        }
        return endQuietly(report);
    }
    std::string& worker = arguments.job.worker;
    worker = given.empty() ? findWorker() : given;
    if (access(worker.c_str(), X_OK) != 0) {
        throw JobEnd(ExitStatus::kRefused,
                     host::printable(worker) + " is no worker that can be started.");
    }
    runJob(tree, arguments.job, report);
}

ExitStatus end(host::Report& report, ExitStatus status, const std::string& text) {
    const char* const result = status == ExitStatus::kRefused  ? "refused"
                               : status == ExitStatus::kPaused ? "paused"
                               : status == ExitStatus::kUsage  ? "usage"
                                                               : "failed";
    report.end(false,
               {{"result", result}, {"exit_status", static_cast<int>(status)}, {"message", text}},
               text);
    return status;
}

/// What this process was given beside its input and outputs is not the worker's, which may outlive
/// it. A kernel that cannot do this leaves them open.
void keepInheritedDescriptors() { (void)close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC); }

/// The command line: what it offers, and what it was given.
class CommandLine {
  public:
    explicit CommandLine(Arguments& arguments) : arguments_(arguments) {
        app_.set_version_flag("--version", "vaultctl " VAULTCTL_VERSION);
        app_.require_subcommand(0, 1);
        app_.fallthrough();
        app_.add_option("--worker", arguments.job.givenWorker, "path of the worker VaultMover")
            ->check([](const std::string& path) {
                return path.empty() || path.front() == '-' ? "'" + path + "' names no worker" : "";
            });
        app_.add_flag("-v,--verbose", arguments.style.verbose,
                      "show the worker's log and status lines as it runs");
        app_.add_flag("-q,--quiet", arguments.style.quiet, "say only what went wrong");
        app_.add_flag("--json", arguments.style.json, "one JSON object per line and event");
        app_.footer(
            "Exit status: 0 done, 1 failed, 2 refused, 3 paused, 64 wrong usage,\n"
            "74 done but the output could not be written.\n"
            "Ctrl-C pauses; a second one ends the worker at once, which is safe.");
        addJob(app_, "encrypt", "move DIR's files into DIR_enc", Direction::kEncrypt)
            .add_flag("--discard", arguments.job.discard,
                      "at the end discard the free space on the file system of DIR");
        addJob(app_, "decrypt", "move the files back into DIR", Direction::kDecrypt);
        CLI::App& undo = *app_.add_subcommand("undo", "take back a move that is not finished");
        addDirectory(undo);
        undo.callback([this] { arguments_.job.undo = true; });
        CLI::App& check = *app_.add_subcommand("check", "only look: what a job would do");
        check.require_subcommand(0, 1);
        addJob(check, "encrypt", "look at the way in", Direction::kEncrypt);
        addJob(check, "decrypt", "look at the way back", Direction::kDecrypt);
        CLI::App& repair = *app_.add_subcommand("repair", "mend what a damaged job has left");
        repair.add_flag("--as-it-is", arguments.asItIs,
                        "take changed files as they are, give up what has gone or is not known");
        addDirectory(repair);
        CLI::App& forget =
            *app_.add_subcommand("forget", "close a job that could not put everything back");
        forget.add_flag("--yes", arguments.confirmed, "give up what it names");
        addDirectory(forget);
        addDirectory(*app_.add_subcommand("status", "which job, how far, and what to do next"));
    }

    /// The exit status when there is nothing more to do (help, version). Throws JobEnd (usage).
    std::optional<ExitStatus> parse(const std::vector<std::string>& words) {
        try {
            // CLI11 would take the next word for the value, whatever it is.
            if (contains(words, "--worker="))
                throw CLI::ValidationError("--worker= names no worker");
            app_.parse(std::vector<std::string>(words.rbegin(), words.rend()));
            if (app_.get_subcommands().empty() || needsDirection()) throw CLI::ParseError("", 1);
        } catch (const CLI::ParseError& error) {
            if (error.get_exit_code() != 0) throw JobEnd(ExitStatus::kUsage, usageFault(error));
            std::ostringstream text;
            (void)app_.exit(error, text);  // the code, which is 0
            const bool written = std::fputs(text.str().c_str(), stdout) >= 0 && fflush(stdout) == 0;
            return written ? ExitStatus::kDone : ExitStatus::kOutput;
        }
        return std::nullopt;
    }
    [[nodiscard]] std::string command() const { return app_.get_subcommands().front()->get_name(); }

    /// Whether an option stands before "--".
    static bool contains(const std::vector<std::string>& words, const std::string& option) {
        const auto end = std::find(words.begin(), words.end(), "--");
        return std::find(words.begin(), end, option) != end;
    }

  private:
    void addDirectory(CLI::App& command) {
        command.add_option("DIR", arguments_.directory, "the plain directory")
            ->required()
            ->check(
                [](const std::string& path) { return path.empty() ? "must not be empty" : ""; });
    }
    [[nodiscard]] bool needsDirection() const {
        const CLI::App& check = *app_.get_subcommand("check");
        return check.parsed() && check.get_subcommands().empty();
    }
    [[nodiscard]] std::string usageFault(const CLI::ParseError& error) const {
        std::string fault = error.what();
        if (!fault.empty()) fault += "\n";
        if (needsDirection()) {
            fault += "Say which way to look: vaultctl check encrypt DIR, or check decrypt DIR.\n";
        } else if (app_.get_subcommands().empty() && error.get_name() != "ValidationError") {
            fault +=
                "Say what to do: vaultctl encrypt, decrypt, undo, check, status, repair or "
                "forget.\n";
        }
        return fault + "vaultctl --help tells more.";
    }
    CLI::App& addJob(CLI::App& parent, const std::string& name, const std::string& description,
                     Direction direction) {
        CLI::App& command = *parent.add_subcommand(name, description);
        addDirectory(command);
        command.add_flag("--allow-plain", arguments_.job.preflight.allowPlain,
                         "accept a DIR_enc that is not on an eCryptfs mount: nothing is encrypted");
        command.add_flag("--replace", arguments_.job.preflight.replace,
                         "overwrite files of the same name in the target");
        command.add_flag("--drop-attributes", arguments_.job.preflight.dropAttributes,
                         "leave behind attributes that the target does not take");
        command.callback([this, direction] { arguments_.job.direction = direction; });
        return command;
    }

    Arguments& arguments_;
    CLI::App app_{
        "Moves a directory's files into the encrypted directory DIR_enc, or back.\n"
        "A move that was stopped in any way carries on when it is started again,\n"
        "or is taken back with undo."};
};

ExitStatus run(const std::vector<std::string>& words) {
    Arguments arguments;
    CommandLine commandLine(arguments);
    // Wrong usage is told to programs too.
    std::optional<host::Report> report(
        std::in_place, host::Report::Style{.json = CommandLine::contains(words, "--json")});
    try {
        if (const auto status = commandLine.parse(words)) return *status;
        report.emplace(arguments.style);
        runCommand(commandLine.command(), arguments, *report);
    } catch (const JobEnd& jobEnd) {
        return end(*report, jobEnd.status(), jobEnd.what());
    } catch (const std::exception& error) {
        return end(
            *report, ExitStatus::kFailed,
            std::string(error.what()) + ". No file is lost; put that right and run this again.");
    }
    if (report->outputError() == 0) return ExitStatus::kDone;
    // Not fmt::print, which throws where this output has gone too; the exit status tells it then.
    (void)std::fputs(fmt::format("Done, but the output could not be written: {}\n",
                                 std::generic_category().message(report->outputError()))
                         .c_str(),
                     stderr);
    return ExitStatus::kOutput;
}

}  // namespace

int main(int argc, char** argv) {
    files::openStandardDescriptors();
    keepInheritedDescriptors();
    files::raiseDescriptorLimit();
    // The worker inherits it: a file is nobody else's to read before its own mode is put back.
    umask(077);
    try {
        return static_cast<int>(run(std::vector<std::string>(argv + 1, argv + argc)));
    } catch (const std::exception& error) {
        (void)std::fputs(error.what(), stderr);  // There is nobody else to tell.
        return static_cast<int>(ExitStatus::kFailed);
    }
}
