#include "job_record.h"

#include <random>
#include <system_error>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "durable_file.h"
#include "job_end.h"

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(timespec, tv_sec, tv_nsec)

namespace host {

NLOHMANN_JSON_SERIALIZE_ENUM(Direction,
                             {{Direction::kEncrypt, "encrypt"}, {Direction::kDecrypt, "decrypt"}})
NLOHMANN_JSON_SERIALIZE_ENUM(JobState, {{JobState::kPreparing, "preparing"},
                                        {JobState::kMoving, "moving"},
                                        {JobState::kRestoring, "restoring"}})
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(JobRecord, id, direction, state, plain, files, bytes, rootTime,
                                   worker)

std::string stateWord(JobState state) { return nlohmann::json(state).get<std::string>(); }

JobRecord newRecord(Direction direction, bool plain) {
    std::random_device random;
    JobRecord record;
    record.id = fmt::format("{:08x}{:08x}", random(), random());
    record.direction = direction;
    record.plain = plain;
    return record;
}

std::optional<JobRecord> loadRecord(const Tree& tree) {
    const std::optional<std::string> text = readIfThere(tree.recordPath());
    if (!text) return std::nullopt;
    try {
        return nlohmann::json::parse(*text).get<JobRecord>();
    } catch (const nlohmann::json::exception&) {
        throw JobEnd(ExitStatus::kFailed, tree.recordPath() +
                                              " is not a job record that can be read; nothing was "
                                              "touched. Look at this file.");
    }
}

void storeRecord(const Tree& tree, const JobRecord& record) {
    replaceDurably(tree.recordPath(), nlohmann::json(record).dump() + "\n");
}

void storeMark(const Tree& tree, const JobRecord& record) {
    replaceDurably(tree.markPath(), record.id + "\n");
}

bool markFits(const Tree& tree, const JobRecord& record) {
    try {
        return readIfThere(tree.markPath()) == record.id + "\n";
    } catch (const std::system_error&) {
        return false;  // A mount under another key cannot read it.
    }
}

}  // namespace host
