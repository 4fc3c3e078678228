// Preloaded into vaultctl and its worker. FAULT_SLOW makes a disk so slow that a test can act in
// the middle of a copy; FAULT_KILL_IN=name and FAULT_KILL_AT=n kill the program of that name
// just before the n-th of its calls that change a directory or sync.
#include <dlfcn.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int callsToLive() {
    const char* const program = getenv("FAULT_KILL_IN");
    const char* const calls = getenv("FAULT_KILL_AT");
    const bool mine = program != nullptr && strcmp(program, program_invocation_short_name) == 0;
    return mine && calls != nullptr ? atoi(calls) : 0;
}

void count() {
    static int left = callsToLive();
    if (left > 0 && --left == 0) (void)kill(getpid(), SIGKILL);
}

}  // namespace

// The C library's own names of the parameters are reserved.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

ssize_t sendfile(int target, int source, off_t* offset, size_t bytes) {
    if (getenv("FAULT_SLOW") != nullptr) {
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }
    return real<decltype(sendfile)>("sendfile")(target, source, offset, bytes);
}

int rename(const char* from, const char* to) noexcept {
    count();
    return real<decltype(rename)>("rename")(from, to);
}

int unlink(const char* path) noexcept {
    count();
    return real<decltype(unlink)>("unlink")(path);
}

int mkdir(const char* path, mode_t mode) noexcept {
    count();
    return real<decltype(mkdir)>("mkdir")(path, mode);
}

int chmod(const char* path, mode_t mode) noexcept {
    count();
    return real<decltype(chmod)>("chmod")(path, mode);
}

int fsync(int descriptor) {
    count();
    return real<decltype(fsync)>("fsync")(descriptor);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
