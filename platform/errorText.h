// errorText.h -- what an errno value means, in words, for any thread.
#pragma once

#include <span>

// The text for the errno value `error`, valid as long as `buffer`, for which 80 bytes are enough.  The
// text for an unknown number contains the number.  errno is unchanged.
[[nodiscard]] const char *Platform_ErrorText(int error, std::span<char> buffer);
