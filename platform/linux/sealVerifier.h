// sealVerifier.h -- the program that checks seals, and how it is run.
//
// OpenSSL is a large library.  Linked into a static position-independent program it adds 17,000
// relocations, which every start pays for: a hundred pages written before main, half as long again
// for the whole process.  Most starts check no seal.  So the checking is a program of its own, whose
// image the product's program carries as mere data and runs from memory when it is needed.  No file
// on disk could be put in its place, no environment reaches it, and whatever goes wrong in it while
// it reads what nobody has vouched for, it can only fail to accept.
#pragma once

#include <string_view>

// The verifier's executable file.
std::string_view SealVerifierImage();

// The verifier is started with the identifier as its one argument, the item open as kSealItemFd,
// and writes kSealAccepted to kSealAnswerFd if the item is sealed under that name.
inline constexpr int kSealItemFd = 0;
inline constexpr int kSealAnswerFd = 1;
inline constexpr char kSealAccepted = 'A';

// Runs the verifier for the open regular file or directory `item` and waits for
// it.  False when it does not accept it, or cannot be run.  It has the caller's effective identity.
// A descriptor of the image stays open, closed on exec, for the next time.
[[nodiscard]] bool SealVerifierAccepts(int item, const char *identifier);
