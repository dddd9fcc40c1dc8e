// sealVerifier.h -- the process without rights, in which everything is read that nobody has vouched
// for: seals, with what they list, and the property lists of bundles.
//
// It is a program of its own, whose image the product's program carries as mere data and runs from
// memory when it is needed: no file on disk could be put in its place, and no environment reaches
// it.  It gives up its rights before it is asked anything (sealJail.h), so that a fault in a parser
// gives an attacker nothing but the answer; and seals and property lists are read in two processes,
// so that what comes with a list that anybody may have written cannot answer for a seal.
//
// Besides, OpenSSL is a large library.  Linked into a static position-independent program it adds
// 17,000 relocations, which every start pays for: a hundred pages written before main, half as long
// again for the whole process.  Most starts check no seal.
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

// Asks the process of that job about the open regular file or directory `item` and the identifier
// (not null), and waits for its answer, a minute at most.  The process is started when it is first
// asked, with the caller's effective identity.  False with *obstacle when there is no answer: the
// process cannot be started, has died, or takes too long; it is then ended, and asked no more.  The
// answer is well-formed and its text ends.  One thread at a time.
[[nodiscard]] bool SealVerifierAsk(VerifierJob job, int item, const char *identifier,
                                   VerifierAnswer *answer, VerifierObstacle *obstacle);

// Ends the processes, and forgets that one could not be asked.
void SealVerifierEnd();
