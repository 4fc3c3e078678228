#include "say/failure_text.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "say/report.h"
#include "say/text.h"
#include "tree/file_system.h"
#include "tree/names.h"

using files::HeldDirectory;

namespace host {
namespace {

constexpr uint64_t kMebibyte = uint64_t{1} << 20;

/// Bytes that must be free for the next file, whichever it is.
uint64_t spaceForOne(const Pending& left) { return left.largest + names::kSpaceReserve; }

/// Bytes that must be free to come to the end. Within one file system every file that has been
/// moved makes room for the next, but for what it takes more there.
uint64_t spaceForAll(const HeldDirectory& source, const HeldDirectory& target,
                     const Pending& left) {
    return onOneFileSystem(source, target) ? spaceForOne(left) + left.added
                                           : left.bytes + names::kSpaceReserve;
}

std::string freeSome(uint64_t needed, uint64_t free) {
    const uint64_t missing = needed > free ? needed - free : 0;
    return fmt::format("free {} MiB", std::max<uint64_t>(1, (missing + kMebibyte - 1) / kMebibyte));
}

/// The worker says "nospace" only when it knows before a copy that the file will not fit. A disk
/// that fills up during one shows as a failure without any line on the way in, and as an
/// input/output error on the way back.
bool looksFull(const vaultmover::WorkerOutcome& outcome, const Pending& left, uint64_t free) {
    const bool silent = !outcome.succeeded && outcome.signal == 0 && !outcome.transferError;
    const bool inputOutput = outcome.transferError == -EIO;
    const bool said = outcome.noSpace || outcome.transferError == -ENOSPC;
    return said || ((silent || inputOutput) && free < spaceForOne(left));
}

}  // namespace

std::string explainScan(const vaultmover::WorkerOutcome& outcome, const std::string& source,
                        const std::string& again) {
    if (outcome.noSpace) {
        return fmt::format(
            "{} has too little free space to begin ({} of {} needed). Nothing was "
            "moved; {} there and run {} again.",
            printable(source), formatBytes(outcome.noSpace->free),
            formatBytes(outcome.noSpace->needed),
            freeSome(outcome.noSpace->needed, outcome.noSpace->free), again);
    }
    if (outcome.signal != 0) {
        return fmt::format(
            "The scan of {} was ended by signal {}. Nothing was moved; run {} again.",
            printable(source), outcome.signal, again);
    }
    const std::string why = outcome.errors.empty() ? "it gave no reason" : outcome.errors.back();
    return fmt::format(
        "The scan of {} failed ({}). Nothing was moved; put that right and run {} "
        "again.",
        printable(source), printable(why), again);
}

std::string explainMove(const vaultmover::WorkerOutcome& outcome, const HeldDirectory& source,
                        const HeldDirectory& target, const Pending& left, const std::string& next,
                        const std::string& again) {
    const uint64_t free = freeBytes(target);
    if (looksFull(outcome, left, free)) {
        return fmt::format(
            "{} is full with {} ({}) still to move. No file is lost; {} there "
            "and run {} again to carry on.",
            printable(target.path()), counted(left.files, "file"), formatBytes(left.size()),
            freeSome(spaceForAll(source, target, left), free), again);
    }
    if (outcome.transferError) {
        return fmt::format(
            "The worker could not move {}: {} (see its last lines above). No file is lost; put "
            "that right and run {} again to carry on.",
            next.empty() ? "a file" : printable(next),
            std::generic_category().message(-*outcome.transferError), again);
    }
    if (outcome.signal != 0) {
        return fmt::format(
            "The worker was ended by signal {} with {} still to move. No file is lost; run {} "
            "again to carry on.",
            outcome.signal, counted(left.files, "file"), again);
    }
    std::vector<std::string> lists;
    for (const ListPlace& list : left.lists) {
        lists.push_back(fmt::format("{}{}/{}", source.path(), list.relative, names::kProcessFile));
    }
    return fmt::format(
        "The worker ended{} with {} left{}, on its lists:{}\nNo file is lost; look at these "
        "directories and run {} again to carry on.",
        outcome.succeeded ? "" : " with an error", counted(left.files, "file"),
        next.empty() ? "" : " from " + printable(next) + " on", nameLines(lists), again);
}

}  // namespace host
