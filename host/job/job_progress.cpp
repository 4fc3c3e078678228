#include "job/job_progress.h"

#include <algorithm>

namespace host {

Progress progressOf(const JobRecord& record, const Pending& pending) {
    Progress progress;
    progress.total = record.bytes;
    progress.done = record.bytes - std::min(record.bytes, pending.bytes);
    progress.size = record.size();
    progress.sizeDone = record.size() - std::min(record.size(), pending.size());
    progress.filesTotal = record.files;
    progress.filesDone = record.files - std::min(record.files, pending.files);
    return progress;
}

}  // namespace host
