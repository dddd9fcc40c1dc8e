// sealDescription.h -- what a seal says of itself.
#pragma once

#include <string>
#include <vector>

struct SealDescription {
  struct Certificate {
    std::string subject;  // as in RFC 2253
    std::string issuer;
    std::string notBefore;  // UTC, as OpenSSL prints it
    std::string notAfter;
    std::string key;  // its algorithm and size
  };
  std::string text;       // what is signed
  std::string signature;  // digest and algorithm
  std::vector<Certificate> certificates;

  std::string Lines() const;  // for people, fit for a terminal
  std::string Json() const;   // members of an object
};
// Nothing is checked.  Throws std::runtime_error if `seal` is none.
SealDescription SealDescription_Of(const std::string &seal);
