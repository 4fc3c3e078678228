#include "job/job_record.h"

#include <array>
#include <cerrno>
#include <random>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "end/throw_errno.h"
#include "files/durable_file.h"
#include "manifest/metadata.h"
#include "say/command_text.h"
#include "say/report.h"
#include "tree/durable.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {
namespace {

/// Of the record; another one is not understood.
constexpr int kFormat = 1;

constexpr std::array<std::pair<JobState, const char*>, 6> kStateWords = {{
    {JobState::kPreparing, "preparing"},
    {JobState::kMoving, "moving"},
    {JobState::kAdvancing, "advancing"},
    {JobState::kTurning, "turning"},
    {JobState::kRestoring, "restoring"},
    {JobState::kClosing, "closing"},
}};

std::optional<JobState> stateOf(const std::string& word) {
    for (const auto& [state, text] : kStateWords) {
        if (word == text) return state;
    }
    return std::nullopt;
}

std::string encode(const JobRecord& record) {
    const nlohmann::json fields = {
        {"format", kFormat},
        {"id", record.id},
        {"direction", toWord(record.direction)},
        {"state", stateWord(record.state)},
        {"looked", record.looked},
        {"undo", record.undo},
        {"plain", record.plain},
        {"replace", record.replace},
        {"drop_attributes", record.dropAttributes},
        {"discard", record.discard},
        {"metadata", record.metadata},
        {"files", record.files},
        {"bytes", record.bytes},
        {"name_bytes", record.nameBytes},
        {"root_time", {record.rootTime.tv_sec, record.rootTime.tv_nsec}},
        {"worker", record.worker},
    };
    return fields.dump() + "\n";
}

/// Nothing for what encode() would not have written.
std::optional<JobRecord> decode(const std::string& text) {
    try {
        const nlohmann::json fields = nlohmann::json::parse(text);
        const auto direction = directionOf(fields.at("direction").get<std::string>());
        const auto state = stateOf(fields.at("state").get<std::string>());
        if (!direction || !state) return std::nullopt;
        const JobRecord record = {
            .id = fields.at("id"),
            .direction = *direction,
            .state = *state,
            .looked = fields.at("looked"),
            .undo = fields.at("undo"),
            .plain = fields.at("plain"),
            .replace = fields.at("replace"),
            .dropAttributes = fields.at("drop_attributes"),
            .discard = fields.at("discard"),
            .metadata = fields.at("metadata"),
            .files = fields.at("files"),
            .bytes = fields.at("bytes"),
            .nameBytes = fields.at("name_bytes"),
            .rootTime = {.tv_sec = fields.at("root_time").at(0),
                         .tv_nsec = fields.at("root_time").at(1)},
            .worker = fields.at("worker"),
        };
        const bool onlyUndo =
            record.state == JobState::kAdvancing || record.state == JobState::kTurning;
        if (encode(record) == text && (record.undo || !onlyUndo)) return record;
    } catch (const nlohmann::json::exception&) {
        // Not the text of a record either.
    }
    return std::nullopt;
}

}  // namespace

std::string stateWord(JobState state) {
    for (const auto& [each, text] : kStateWords) {
        if (each == state) return text;
    }
    return {};
}

JobRecord newRecord(Direction direction) {
    std::random_device random;
    JobRecord record;
    record.id = fmt::format("{:08x}{:08x}", random(), random());
    record.direction = direction;
    return record;
}

std::optional<JobRecord> loadRecord(const HeldDirectory& plain) {
    const std::string name(names::kJobRecord);
    const std::string path = plain.pathOf(name);
    std::string text;
    struct stat status {};
    const int error = files::readWhole(plain, name, &text, &status);
    if (error == -ENOENT) return std::nullopt;
    throwIfError(error, "cannot read " + path);
    if (!isOurs(status)) {
        throw RecordDamaged(
            fmt::format("{} says that a move is unfinished, but this user did not "
                        "write it. Nothing was touched; user {} has to carry on.",
                        printable(path), status.st_uid));
    }
    if (std::optional<JobRecord> record = decode(text)) return record;
    throw RecordDamaged(
        fmt::format("{} is no record of a move that this version understands. "
                    "Nothing was touched; {} tells more.",
                    printable(path), commandFor("repair", plain.path())));
}

void storeRecord(const HeldDirectory& plain, const JobRecord& record) {
    replaceDurably(plain, names::kJobRecord, encode(record));
}

void storeMark(const HeldDirectory& encrypted, const JobRecord& record) {
    replaceDurably(encrypted, names::kMark, record.id + "\n");
}

bool markFits(const HeldDirectory& encrypted, const JobRecord& record) {
    try {
        return readIfThere(encrypted, names::kMark) == record.id + "\n";
    } catch (const std::system_error&) {
        return false;  // A mount under another key cannot read it.
    }
}

}  // namespace host
