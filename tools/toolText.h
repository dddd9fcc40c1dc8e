// toolText.h -- what the tools print of texts that they have not made.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "lib/public/displayText.h"

// `text` as one line that no terminal takes for a command.
inline std::string CleanText(const std::string &text) {
  const std::unique_ptr<char, decltype(&free)> line(DisplayText_Line(text.c_str()), free);
  return line.get();
}

inline std::string JsonString(const std::string &text) {
  const std::unique_ptr<char, decltype(&free)> json(DisplayText_Json(text.c_str()), free);
  return json.get();
}

// "name": "value"
inline std::string JsonMember(const std::string &name, const std::string &value) {
  return JsonString(name) + ": " + JsonString(value);
}
