// sealSignature.h -- the signature of a seal: whether it is right, and the signer trusted.
#pragma once

#include <string_view>

#include "platform/linux/seal/sealVerdict.h"
#include "platform/linux/seal/smallFile.h"

inline constexpr size_t kSealMaxSize = size_t{16} << 20;  // bytes

// Checks the bytes of a seal against the anchors, certificates in PEM, now.  The signed text goes
// to *text when the verdict is Valid.  Unreadable with errno ENOMEM when there is no room for it.
//
// Valid means: one CMS SignedData with its content inside, in DER, nothing behind it; one signer
// with a SHA-2 digest; a chain of at most a few certificates, each within its time and of today's
// strength, from the signer to an anchor; every one that has an extended key usage is for code
// signing; the signer's has it, is for digital signatures, and is no authority's; the signer's single common name contains "Zephrin, Inc.".
[[nodiscard]] SealVerdict SealOpen(std::string_view seal, std::string_view anchors,
                                   SmallFileBytes *text);
