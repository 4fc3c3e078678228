#include "job/resume_check.h"

#include <string>
#include <string_view>

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/evidence.h"
#include "job/survey.h"
#include "say/command_text.h"

namespace host {
namespace {

struct Misfit {
    std::string path;
    std::string_view code;    ///< for programs
    std::string_view reason;  ///< for people, behind the path
};

Misfit misfitOf(const SurveyedDirectory& directory, const SurveyedFile& file) {
    const std::string source = directory.source.pathOf(file.name);
    switch (file.fate) {
        case Fate::kChanged:
            return {source, "changed", "is not what it was when the move began"};
        case Fate::kDottedInWay:
            return {directory.target.pathOf("." + file.name), "dotted-on-target",
                    "is not the copy of the file that needs this name on its way"};
        case Fate::kNameTaken:
            return {directory.target.pathOf(file.name), "on-target",
                    "has come into the target (--replace overwrites it)"};
        case Fate::kGone:
            return {source, "gone", "was to be moved and is in neither tree now"};
        case Fate::kWaits:
        case Fate::kArrived:
            break;
    }
    return {source, "not-listed", "is still to be moved but on no list any more"};
}

bool fits(const SurveyedLink& link) {
    return link.fate == Fate::kWaits || link.fate == Fate::kArrived;
}

Misfit misfitOf(const SurveyedDirectory& directory, const SurveyedLink& link) {
    const std::string source = directory.source.pathOf(link.name);
    if (link.fate == Fate::kNameTaken) {
        return {directory.target.pathOf(link.name), "other-kind-on-target",
                "has come into the target, where a symbolic link belongs"};
    }
    if (link.fate == Fate::kGone) {
        return {source, "gone",
                "is a symbolic link that was to be moved and is in neither tree now"};
    }
    return {source, "changed", "is not the symbolic link that it was when the move began"};
}

bool fits(const SurveyedFile& file) {
    if (file.listed) return file.fate == Fate::kWaits || file.fate == Fate::kArrived;
    // One that has gone after it had arrived is missed at the end.
    return file.fate == Fate::kArrived || file.fate == Fate::kGone;
}

}  // namespace

void refuseWhatDoesNotFit(const JobContext& job, const JobRecord& record) {
    if (!record.metadata) return;
    bool refused = false;
    const auto refuse = [&](const Misfit& misfit) {
        refused = true;
        job.report.problem(
            "refusal", {{"path", misfit.path}, {"code", misfit.code}, {"reason", misfit.reason}},
            fmt::format("refused: {} {}", printable(misfit.path), misfit.reason));
    };
    Manifest manifest = openManifest(job.held, record);
    const bool replace = record.replace || job.options.preflight.replace;
    survey(manifest, job.source(), job.target(), replace, [&](const SurveyedDirectory& directory) {
        for (const SurveyedFile& file : directory.files) {
            if (!fits(file)) refuse(misfitOf(directory, file));
        }
        for (const SurveyedLink& link : directory.links) {
            if (!fits(link)) refuse(misfitOf(directory, link));
        }
        for (const std::string& name : directory.unknown) {
            refuse({directory.source.pathOf(name), "unknown",
                    "is on the list of the move but was not there when it began"});
        }
    });
    if (!refused) return;
    throw JobEnd(ExitStatus::kRefused,
                 fmt::format("Somebody has changed these since the move was stopped. Nothing was "
                             "touched; put that right and run {} again, or let {} tell what it can "
                             "do.",
                             job.command(), commandFor("repair", job.tree.plain)));
}

}  // namespace host
