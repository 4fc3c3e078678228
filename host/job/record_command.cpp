#include "job/record_command.h"

#include "say/command_text.h"

namespace host {

std::string commandOf(const JobRecord& record, const std::string& plain,
                      const std::string& givenWorker) {
    return commandFor(record.direction, plain,
                      {.undo = record.undo,
                       .allowPlain = record.plain,
                       .replace = record.replace,
                       .dropAttributes = record.dropAttributes,
                       .discard = record.discard,
                       .worker = givenWorker});
}

std::string jobWord(const JobRecord& record) {
    return std::string(record.undo ? "undo" : toWord(record.direction));
}

std::string jobText(const JobRecord& record) {
    return record.undo ? "undo of " + withArticle(record.begun()) : jobWord(record);
}

std::string jobWithArticle(const JobRecord& record) {
    return record.undo ? "an " + jobText(record) : withArticle(record.direction);
}

}  // namespace host
