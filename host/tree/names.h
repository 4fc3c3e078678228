#pragma once

#include <cstdint>
#include <string_view>

/// The names and sizes that the worker's contract fixes (docs/protocol.md), and the host's own.
namespace host::names {

/// Every name with this beginning belongs to the worker or its host; a scan never lists it.
inline constexpr std::string_view kOwnPrefix = ".ecryptfs_";
inline constexpr std::string_view kProcessFile = ".ecryptfs_process";
inline constexpr std::string_view kIntermediatePrefix = ".ecryptfs_intermediate_";
inline constexpr std::string_view kEncryptedSuffix = "_enc";

/// In the plain tree's root: what a restart needs.
inline constexpr std::string_view kJobRecord = ".ecryptfs_job";
/// In the encrypted root: tells which of the plain trees it belongs to while a job is unfinished,
/// and whether what is mounted there is what the job began with. Not the name of the record, since
/// the encrypted root of one pair may be the plain root of another.
inline constexpr std::string_view kMark = ".ecryptfs_mark";
inline constexpr std::string_view kManifest = ".ecryptfs_manifest";
/// A folder in which names are tried; the same in capitals, to see whether that makes a difference.
inline constexpr std::string_view kNameTrial = ".ecryptfs_names";
inline constexpr std::string_view kNameTrialInOtherCase = ".ECRYPTFS_NAMES";
/// What a scan wants to stay free beside the largest file, in bytes.
inline constexpr uint64_t kSpaceReserve = uint64_t{5} << 20;

}  // namespace host::names
