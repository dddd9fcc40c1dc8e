// sealVerdict.h -- what is wrong with an item.
#pragma once

enum class SealVerdict {
  Valid,
  NoAnchors,     // no trusted file of anchors, or none in it
  NoSeal,        // no seal, or one too large
  NotCms,        // the seal is not the DER form of one signature over a text
  WeakDigest,    // signed by a digest worse than SHA-256
  BadSignature,  // the text is not what was signed, or the signer's certificate is missing
  Untrusted,     // the signer's certificate does not lead to an anchor now
  NotForCode,    // it is not for code signing
  NotMaker,      // its common name is not the maker's
  OldText,       // the signed text is of the format's first version, which is not believed any more
  BadText,       // the signed text is malformed
  OtherName,     // another identifier is sealed
  Changed,       // an item is not as listed
  Unlisted,      // an item is not listed
  Missing,       // a listed item is not there
  Unsealable,  // something in it is of a kind that cannot be sealed, lies too deep, or is too much
  Unreadable,  // the item or what belongs to the check cannot be read; it may be valid or not
};

// A static text for people, about "it", the item; any value may be given.
[[nodiscard]] const char *SealVerdictWords(SealVerdict verdict);
