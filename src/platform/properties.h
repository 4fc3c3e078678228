#pragma once

#include <initializer_list>

namespace platform {

/// Makes the named system properties readable through android::base::GetBoolProperty. On Android
/// they are already; elsewhere the base library's properties live in this process alone, and each
/// one gets the value of the environment variable of the very same name, if there is one. Call
/// before any second thread exists.
void importProperties(std::initializer_list<const char*> names);

}  // namespace platform
