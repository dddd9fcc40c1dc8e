// sealMaker.h -- making seals.  Whatever fails is thrown as std::runtime_error or one of its kind.
#pragma once

#include <string>

// The text that lists the open regular file or directory under the name
// `identifier`.
std::string SealMaker_Text(int item, const std::string &identifier);

struct SealMakerFiles {
  std::string key;    // the signer's private key, PEM; a pass phrase is asked for at the terminal
  std::string cert;   // the signer's certificate, PEM
  std::string chain;  // the authorities between that and an anchor, PEM; "" for none
};

// The CMS SignedData over the text, DER.
std::string SealMaker_Sign(const std::string &text, const SealMakerFiles &files);

// Takes what an earlier run may have left half done out of a directory.
void SealMaker_RemoveHalfDone(int item);

// Puts the seal where the item carries it, in place of an older one.
void SealMaker_Attach(int item, const std::string &seal);

// The text of the seal and the subjects of its certificates, for people; nothing is checked.
std::string SealMaker_Describe(const std::string &seal);
