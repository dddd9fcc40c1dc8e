// strInternal.h -- what the files of the string module share.
#pragma once

#include "lib/public/fatal.h"

// How fatal messages name this module; their lines stay as readers of old logs know them.
inline constexpr char kStrSource[] = "lib/string/str";
