#include "records/proccess_generater.h"

#include <unistd.h>

#include "channel/write_newline.h"
#include "debug_log.h"
#include "records/process_file.h"

ProccessGenerater::ProccessGenerater(const files::HeldDirectory& directory)
    : directory_(directory) {
    DEBUG_LOG() << "ProccessGenerater construct +++ ";
}

ProccessGenerater::~ProccessGenerater() {
    // Not looked at: a list that a power cut leaves short only means files that stay where they
    // are; nothing is moved or deleted that is not listed.
    if (fd_.ok()) (void)fsync(fd_.get());
    DEBUG_LOG() << "ProccessGenerater destory --- ";
}

bool ProccessGenerater::init() {
    fd_ = directory_.createFile(process_file::kName, 0666);
    if (!fd_.ok()) {
        PLOG(ERROR) << "Failed to create file  " << directory_.pathOf(process_file::kName);
        return false;
    }
    if (!process_file::writeHeader({}, fd_)) {
        PLOG(ERROR) << "Failed to write file  " << directory_.pathOf(process_file::kName);
        return false;
    }
    (void)fsync(fd_.get());  // not looked at, for the same reason as in the destructor
    return true;
}

bool ProccessGenerater::pushNewFile(const std::string& name) {
    if (name.empty() || !fd_.ok()) {
        LOG(ERROR) << "Failed to push new file : invalid";
        return true;
    }
    if (!utils::writeNewlineToFd(name, fd_)) {
        LOG(ERROR) << "Failed to write file : " << name;
        return false;
    }
    DEBUG_LOG() << "pushNewFile: " << name;
    return true;
}
