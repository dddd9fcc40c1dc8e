// sealVerifierWire.h -- how the process without rights is asked, and how it answers.
//
// Question:  one message on its socket: the identifier that is asked about (empty for the job
//            "identifiers") with its NUL, and the open item by SCM_RIGHTS.
// Answer:    one message, a VerifierAnswer.  Then the next question; end-of-file ends the process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/linux/seal/sealVerdict.h"

// The process has one of these jobs, by its one argument, and its socket as this descriptor.
inline constexpr char kVerifierSeals[] = "seals";
inline constexpr char kVerifierIdentifiers[] = "identifiers";
inline constexpr int kVerifierSocket = 0;

inline constexpr size_t kVerifierMaxText = 1024;  // bytes of an identifier, without its NUL

// Values that neither zeros nor a cut message have.
enum class VerifierFinding : uint32_t {
  No = 0x6E6F6E65,          // not sealed under the identifier and unchanged; no identifier
  Yes = 0x79657373,         // the opposite
  NoAnchors = 0x616E6368,   // there is nothing to check against: `error` says why
  Unreadable = 0x72656164,  // the item may be as it should be or not: `error` says why
};

struct VerifierAnswer {
  VerifierFinding finding;
  int32_t error;                    // errno, or 0
  SealVerdict verdict;              // of the job "seals": why the finding is what it is
  uint64_t bytes;                   // of the item; with Yes, of the job "seals"
  uint64_t entries;                 // likewise
  char text[kVerifierMaxText + 8];  // the identifier; with Yes, of the job "identifiers"
};
