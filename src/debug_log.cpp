#include "debug_log.h"

bool debugEnabled = false;
