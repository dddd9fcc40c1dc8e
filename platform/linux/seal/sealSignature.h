// sealSignature.h -- verifies the signature of a seal, and that its signer is trusted.
#pragma once

#include <string_view>

#include "platform/linux/seal/sealVerdict.h"
#include "platform/linux/seal/smallFile.h"

inline constexpr size_t kSealMaxSize = size_t{16} << 20;  // bytes

// Checks the bytes of a seal against the anchors (certificates in PEM) at the current time.  The signed
// text is stored in *text with the verdict Valid.  errno is ENOMEM with Unreadable, which
// means exhausted memory, and 0 with NoAnchors.
//
// Valid means: the seal is one CMS SignedData in DER with its content inside and nothing behind it; it has
// one signer, with a SHA-2 digest; at most a few certificates, each within its validity period and with
// keys of sufficient strength, lead from the signer to an anchor; each of them that has an extended key
// usage allows code signing; the signer's certificate has one, allows digital signatures, and is not an
// authority's; its single common name contains "Zephrin, Inc.".
[[nodiscard]] SealVerdict SealOpen(std::string_view seal, std::string_view anchors,
                                   SmallFileBytes *text);
