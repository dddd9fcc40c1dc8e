// sealVerifierRefusals.cpp -- replaces what OpenSSL must not do in the verifier: loading modules and
// looking up hosts.  The linker substitutes these functions for the C library's (--wrap), which do not
// work well in a static program anyway.

#include <netdb.h>

extern "C" {

void *__wrap_dlopen(const char *file, int flags);
int __wrap_getaddrinfo(const char *node, const char *service, const addrinfo *hints,
                       addrinfo **result);
hostent *__wrap_gethostbyname(const char *name);

void *__wrap_dlopen(const char *, int) {
  return nullptr;
}

int __wrap_getaddrinfo(const char *, const char *, const addrinfo *, addrinfo **) {
  return EAI_FAIL;
}

hostent *__wrap_gethostbyname(const char *) {
  return nullptr;
}
}
