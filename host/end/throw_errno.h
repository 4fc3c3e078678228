#pragma once

#include <string>

namespace host {

/// Throws std::system_error from errno; `what` says what was attempted and on what.
[[noreturn]] void throwErrno(const std::string& what);

/// The same from a negated errno, unless it is 0.
void throwIfError(int error, const std::string& what);

}  // namespace host
