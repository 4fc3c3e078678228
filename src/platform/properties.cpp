#include "platform/properties.h"

#include <cstdlib>

#include <android-base/properties.h>

namespace platform {

void importProperties([[maybe_unused]] std::initializer_list<const char*> names) {
#if !defined(__ANDROID__)
    for (const char* name : names) {
        const char* value = std::getenv(name);
        // Only a name or value that the property store refuses fails, and that one stays unset.
        if (value != nullptr) (void)android::base::SetProperty(name, value);
    }
#endif
}

}  // namespace platform
