// frameworks.h -- what tests ask of the stand-in for CoreFoundation and Security.
#pragma once

#include <functional>
#include <string>

struct Frameworks {
  int liveObjects = 0;           // created and not yet released
  int callsToFailure = 0;        // the nth call from now on that can fail does so, once; 0 for none
  const char *direct = nullptr;  // what CFStringGetCStringPtr returns
  bool oddIdentifier = false;    // that of a bundle is no string
  std::string securityCalls = "";         // one a line
  std::function<void()> atCheck = [] {};  // runs while a signature is checked
};
inline Frameworks frameworks;

// What every bundle calls itself.
inline constexpr char kFrameworksBundle[] = "a.\u00E9";
