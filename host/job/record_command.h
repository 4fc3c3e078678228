#pragma once

#include <string>

#include "job/job_record.h"

namespace host {

/// The command that carries on the job of this record, with the options that it was given;
/// `givenWorker` is the worker as the person named it, or empty.
[[nodiscard]] std::string commandOf(const JobRecord& record, const std::string& plain,
                                    const std::string& givenWorker);

}  // namespace host
