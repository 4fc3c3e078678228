#pragma once

#include <sys/types.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include "end/job_end.h"
#include "files/held_directory.h"
#include "tree/roots.h"

namespace host {

/// How far a job is, as far as a restart must know.
enum class JobState {
    kPreparing,  ///< nothing has been moved: begin again
    kMoving,     ///< files may be under way: resume, never scan
    kAdvancing,  ///< of an undo: what would be in the way of a file on its way back moves on first
    kTurning,    ///< of an undo: no file is under way, and the lists change sides
    kRestoring,  ///< every list is done: put modes and times back
    kClosing,    ///< all is put back, and the person was told: remove what the job has left
};

/// "preparing", "moving", "advancing", "turning", "restoring" or "closing".
[[nodiscard]] std::string stateWord(JobState state);

/// `.ecryptfs_job` in the plain root: what makes a restart resume instead of scanning again. One
/// line of JSON, of which every member must be there and be understood.
struct JobRecord {
    std::string id;  ///< random; also in the mark in the encrypted root, and in the manifest
    Direction direction = Direction::kEncrypt;  ///< of the lists: in which files move now
    JobState state = JobState::kPreparing;
    bool looked = false;   ///< what could refuse the job was looked for: lists may be its own
    bool undo = false;     ///< what has arrived goes back, or will, to where it came from
    bool plain = false;    ///< begun where the target is no eCryptfs mount
    bool replace = false;  ///< begun with --replace: files in the target may be overwritten
    bool dropAttributes = false;  ///< begun with --drop-attributes: some may be left behind
    bool discard = false;         ///< begun with --discard: the source's free space, afterwards
    bool metadata = true;         ///< there is a manifest of it to put back
    uint64_t files = 0;
    uint64_t bytes = 0;      ///< the scan's total: sizes and name lengths
    uint64_t nameBytes = 0;  ///< the name lengths in that
    timespec rootTime{};     ///< of the source's root, before our own files changed it
    pid_t worker = 0;        ///< the last one started; only told, never relied on

    [[nodiscard]] uint64_t size() const { return bytes - std::min(bytes, nameBytes); }
    /// In which the job began, and which its manifest names.
    [[nodiscard]] Direction begun() const {
        return undo && state != JobState::kAdvancing ? opposite(direction) : direction;
    }
};

/// A record of the state "preparing" with a new id.
[[nodiscard]] JobRecord newRecord(Direction direction);

/// Refuses a record that cannot be relied on.
struct RecordDamaged : JobEnd {
    explicit RecordDamaged(const std::string& text) : JobEnd(ExitStatus::kRefused, text) {}
};

/// The tree's record, or nothing. Throws RecordDamaged for one that is not to be understood or was
/// not written by the user this runs as, and std::system_error for one that cannot be read.
[[nodiscard]] std::optional<JobRecord> loadRecord(const files::HeldDirectory& plain);
/// Replaces the record, synced; throws std::system_error.
void storeRecord(const files::HeldDirectory& plain, const JobRecord& record);

/// The mark `.ecryptfs_mark` in the encrypted root, made before the lists are. After a reboot the
/// mount may be missing, or another one may be there: a job goes on only where its own mark is
/// found.
void storeMark(const files::HeldDirectory& encrypted, const JobRecord& record);
[[nodiscard]] bool markFits(const files::HeldDirectory& encrypted, const JobRecord& record);

}  // namespace host
