#pragma once

#include <functional>
#include <string>
#include <vector>

#include "files/held_directory.h"
#include "manifest/manifest.h"
#include "say/report.h"

namespace host {

// The steps by which a job turns round. `source` and `target` are those of the job that is undone,
// on which no worker is running and whose trees were looked at before. Each step may be done again
// after it was stopped. All throw std::system_error.

/// Leaves no file under way: a whole copy in the target whose file has left the source gets its
/// name, and one whose file is still there goes, as does what was being copied.
void settleCopies(Manifest& manifest, const files::HeldDirectory& source,
                  const files::HeldDirectory& target);

/// A user's own file .N that is still in the source while N has arrived would be taken for N's
/// complete copy when N comes back, and N would be gone. So such files have to move on first, and
/// for the same reason those with one dot more. Returns their paths; with `write` the lists hold
/// exactly these from then on. After settleCopies(). Throws JobEnd (refused) when the target has
/// something in the way of one, unless it is a file that may be `replace`d.
[[nodiscard]] std::vector<std::string> listWhatGoesOn(Manifest& manifest,
                                                      const files::HeldDirectory& source,
                                                      const files::HeldDirectory& target,
                                                      bool replace, bool write);

/// Whether a symbolic link .N is in the source while the file N has arrived: it would be in N's way
/// back. After the files have moved on.
[[nodiscard]] bool linksStandInTheWay(Manifest& manifest, const files::HeldDirectory& source,
                                      const files::HeldDirectory& target);

/// Takes all lists out of the source and gives each directory of the target one of what has arrived
/// there. These files get the times that the manifest names, which a resume expects. What is in
/// both trees stays, and is named. Throws JobEnd (refused) for what could not safely move.
void turnLists(Manifest& manifest, const files::HeldDirectory& source,
               const files::HeldDirectory& target, const std::function<void()>& betweenDirectories,
               Report& report);

}  // namespace host
