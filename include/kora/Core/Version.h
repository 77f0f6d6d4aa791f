#pragma once
#include "kora/Core/Export.h"

// Build identity, filled at configure time. The tagged forms begin with the
// two bytes "@(" followed by "NAME = value", so the values can be found in a
// binary by searching for the variable's name.
extern "C" {
KORA_API extern const char* KORA_VERSION;
KORA_API extern const char* KORA_GIT_HASH;
KORA_API extern long KORA_SOURCE_DATE_EPOCH;
KORA_API extern const char* KORA_VERSION_WITH_TAG;
KORA_API extern const char* KORA_GIT_HASH_WITH_TAG;
KORA_API extern const char* KORA_SOURCE_DATE_EPOCH_WITH_TAG;
}
