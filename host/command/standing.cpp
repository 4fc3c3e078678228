#include "command/standing.h"

#include <fmt/format.h>

#include "job/job_progress.h"
#include "job/record_command.h"
#include "tree/held_tree.h"

namespace host {

Standing standingOf(const Tree& tree, const JobRecord& record) {
    Standing standing{.record = record, .pending = {}, .progress = {}};
    if (record.state == JobState::kMoving || record.state == JobState::kAdvancing)
        standing.pending = countPending(HeldTree(tree).source(record.direction));
    standing.progress = progressOf(record, standing.pending);
    return standing;
}

std::string describeStanding(const Standing& standing) {
    const std::string job = jobText(standing.record);
    switch (standing.record.state) {
        case JobState::kPreparing:
            return job + " is being prepared; nothing has been moved.";
        case JobState::kRestoring:
            return job +
                   ": all files have been moved; links are to follow, and owners, permissions, "
                   "attributes and times to be put back.";
        case JobState::kClosing:
            return job +
                   ": all files have been moved and are as they were; only traces of the "
                   "job are left.";
        case JobState::kTurning:
            return job + " is looking what has arrived and is to be moved back.";
        case JobState::kAdvancing:
        case JobState::kMoving:
            break;
    }
    return fmt::format("{}; {} still to move.", progressSentence(job, standing.progress),
                       standing.pending.files);
}

}  // namespace host
