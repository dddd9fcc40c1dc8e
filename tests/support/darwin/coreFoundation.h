// coreFoundation.h -- what tests ask of the stand-ins for CoreFoundation and Security.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

// How many objects were created and not yet released.
int CoreFoundation_LiveObjects();

// The nth call from now on that can fail does so, once; 0 for none.
void CoreFoundation_FailCall(int nth);

// Whether the call that asks is the one to fail.
bool CoreFoundation_CallFails();

// What every bundle calls itself, and what CFStringGetCStringPtr returns for any string; null for
// neither.  The texts are not copied.
void CoreFoundation_SetBundle(const char *identifier, const char *direct);

// A string as UTF-8.
std::string CoreFoundation_Text(CFStringRef string);

// The calls of the Security framework since the last time this was asked, one a line.
std::string Security_Calls();
