#pragma once

#include <string>

namespace host {

/// The SHA-256 of all that is in the open file, in hexadecimal digits: who can choose the bytes of
/// one file cannot make them pass for those of another. Throws std::system_error; `path` is for the
/// message.
[[nodiscard]] std::string contentSum(int descriptor, const std::string& path);

}  // namespace host
