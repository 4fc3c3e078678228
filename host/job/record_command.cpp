#include "job/record_command.h"

#include "say/command_text.h"

namespace host {

std::string commandOf(const JobRecord& record, const std::string& plain,
                      const std::string& givenWorker) {
    return commandFor(record.direction, plain,
                      {record.plain, record.replace, record.dropAttributes, givenWorker});
}

}  // namespace host
