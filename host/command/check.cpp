#include "command/check.h"

#include <optional>

#include <fmt/format.h>

#include "command/standing.h"
#include "job/hold.h"
#include "job/pair.h"
#include "job/record_command.h"
#include "say/finding_texts.h"
#include "say/text.h"

namespace host {
namespace {

bool refuse(Report& report, const Tree& tree, const std::string& code, const std::string& text) {
    report.problem("refusal", {{"path", tree.plain}, {"code", code}, {"reason", text}},
                   "refused: " + text);
    if (report.forPrograms()) report.say("check", {{"could_start", false}}, "");
    return false;
}

/// A job that was begun: the check is whether the same command would carry on.
bool checkBegun(const Tree& tree, const JobOptions& options, const JobRecord& record,
                Report& report) {
    const bool mine = !record.undo && record.direction == options.direction;
    report.say("check", {{"could_start", mine}, {"unfinished", jobWord(record)}},
               describeStanding(standingOf(tree, record)));
    if (!mine) {
        report.problem("refusal", {{"path", tree.plain}, {"code", "unfinished-job"}},
                       "refused: the unfinished job comes first: " +
                           commandOf(record, tree.plain, options.givenWorker));
    }
    return mine;
}

std::optional<Direction> abandonedDirection(const std::optional<JobRecord>& record) {
    return record && record->looked ? std::optional(record->direction) : std::nullopt;
}

}  // namespace

bool checkJob(const Tree& tree, const JobOptions& options, Report& report) {
    const Direction direction = options.direction;
    const HeldTree held(tree);
    const Holder holder = holderOf(held);
    const Pair pair = lookAtPair(held, options.givenWorker);
    const std::optional<JobRecord>& record = pair.record;
    if (holder != Holder::kNobody) {
        return refuse(report, tree, "at-work", explainHolder(held, holder, record));
    }
    if (!pair.obstacle.empty()) return refuse(report, tree, "other-directory", pair.obstacle);
    if (record && record->state != JobState::kPreparing) {
        return checkBegun(tree, options, *record, report);
    }
    const Preflight found =
        inspect(held, direction, options.preflight, abandonedDirection(record), {});
    reportFindings(found, report);
    const bool possible = !found.refused();
    const std::string links =
        found.links == 0 ? "" : " and " + counted(found.links, "symbolic link");
    const std::string verdict = possible ? "It could start." : "It would be refused.";
    report.say(
        "check",
        {{"could_start", possible},
         {"files", found.files},
         {"bytes", found.bytes},
         {"largest", found.largest},
         {"links", found.links}},
        fmt::format("{} would move {} ({}, the largest {}){} from {} to {}. {}", toWord(direction),
                    counted(found.files, "file"), formatBytes(found.bytes),
                    formatBytes(found.largest), links, printable(tree.source(direction)),
                    printable(tree.target(direction)), verdict));
    return possible;
}

}  // namespace host
