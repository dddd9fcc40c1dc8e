// sealVerifierWire.h -- the protocol between the opener and the unprivileged process.
//
// Request:  one message on its socket: the identifier to check ("" for the job "identifiers") with its
//           NUL, and the open item by SCM_RIGHTS.
// Answer:   one message, a VerifierAnswer.  Then the next request; an end of file ends the process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/linux/seal/sealVerdict.h"

// The job of the process is its only argument; its socket is this descriptor.
inline constexpr char kVerifierSeals[] = "seals";
inline constexpr char kVerifierIdentifiers[] = "identifiers";
inline constexpr int kVerifierSocket = 0;

inline constexpr size_t kVerifierMaxText = 1024;  // bytes of an identifier, without its NUL

// Values that neither zeros nor a truncated message can produce.
enum class VerifierFinding : uint32_t {
  No = 0x6E6F6E65,   // "seals": not sealed under the identifier, or changed; "identifiers": none
  Yes = 0x79657373,  // sealed and unchanged; an identifier
  NoAnchors = 0x616E6368,   // nothing to check against: `error` says why
  Unreadable = 0x72656164,  // could not be examined: `error` says why
};

struct VerifierAnswer {
  VerifierFinding finding;
  int32_t error;                    // errno, or 0
  SealVerdict verdict;              // for "seals": the reason of the finding
  uint64_t bytes;                   // the item's extent, for "seals" with Yes
  uint64_t entries;                 // likewise
  char text[kVerifierMaxText + 8];  // the identifier, for "identifiers" with Yes
};
