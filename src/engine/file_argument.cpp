#include "engine/file_argument.h"

#include <utility>

#include <android-base/file.h>

using files::HeldDirectory;

// Shared with nobody: the directory is the caller's.
FileArgument::FileArgument(const HeldDirectory& directory, std::string name)
    : directory_(std::shared_ptr<const HeldDirectory>(), &directory), name_(std::move(name)) {}

FileArgument::FileArgument(const ByPath& file)
    : directory_(std::make_shared<HeldDirectory>(
          HeldDirectory::openRoot(android::base::Dirname(file.path)))),
      name_(android::base::Basename(file.path)),
      path_(file.path) {}
