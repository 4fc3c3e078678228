#pragma once

#include <string>

#include "job/job_record.h"

namespace host {

/// The command that carries on the job of this record, with the options that it was given;
/// `givenWorker` is the worker as the person named it, or empty.
[[nodiscard]] std::string commandOf(const JobRecord& record, const std::string& plain,
                                    const std::string& givenWorker);

/// "encrypt", "decrypt" or "undo".
[[nodiscard]] std::string jobWord(const JobRecord& record);
/// "encrypt", or "undo of an encrypt".
[[nodiscard]] std::string jobText(const JobRecord& record);
/// "an encrypt", or "an undo of an encrypt".
[[nodiscard]] std::string jobWithArticle(const JobRecord& record);

}  // namespace host
