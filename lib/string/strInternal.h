// strInternal.h -- what the files of the string module share.
#pragma once

#include "lib/public/fatal.h"

// How fatal messages name this module.  Their line numbers are constants, so that they mean the same in
// every log.
inline constexpr char kStrSource[] = "lib/string/str";
