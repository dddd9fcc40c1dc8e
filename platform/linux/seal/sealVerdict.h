// sealVerdict.h -- the results of checking a seal.
#pragma once

enum class SealVerdict {
  Valid,
  NoAnchors,     // no trusted file of anchors, or no certificate in it
  NoSeal,        // no seal, or one that is too large
  NotCms,        // the seal is not one signature over a text, in DER
  WeakDigest,    // signed with a digest weaker than SHA-256
  BadSignature,  // the text is not what was signed, or the signer's certificate is missing
  Untrusted,     // the signer's certificate does not lead to an anchor
  Expired,       // a certificate on the way there has expired, or is not valid yet
  WeakChain,     // a key or signature on the way there is too weak
  NotForCode,    // it is not for code signing
  NotMaker,      // its common name is not the maker's
  OldText,     // the signed text is in the first version of the format, which is no longer accepted
  BadText,     // the signed text is malformed
  OtherName,   // sealed under another identifier
  Changed,     // an item is not as listed
  Unlisted,    // an item is not listed
  Missing,     // a listed item is not there
  Unsealable,  // a file of another kind, too deep a directory, or too many entries
  Unreadable,  // something could not be read or allocated; the item may be valid or not
};

// A static text for people, about "it", the item; any value may be given.
[[nodiscard]] const char *SealVerdictWords(SealVerdict verdict);
