// sealVerifierMain.cpp -- the program that checks seals; sealVerifier.h says how it is run.

#include <fcntl.h>
#include <unistd.h>

#include "platform/linux/sealCheck.h"
#include "platform/linux/sealVerifier.h"

namespace {

bool Accepts(const char *identifier) {
  const Fd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  SmallFileBytes anchors;
  SealExtent extent;
  return root && SealReadAnchors(root.Get(), kSealAnchors, &anchors) == SealVerdict::Valid &&
         SealCheck(kSealItemFd, identifier, anchors.View(), &extent) == SealVerdict::Valid;
}

}  // namespace

int main(int argc, char **argv) {
  return argc == 2 && Accepts(argv[1]) && write(kSealAnswerFd, &kSealAccepted, 1) == 1 ? 0 : 1;
}
