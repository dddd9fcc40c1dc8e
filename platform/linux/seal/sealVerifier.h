// sealVerifier.h -- the unprivileged process that reads everything untrusted: seals, the files that they
// list, and the property lists of bundles.
//
// It is a separate program.  Its image is embedded in the product's program as data and is run from memory
// when needed: there is no file on disk to replace, and it gets no environment.  It gives up its rights
// before it handles any request (sealJail.h), so that a flaw in a parser lets an attacker forge an answer
// and nothing else.  Seals and property lists are handled by two processes: a property list, which
// anybody may have written, can then not forge the answer about a seal.
//
// Besides, OpenSSL is large.  Linked into a static position-independent program it adds 17,000
// relocations: a hundred pages written before main, which makes every start take half as long again.
// Most starts check no seal.
#pragma once

#include <string_view>

#include "platform/linux/seal/sealVerifierWire.h"

// The program's executable file.
std::string_view SealVerifierImage();

enum class VerifierJob { Seals, Identifiers };

struct VerifierObstacle {
  const char *words = nullptr;  // static; null: there was none
  int error = 0;
};

// Asks the process for `job` about the open regular file or directory `item` and the identifier (not
// null), and waits up to a minute for the answer.  The first request starts the process, with the
// caller's effective identity.  False with *obstacle set if there is no answer because the process could
// not be started, has died, or took too long; it is then killed and not asked again.  The answer is
// well-formed and its text terminated.  One thread at a time.
[[nodiscard]] bool SealVerifierAsk(VerifierJob job, int item, const char *identifier,
                                   VerifierAnswer *answer, VerifierObstacle *obstacle);

// Ends the processes and forgets failures, so that the next request starts anew.
void SealVerifierEnd();
