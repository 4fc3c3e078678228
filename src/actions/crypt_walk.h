#pragma once

#include <string>

#include "channel/communicator.h"

/// What differs between the encrypt and the decrypt action: the direction that the worker gets and
/// the words of the log.
struct CryptWords {
    bool isEncrypt;
    const char* walkName;      ///< First word of the walk's debug records.
    size_t ruleLength;         ///< Length of the rules in those records.
    bool announcesDirectory;   ///< Whether a record is written before each subdirectory.
    const char* pausedRecord;  ///< Written when the host paused the run.
};

inline constexpr CryptWords kEncryptWords = {true, "encryptInternal ", 58, true,
                                             "!!! encrypt paused !!!"};
inline constexpr CryptWords kDecryptWords = {false, "decryptInternal ", 60, false,
                                             "!!! decrypt paused !!!"};

/// Moves the files of the directory `root` + `relDir` of the plain tree and of all directories
/// below it, each directory after those below it. Both directions list the plain tree; each root is
/// opened once, by its path, and everything below it through what is open. False after the first
/// failure, which ends the walk and has been reported to the host; a pause and a directory that
/// cannot be listed are no failures.
[[nodiscard]] bool walkTree(Communicator& host, const std::string& root, const std::string& relDir,
                            const CryptWords& words);

/// Sends what ends every run: "paused" if the host paused it, then the last recorded progress.
void reportEnd(Communicator& host, const CryptWords& words);
