// mendingCommand.cpp -- the operator's commands on macOS; codesign(1) signs.

#include "platform/mendingCommand.h"

const char *Platform_SigningCommand() {
  return "codesign --force --sign \"Developer ID Application: Zephrin, Inc.\" --identifier %s %s";
}

const char *Platform_TrustCommand() {
  return nullptr;
}

const char *Platform_HoldersCommand() {
  return "lsof %s";
}

const char *Platform_EndListenersCommand() {
  return "kill $(lsof -t %s)";
}

const char *Platform_RemountCommand() {
  return "mount -u -o %s %s";
}
