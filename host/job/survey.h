#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "files/held_directory.h"
#include "manifest/manifest.h"

namespace host {

/// What has become of one file of a job that is under way.
enum class Fate {
    kWaits,        ///< as it was, in the source; or its whole copy in the target waits for its name
    kArrived,      ///< in the target under its name, with the size it had
    kChanged,      ///< in the source, but not what it was when the job began
    kDottedInWay,  ///< the target has something under its dotted name that is not its copy
    kNameTaken,    ///< the target has something under its name that is not this file
    kGone,         ///< in neither tree, at least not with its size
};

/// As little as possible, since a directory may have millions.
struct SurveyedFile {
    std::string name;
    uint64_t size = 0;  ///< bytes; this and the next two as the manifest has them
    timespec modified{};
    uid_t uid = 0;
    bool listed = false;    ///< the worker has still to deal with it
    bool inSource = false;  ///< something is there under its name
    bool asItWas = false;   ///< that is the file, as it was when the job began
    Fate fate = Fate::kGone;
};

/// A symbolic link of the job. It has arrived when it is in the target, wherever else it is.
struct SurveyedLink {
    Metadata metadata;
    std::string name;
    bool inSource = false;  ///< something is there under its name
    Fate fate = Fate::kGone;
};

/// One directory that the manifest names, with its files and links.
struct SurveyedDirectory {
    Metadata metadata;
    const files::HeldDirectory& source;
    const files::HeldDirectory& target;
    std::vector<SurveyedFile> files;
    std::vector<SurveyedLink> links;
    std::vector<std::string> unknown;  ///< on the list, but not in the manifest
    bool listDamaged = false;
};

/// Looks at both trees for everything the manifest names, while no worker is running, and changes
/// nothing. `replace`: files in the target may be overwritten. Throws std::system_error.
void survey(Manifest& manifest, const files::HeldDirectory& source,
            const files::HeldDirectory& target, bool replace,
            const std::function<void(const SurveyedDirectory&)>& each);

}  // namespace host
