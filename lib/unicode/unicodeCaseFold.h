// unicodeCaseFold.h -- simple case folding (Unicode, CaseFolding.txt, status C and S).
#pragma once

#include <cstdint>

// The character that stands for `codePoint` when case does not count; most often itself.
[[nodiscard]] uint32_t UnicodeSimpleCaseFold(uint32_t codePoint);
