// binaryPropertyList.h -- one text out of a property list in its binary form.
#pragma once

#include <string_view>

#include "lib/public/heap.h"

// Whether the bytes claim to be a binary property list.
bool BinaryPropertyList_Is(std::string_view list);

// The ASCII text that the list's top dictionary has under the ASCII key `key`, as a new string.
// Null with errno ENODATA when there is none that is not empty, when the key is there twice, or
// when the list is malformed on the way there; ENOMEM when memory runs out.
[[nodiscard]] HeapStr BinaryPropertyList_Find(std::string_view list, std::string_view key);
