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
  BadText,       // the signed text is malformed
  OtherName,     // another identifier is sealed
  Changed,       // an item is not as listed
  Unlisted,      // an item is not listed
  Missing,       // a listed item is not there
  Unreadable,    // an item cannot be read, is of a kind that cannot be sealed, or lies too deep
};
