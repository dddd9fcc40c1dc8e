// unicodeCaseFold.h -- simple case folding (Unicode, CaseFolding.txt, status C and S).
#pragma once

#include <cstdint>

// The character that replaces `codePoint` when case is ignored: for most characters itself.
[[nodiscard]] uint32_t UnicodeSimpleCaseFold(uint32_t codePoint);
