// binaryPropertyList.h -- finds one string in a property list in binary form.
#pragma once

#include <string_view>

#include "lib/public/heap.h"

// Whether the bytes begin as a binary property list does.
bool BinaryPropertyList_Is(std::string_view list);

// The ASCII string under the ASCII key `key` in the list's top dictionary, as a new string.  Null with
// errno ENODATA if there is none or it is empty, if the key occurs twice, or if the list is found to be
// malformed; ENOMEM if memory is exhausted.
[[nodiscard]] HeapStr BinaryPropertyList_Find(std::string_view list, std::string_view key);
