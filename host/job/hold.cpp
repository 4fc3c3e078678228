#include "job/hold.h"

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/record_command.h"
#include "say/command_text.h"
#include "say/report.h"

namespace host {

TreeLock lockTree(const HeldTree& tree) {
    Holder holder = Holder::kNobody;
    TreeLock lock(tree, holder);
    if (holder != Holder::kNobody) {
        const auto record = tree.plain.isOpen() ? loadRecord(tree.plain) : std::nullopt;
        throw JobEnd(ExitStatus::kRefused, explainHolder(tree, holder, record));
    }
    return lock;
}

Holder holderOf(const HeldTree& tree) {
    const Holder holder = lookAtLock(tree.plain);
    return holder == Holder::kNobody ? lookAtLock(tree.encrypted) : holder;
}

std::string explainHolder(const HeldTree& tree, Holder holder,
                          const std::optional<JobRecord>& record) {
    if (holder == Holder::kHost) {
        return fmt::format(
            "Another vaultctl is at work on {} or {}{}. Nothing was touched; wait for "
            "it, or pause it with Ctrl-C.",
            printable(tree.plain.path()), printable(tree.encrypted.path()),
            record ? ", on " + jobWithArticle(*record) : "");
    }
    return fmt::format(
        "A worker whose vaultctl has ended is still moving files{}. Nothing was touched; wait "
        "until it has ended ({} shows how far it is), then run this again.",
        record ? fmt::format(" (process {})", record->worker) : "",
        commandFor("status", tree.plain.path()));
}

}  // namespace host
