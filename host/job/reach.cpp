#include "job/reach.h"

#include <sys/stat.h>

namespace host {

uid_t Reach::above(const std::string& relative) const {
    const auto found = users_.find(relative.substr(0, relative.rfind('/')));
    return found == users_.end() ? kRoot : found->second;
}

void Reach::note(const Metadata& directory) {
    const bool others =
        (directory.mode & (S_IWGRP | S_IWOTH)) != 0 && (directory.mode & S_ISVTX) == 0;
    const uid_t here = others ? kSeveral : directory.uid;
    const uid_t before = directory.relative.empty() ? kRoot : above(directory.relative);
    const uid_t user = before == kRoot ? here : here == kRoot || here == before ? before : kSeveral;
    if (user != kRoot) users_[directory.relative] = user;
}

bool Reach::onlyOwner(const Metadata& file) const {
    const uid_t user = above(file.relative);
    return user == kRoot || user == file.uid;
}

}  // namespace host
