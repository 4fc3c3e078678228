#include "undo/undo_check.h"

#include <dirent.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/evidence.h"
#include "job/record_command.h"
#include "job/survey.h"
#include "look/name_trial.h"
#include "say/finding_texts.h"
#include "tree/names.h"
#include "tree/same_bytes.h"

namespace host {
namespace {

class Judge {
  public:
    explicit Judge(const JobContext& job) : report_(job.report) {
        struct statvfs limits {};
        if (fstatvfs(job.source().descriptor(), &limits) == 0) longestName_ = limits.f_namemax;
    }

    void judge(const SurveyedDirectory& directory) {
        std::vector<Entry> names;
        bool any = false;
        for (const SurveyedFile& file : directory.files) {
            names.push_back({file.name, DT_REG});
            any |= !file.inSource;
            if (file.inSource) {
                judgeStaying(directory, file);
            } else {
                judgeGoing(directory, file);
            }
        }
        if (!any) return;
        for (const std::string& name : unfitNames(directory.source, names)) {
            refuse(directory.source.pathOf(name), "unfit-name",
                   "has a name that is not told there from another, in upper or lower case, with "
                   "or without a dot in front");
        }
    }
    [[nodiscard]] bool refused() const { return refused_; }

  private:
    void refuse(const std::string& path, std::string_view code, std::string_view reason) {
        refused_ = true;
        reportRefusal(path, code, reason, report_);
    }

    void judgeStaying(const SurveyedDirectory& directory, const SurveyedFile& file) {
        // The same bytes are a file that could not be deleted after it had arrived.
        if (file.listed || file.fate != Fate::kArrived ||
            sameBytes(directory.source, file.name, directory.target, file.name)) {
            return;
        }
        refuse(directory.source.pathOf(file.name), "on-target",
               "has come into the place of a file that is to be moved back");
    }

    void judgeGoing(const SurveyedDirectory& directory, const SurveyedFile& file) {
        const std::string path = directory.target.pathOf(file.name);
        const std::string dotted = "." + file.name;
        struct stat status {};
        if (file.fate != Fate::kArrived && file.fate != Fate::kWaits) {
            refuse(path, "gone", "is not there as it was moved");
        }
        if (names::kIntermediatePrefix.size() + file.name.size() > longestName_) {
            refuse(path, "name-too-long",
                   "has a name too long for the way back, on which it needs 23 bytes more");
        }
        const auto isDotted = [&](const auto& other) { return other.name == dotted; };
        if (directory.source.look(dotted, &status) &&
            std::none_of(directory.files.begin(), directory.files.end(), isDotted) &&
            std::none_of(directory.links.begin(), directory.links.end(), isDotted)) {
            refuse(directory.source.pathOf(dotted), "dotted-on-target",
                   "has the name that a file needs on its way back");
        }
    }

    Report& report_;
    size_t longestName_ = NAME_MAX;
    bool refused_ = false;
};

}  // namespace

void refuseWhatCannotGoBack(const JobContext& job, const JobRecord& record) {
    Manifest manifest = openManifest(job.held, record);
    Judge judge(job);
    survey(manifest, job.source(), job.target(), true, [&](const SurveyedDirectory& directory) {
        job.throwIfPaused();
        judge.judge(directory);
    });
    if (!judge.refused()) return;
    throw JobEnd(ExitStatus::kRefused,
                 fmt::format("It cannot be undone for the reasons above. Nothing was moved; put "
                             "them right and run {} again, or finish the {} with {}.",
                             job.command(), jobText(record),
                             commandOf(record, job.tree.plain, job.options.givenWorker)));
}

}  // namespace host
