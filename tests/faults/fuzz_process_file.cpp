// The loader of process files: whatever the file holds, init must come to an end.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include <android-base/file.h>
#include <android-base/logging.h>

#include "engine/crypt_worker.h"
#include "records/process_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TemporaryDir directory;
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    const std::string content(reinterpret_cast<const char*>(data), size);
    const std::string path = process_file::pathIn(directory.path);
    if (!android::base::WriteStringToFile(content, path)) abort();

    bool ready = false;
    {
        CryptWorker worker(directory.path, "", true);
        ready = worker.init();
    }
    // A file without a proper header is refused and kept.
    const bool kept = access(path.c_str(), F_OK) == 0;
    const bool wrongHeader = content.substr(0, content.find('\n')).size() != sizeof(ProcessHeader);
    if (size != 0 && wrongHeader && (ready || !kept)) abort();
    return 0;
}
