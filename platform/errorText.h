// errorText.h -- what an errno value means, in words, for any thread.
#pragma once

#include <span>

// The text of the errno value `error`, which lives as long as the buffer (80 bytes are enough); an
// unknown number gets a text that names it.  errno is unchanged.
[[nodiscard]] const char *Platform_ErrorText(int error, std::span<char> buffer);
