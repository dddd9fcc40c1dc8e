// openssl.h -- initialisation of OpenSSL, and owners of its objects.
#pragma once

#include <openssl/crypto.h>

#include <memory>

// Call this before any other function of OpenSSL that does more than read memory; further calls cost
// nothing.  Keeps OpenSSL from reading a configuration file, which could name modules to load, whatever
// the environment says.
[[nodiscard]] inline bool OpensslStart() {
  return OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1;
}

template <auto free>
struct OpensslFreer {
  void operator()(auto *object) const noexcept { free(object); }
};

template <typename T, auto free>
using OpensslOwner = std::unique_ptr<T, OpensslFreer<free>>;
