// The loader of process files: init must come to an end, and a file without a proper header is
// refused and kept.
#include <unistd.h>

#include <cstdlib>

#include <android-base/file.h>

#include "engine/crypt_worker.h"
#include "records/process_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TemporaryDir directory;
    const std::string content(reinterpret_cast<const char*>(data), size);
    const std::string path = std::string(directory.path) + "/" + process_file::kName;
    if (!android::base::WriteStringToFile(content, path)) abort();
    const bool accepted = CryptWorker(directory.path, "", true).init();
    const bool properHeader = content.substr(0, content.find('\n')).size() == sizeof(ProcessHeader);
    if (size != 0 && !properHeader && (accepted || access(path.c_str(), F_OK) != 0)) abort();
    return 0;
}
