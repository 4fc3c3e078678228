#include "end/throw_errno.h"

#include <cerrno>
#include <system_error>

namespace host {

void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void throwIfError(int error, const std::string& what) {
    if (error != 0) throw std::system_error(-error, std::generic_category(), what);
}

}  // namespace host
