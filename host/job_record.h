#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tree.h"

namespace host {

/// How far a job is, as far as a restart must know.
enum class JobState {
    kPreparing,  ///< nothing has been moved: begin again
    kMoving,     ///< files may be under way: resume, never scan
    kRestoring,  ///< every list is done: put modes and times back
};

/// "preparing", "moving" or "restoring".
[[nodiscard]] std::string stateWord(JobState state);

/// `.ecryptfs_job`: what makes a restart resume instead of scanning again.
struct JobRecord {
    std::string id;  ///< random; also in the mark in the encrypted root
    Direction direction = Direction::kEncrypt;
    JobState state = JobState::kPreparing;
    bool plain = false;  ///< begun where the target is no eCryptfs mount
    uint64_t files = 0;
    uint64_t bytes = 0;   ///< the scan's total
    timespec rootTime{};  ///< of the source's root, before our own files changed it
    pid_t worker = 0;     ///< the last one started; only told, never relied on
};

[[nodiscard]] JobRecord newRecord(Direction direction, bool plain);

/// The tree's record, or nothing. Throws JobEnd (failed) for one that cannot be understood.
[[nodiscard]] std::optional<JobRecord> loadRecord(const Tree& tree);
/// Replaces the record, synced; throws std::system_error.
void storeRecord(const Tree& tree, const JobRecord& record);

/// The mark in the encrypted root. After a reboot the mount may be missing, or another one may be
/// there: a job goes on only where its own mark is found.
void storeMark(const Tree& tree, const JobRecord& record);
[[nodiscard]] bool markFits(const Tree& tree, const JobRecord& record);

}  // namespace host
