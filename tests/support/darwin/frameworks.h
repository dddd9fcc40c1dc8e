// frameworks.h -- how tests control the stand-ins for CoreFoundation and Security.
#pragma once

#include <functional>
#include <string>

struct Frameworks {
  int liveObjects = 0;             // created and not yet released
  int callsToFailure = 0;          // the nth call from now on that can fail does, once; 0 for none
  const char *direct = nullptr;    // the result of CFStringGetCStringPtr
  bool oddIdentifier = false;      // bundle identifiers are not strings
  std::string securityCalls = "";  // one per line
  std::function<void()> atCheck = [] {};  // runs while a signature is checked
};
inline Frameworks frameworks;

// The identifier of every bundle.
inline constexpr char kFrameworksBundle[] = "a.\u00E9";
