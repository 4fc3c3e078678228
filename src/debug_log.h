#pragma once

#include <android-base/logging.h>

/// Whether debug records are written. Set once by main before any second thread exists, then only
/// read, so it needs no lock.
extern bool debugEnabled;

/// A stream for one record of severity DEBUG, which is written only while debugEnabled is on.
#define DEBUG_LOG() debugEnabled&& LOG(DEBUG)
