// sealVerdict.cpp -- verdicts in words.

#include "platform/linux/seal/sealVerdict.h"

const char *SealVerdictWords(SealVerdict verdict) {
  switch (verdict) {
    case SealVerdict::Valid:
      return "valid";
    case SealVerdict::NoAnchors:
      return "no certificate among the anchors";
    case SealVerdict::NoSeal:
      return "not sealed";
    case SealVerdict::NotCms:
      return "the seal is not one signature in DER";
    case SealVerdict::WeakDigest:
      return "the signature's digest is not SHA-2";
    case SealVerdict::BadSignature:
      return "the signature is wrong";
    case SealVerdict::Untrusted:
      return "the certificate does not lead to an anchor";
    case SealVerdict::Expired:
      return "a certificate has expired or is not valid yet";
    case SealVerdict::WeakChain:
      return "a key or signature of the certificates is too weak";
    case SealVerdict::NotForCode:
      return "the certificate is not for code signing";
    case SealVerdict::NotMaker:
      return "the certificate is not in the maker's name";
    case SealVerdict::OldText:
      return "sealed in the format's first version, without sizes: sign it anew";
    case SealVerdict::BadText:
      return "the text of the seal is malformed";
    case SealVerdict::OtherName:
      return "sealed under another identifier";
    case SealVerdict::Changed:
      return "something has changed";
    case SealVerdict::Unlisted:
      return "something has been added";
    case SealVerdict::Missing:
      return "something is missing";
    case SealVerdict::Unsealable:
      return "something in it cannot be sealed";
    case SealVerdict::Unreadable:
      return "it cannot be read, and may be valid or not";
  }
  return "not valid";
}
