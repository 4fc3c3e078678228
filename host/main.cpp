#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "job.h"
#include "job_end.h"

namespace {

using host::Direction;
using host::ExitStatus;
using host::JobEnd;

struct Arguments {
    host::Report::Style style;
    host::JobOptions job;
    std::string directory;
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

void runCommand(const std::string& name, Arguments& arguments, host::Report& report) {
    const host::Tree tree = host::resolveTree(arguments.directory);
    if (name == "status") return showStatus(tree, report);
    if (name == "check") {
        if (!checkJob(tree, arguments.job, report)) {
            throw JobEnd(ExitStatus::kRefused, "The job would be refused for the reasons above.");
        }
        return;
    }
    std::string& worker = arguments.job.worker;
    if (worker.empty()) worker = findWorker();
    if (access(worker.c_str(), X_OK) != 0) {
        throw JobEnd(ExitStatus::kRefused, worker + " is no worker that can be started.");
    }
    runJob(tree, arguments.job, report);
}

int end(host::Report& report, ExitStatus status, const std::string& text) {
    const char* const result = status == ExitStatus::kRefused  ? "refused"
                               : status == ExitStatus::kPaused ? "paused"
                                                               : "failed";
    report.problem(
        "end", {{"result", result}, {"exit_status", static_cast<int>(status)}, {"message", text}},
        text);
    return static_cast<int>(status);
}

/// A descriptor below 3 that was closed would be given to a pipe, and then redirected away.
void openStandardDescriptors() {
    while (true) {
        const int descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (descriptor > STDERR_FILENO || descriptor < 0) {
            if (descriptor >= 0) close(descriptor);
            return;
        }
    }
}

/// The command line: what it offers, and what it was given.
class CommandLine {
  public:
    explicit CommandLine(Arguments& arguments) : arguments_(arguments) {
        app_.set_version_flag("--version", "vaultctl " VAULTCTL_VERSION);
        app_.require_subcommand(1);
        app_.fallthrough();
        app_.add_option("--worker", arguments.job.worker, "path of the worker VaultMover");
        app_.add_flag("-v,--verbose", arguments.style.verbose,
                      "show the worker's log and status lines as it runs");
        app_.add_flag("-q,--quiet", arguments.style.quiet, "say only what went wrong");
        app_.add_flag("--json", arguments.style.json, "one JSON object per line and event");
        app_.footer(
            "Exit status: 0 done, 1 failed, 2 refused or wrong usage, 3 paused.\n"
            "Ctrl-C pauses; a second one ends the worker at once, which is safe.");
        addJob(app_, "encrypt", "move DIR's files into DIR_enc", Direction::kEncrypt);
        addJob(app_, "decrypt", "move the files back into DIR", Direction::kDecrypt);
        CLI::App& check = *app_.add_subcommand("check", "only look: what a job would do");
        check.require_subcommand(1);
        addJob(check, "encrypt", "look at the way in", Direction::kEncrypt);
        addJob(check, "decrypt", "look at the way back", Direction::kDecrypt);
        addDirectory(*app_.add_subcommand("status", "which job, how far, and what to do next"));
    }

    /// The exit status when there is nothing more to do (help, wrong usage).
    std::optional<int> parse(int argc, char** argv) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app_.exit(error) == 0 ? 0 : static_cast<int>(ExitStatus::kRefused);
        }
        return std::nullopt;
    }
    [[nodiscard]] std::string command() const { return app_.get_subcommands().front()->get_name(); }

  private:
    void addDirectory(CLI::App& command) {
        command.add_option("DIR", arguments_.directory, "the plain directory")->required();
    }
    void addJob(CLI::App& parent, const std::string& name, const std::string& description,
                Direction direction) {
        CLI::App& command = *parent.add_subcommand(name, description);
        addDirectory(command);
        command.add_flag("--allow-plain", arguments_.job.preflight.allowPlain,
                         "accept a DIR_enc that is not on an eCryptfs mount: nothing is encrypted");
        command.add_flag("--replace", arguments_.job.preflight.replace,
                         "overwrite files of the same name in the target");
        command.callback([this, direction] { arguments_.job.direction = direction; });
    }

    Arguments& arguments_;
    CLI::App app_{
        "Moves a directory's files into the encrypted directory DIR_enc, or back.\n"
        "A move that was stopped in any way carries on when it is started again."};
};

int vaultctl(int argc, char** argv) {
    Arguments arguments;
    CommandLine commandLine(arguments);
    if (const auto status = commandLine.parse(argc, argv)) return *status;
    host::Report report(arguments.style);
    try {
        runCommand(commandLine.command(), arguments, report);
    } catch (const JobEnd& jobEnd) {
        return end(report, jobEnd.status(), jobEnd.what());
    } catch (const std::exception& error) {
        return end(
            report, ExitStatus::kFailed,
            std::string(error.what()) + ". No file is lost; put that right and run this again.");
    }
    return static_cast<int>(ExitStatus::kDone);
}

}  // namespace

int main(int argc, char** argv) {
    openStandardDescriptors();
    // The worker inherits it: a file is nobody else's to read before its own mode is put back.
    umask(077);
    try {
        return vaultctl(argc, argv);
    } catch (const std::exception& error) {
        (void)std::fputs(error.what(), stderr);  // There is nobody else to tell.
        return static_cast<int>(ExitStatus::kFailed);
    }
}
