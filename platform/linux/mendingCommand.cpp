// mendingCommand.cpp -- the operator's commands on Linux; codeseal(1) signs.

#include "platform/mendingCommand.h"

const char *Platform_SigningCommand() {
  return "codeseal sign --key KEY.pem --cert CERT.pem --identifier %s %s";
}

const char *Platform_TrustCommand() {
  return "install -D -o root -g root -m 644 ANCHORS.pem /etc/zephrin/code-signing-anchors.pem && "
         "chown root: / /etc /etc/zephrin && chmod go-w / /etc /etc/zephrin";
}

const char *Platform_HoldersCommand() {
  return "fuser -v %s";
}

// fuser(1) does not find sockets whose path has spaces.
const char *Platform_EndListenersCommand() {
  return "kill $(ss -xlpH | grep -F %s | grep -o 'pid=[0-9]*' | cut -d= -f2)";
}

const char *Platform_RemountCommand() {
  return "mount -o remount,%s %s";
}
