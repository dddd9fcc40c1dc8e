// sealMaker.h -- makes seals.  Failures are thrown as std::runtime_error or a class derived from it.
#pragma once

#include <string>

// The text that lists the open regular file or directory under the name `identifier`.
std::string SealMaker_Text(int item, const std::string &identifier);

struct SealMakerFiles {
  std::string key;    // the signer's private key, PEM; a pass phrase is asked for at the terminal
  std::string cert;   // the signer's certificate, PEM; authorities may follow it
  std::string chain;  // the authorities between that and an anchor, PEM, in any order; "" for none
};

// The CMS SignedData over the text, in DER.
std::string SealMaker_Sign(const std::string &text, const SealMakerFiles &files);

// Removes from a directory what an interrupted run may have left there.
void SealMaker_RemoveHalfDone(int item);

// Attaches the seal to the item, in place of an older one.
void SealMaker_Attach(int item, const std::string &seal);

// Removes the seal from the item; false if there is none.
bool SealMaker_Remove(int item);
