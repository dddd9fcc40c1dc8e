// sandboxRoot.h -- the root directory of a sandbox.
#pragma once

// Makes "/" of this process's mount namespace, which must be its own, a tmpfs in which
//   /Library, /Applications, /run    are empty (/var/run leads to /run)
//   /etc                             has a link for each entry of the host's, and an empty zephrin
//   /proc                            shows the process's PID namespace
//   everything else                  is the host's, the very files
// Throws std::system_error.  Nothing of it can be seen from outside.
void SandboxRoot_Enter();

// Exists in every sandbox, and nowhere else.
inline constexpr char kSandboxMark[] = "/.lumen-sandbox";
