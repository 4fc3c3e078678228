#include "move/resume_check.h"

#include <string>
#include <string_view>

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/evidence.h"
#include "job/survey.h"
#include "say/command_text.h"
#include "say/finding_texts.h"

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

/// One that has gone can be made all the same.
bool fits(const SurveyedLink& link) {
    return link.fate != Fate::kNameTaken && link.fate != Fate::kChanged;
}

Misfit misfitOf(const SurveyedDirectory& directory, const SurveyedLink& link) {
    if (link.fate == Fate::kNameTaken) {
        return {directory.target.pathOf(link.name), "other-kind-on-target",
                "has come into the target, where a symbolic link belongs"};
    }
    return {directory.source.pathOf(link.name), "changed",
            "is not the symbolic link that it was when the move began"};
}

/// `stays`: what is in the source is not moved, and so nothing that has come to the target is in
/// its way.
bool fits(const SurveyedFile& file, bool stays) {
    if (stays && file.inSource) return file.fate != Fate::kChanged;
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
        reportRefusal(misfit.path, misfit.code, misfit.reason, job.report);
    };
    Manifest manifest = openManifest(job.held, record);
    const bool stays = job.options.undo && job.options.direction == record.begun();
    const bool back = job.options.undo && !stays;
    const bool replace = !back && (record.replace || job.options.preflight.replace);
    survey(manifest, job.source(), job.target(), replace, [&](const SurveyedDirectory& directory) {
        for (const SurveyedFile& file : directory.files) {
            if (!fits(file, stays)) refuse(misfitOf(directory, file));
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
