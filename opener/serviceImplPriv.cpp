// serviceImplPriv.cpp -- switching the effective user id between the caller and root.

#include <unistd.h>

#include <cerrno>

#include "log.h"
#include "opener/serviceImpl.h"

namespace {

struct {
  uid_t saved = 0;  // the effective user id before the last PrivLower
} privState;

}  // namespace

bool ServiceImpl_PrivLower() {
  privState.saved = geteuid();
  if (seteuid(getuid()) == 0) return true;
  Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivLower", errno);
  return false;
}

bool ServiceImpl_PrivRaise() {
  // PRIV: back to root, which the saved set-user-ID still allows.
  if (seteuid(privState.saved) == 0) return true;
  Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivRaise", errno);
  return false;
}
