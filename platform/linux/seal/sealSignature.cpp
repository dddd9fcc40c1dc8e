// sealSignature.cpp -- verifies the signature of a seal, by OpenSSL.
// Tests: tests/system/codeseal_test, tests/unit/seal_test.cpp, fuzz/seal_fuzz.cpp

#include "platform/linux/seal/sealSignature.h"

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <climits>

#include "platform/linux/seal/openssl.h"

namespace {

constexpr std::string_view kMaker = "Zephrin, Inc.";
constexpr int kMaxIntermediates = 4;
constexpr int kSecurityLevel = 2;  // 112 bits: RSA of 2048 bits, no SHA-1

void FreeStack(STACK_OF(X509) * certificates) {
  sk_X509_pop_free(certificates, X509_free);
}

void FreeBytes(unsigned char *bytes) {
  OPENSSL_free(bytes);
}

using Bio = OpensslOwner<BIO, BIO_free_all>;
using Bytes = OpensslOwner<unsigned char, FreeBytes>;
using Certificate = OpensslOwner<X509, X509_free>;
using Certificates = OpensslOwner<STACK_OF(X509), FreeStack>;
using Cms = OpensslOwner<CMS_ContentInfo, CMS_ContentInfo_free>;
using Store = OpensslOwner<X509_STORE, X509_STORE_free>;
using StoreContext = OpensslOwner<X509_STORE_CTX, X509_STORE_CTX_free>;

// ---- the seal ----------------------------------------------------------------------------------

// DER allows one encoding only: if encoding it again gives other bytes, the seal was not DER.
bool EncodesTo(CMS_ContentInfo *cms, std::string_view seal) {
  unsigned char *out = nullptr;
  const int size = i2d_CMS_ContentInfo(cms, &out);
  const Bytes owner(out);
  return size > 0 &&
         seal == std::string_view(reinterpret_cast<char *>(out), static_cast<size_t>(size));
}

// SignedData with its content inside; null for anything else.
Cms Parse(std::string_view seal) {
  if (seal.size() > kSealMaxSize) return nullptr;
  const auto *next = reinterpret_cast<const unsigned char *>(seal.data());
  Cms cms(d2i_CMS_ContentInfo(nullptr, &next, static_cast<long>(seal.size())));
  if (cms == nullptr || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed ||
      OBJ_obj2nid(CMS_get0_eContentType(cms.get())) != NID_pkcs7_data) {
    return nullptr;
  }
  ASN1_OCTET_STRING **const content = CMS_get0_content(cms.get());
  if (content == nullptr || *content == nullptr || !EncodesTo(cms.get(), seal)) return nullptr;
  return cms;
}

// Null unless there is exactly one.
CMS_SignerInfo *OnlySigner(CMS_ContentInfo *cms) {
  STACK_OF(CMS_SignerInfo) *const signers = CMS_get0_SignerInfos(cms);
  return sk_CMS_SignerInfo_num(signers) == 1 ? sk_CMS_SignerInfo_value(signers, 0) : nullptr;
}

bool HasGoodDigest(CMS_SignerInfo *signer) {
  X509_ALGOR *algorithm = nullptr;
  CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &algorithm, nullptr);
  const ASN1_OBJECT *name = nullptr;
  X509_ALGOR_get0(&name, nullptr, nullptr, algorithm);
  const int digest = OBJ_obj2nid(name);
  return digest == NID_sha256 || digest == NID_sha384 || digest == NID_sha512;
}

// ---- the certificates --------------------------------------------------------------------------

// The anchors; null if there are none or the text is malformed.
Store ReadAnchors(std::string_view anchors) {
  if (anchors.size() > INT_MAX) return nullptr;
  const Bio bio(BIO_new_mem_buf(anchors.data(), static_cast<int>(anchors.size())));
  Store store(X509_STORE_new());
  if (bio == nullptr || store == nullptr) return nullptr;
  // Never prompt for a pass phrase.
  pem_password_cb *const refuse = [](char *, int, int, void *) { return -1; };
  int count = 0;
  for (; const Certificate anchor{PEM_read_bio_X509(bio.get(), nullptr, refuse, nullptr)};
       count++) {
    if (X509_STORE_add_cert(store.get(), anchor.get()) != 1) return nullptr;
  }
  const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  return count > 0 && atEnd ? std::move(store) : nullptr;
}

// An authority with an extended key usage must include code signing: this is how an authority's
// certificate can limit what it may certify.
bool MayCertifyCode(X509 *certificate) {
  return (X509_get_extended_key_usage(certificate) & (XKU_CODE_SIGN | XKU_ANYEKU)) != 0;
}

// The rules that certificate authorities have agreed on for code signing: a missing extension is not a
// permission, and the key of an authority signs certificates only.
bool MaySignCode(X509 *certificate) {
  constexpr uint32_t kUses = EXFLAG_XKUSAGE | EXFLAG_KUSAGE;
  const uint32_t flags = X509_get_extension_flags(certificate);
  return (flags & kUses) == kUses && (flags & EXFLAG_CA) == 0 &&
         (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) != 0 &&
         (X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) != 0;
}

// With two common names it would be ambiguous which one counts.
bool IsMakers(X509 *certificate) {
  X509_NAME *const subject = X509_get_subject_name(certificate);
  const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (at < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, at) >= 0) return false;
  unsigned char *out = nullptr;
  const int size =
      ASN1_STRING_to_UTF8(&out, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
  const Bytes owner(out);
  if (size < 0) return false;
  const std::string_view name(reinterpret_cast<char *>(out), static_cast<size_t>(size));
  return name.find(kMaker) != name.npos;
}

// Why there is no chain, from OpenSSL's reason.
SealVerdict VerdictOf(int error) {
  switch (error) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return SealVerdict::Expired;
    case X509_V_ERR_EE_KEY_TOO_SMALL:
    case X509_V_ERR_CA_KEY_TOO_SMALL:
    case X509_V_ERR_CA_MD_TOO_WEAK:
      return SealVerdict::WeakChain;
    default:
      return SealVerdict::Untrusted;
  }
}

// Checks the signer's certificate and those between it and an anchor: X509_verify_cert checks the path,
// times and strength; the loop below the purpose of each certificate; IsMakers the signer's name.
SealVerdict CheckChain(X509 *signer, STACK_OF(X509) * others, X509_STORE *anchors) {
  const StoreContext context(X509_STORE_CTX_new());
  if (context == nullptr || X509_STORE_CTX_init(context.get(), anchors, signer, others) != 1) {
    return SealVerdict::Untrusted;
  }
  X509_VERIFY_PARAM *const rules = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_depth(rules, kMaxIntermediates);
  X509_VERIFY_PARAM_set_auth_level(rules, kSecurityLevel);
  // Every certificate in the file of anchors is an anchor, even one that is not self-signed.
  X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_PARTIAL_CHAIN);
  if (X509_verify_cert(context.get()) != 1)
    return VerdictOf(X509_STORE_CTX_get_error(context.get()));

  if (!MaySignCode(signer)) return SealVerdict::NotForCode;
  STACK_OF(X509) *const chain = X509_STORE_CTX_get0_chain(context.get());
  for (int i = 1; i < sk_X509_num(chain); i++) {
    if (!MayCertifyCode(sk_X509_value(chain, i))) return SealVerdict::NotForCode;
  }
  return IsMakers(signer) ? SealVerdict::Valid : SealVerdict::NotMaker;
}

// ------------------------------------------------------------------------------------------------

SealVerdict CheckSigner(CMS_ContentInfo *cms, X509_STORE *anchors) {
  CMS_SignerInfo *const signer = OnlySigner(cms);
  if (signer == nullptr) return SealVerdict::NotCms;
  if (!HasGoodDigest(signer)) return SealVerdict::WeakDigest;
  // CheckChain checks the chain: CMS_verify would require a certificate for e-mail.
  if (CMS_verify(cms, nullptr, nullptr, nullptr, nullptr, CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) !=
      1) {
    return SealVerdict::BadSignature;
  }
  X509 *certificate = nullptr;
  CMS_SignerInfo_get0_algs(signer, nullptr, &certificate, nullptr, nullptr);
  if (certificate == nullptr) return SealVerdict::BadSignature;
  const Certificates others(CMS_get1_certs(cms));
  return CheckChain(certificate, others.get(), anchors);
}

bool CopyContent(CMS_ContentInfo *cms, SmallFileBytes *text) {
  const ASN1_OCTET_STRING *const content = *CMS_get0_content(cms);
  const auto size = static_cast<size_t>(ASN1_STRING_length(content));
  SmallFileBytes copy{Heap_Array<char>(size), size};
  if (copy.data == nullptr) return false;
  std::copy_n(ASN1_STRING_get0_data(content), size, copy.data.get());
  *text = std::move(copy);
  return true;
}

SealVerdict Open(std::string_view seal, std::string_view anchors, SmallFileBytes *text) {
  const Store store = ReadAnchors(anchors);
  if (store == nullptr) return SealVerdict::NoAnchors;
  // Reaching the end of the anchors has left an error as well.
  ERR_clear_error();
  const Cms cms = Parse(seal);
  if (cms == nullptr) return SealVerdict::NotCms;
  const SealVerdict verdict = CheckSigner(cms.get(), store.get());
  if (verdict != SealVerdict::Valid) return verdict;
  return CopyContent(cms.get(), text) ? SealVerdict::Valid : SealVerdict::Unreadable;
}

}  // namespace

SealVerdict SealOpen(std::string_view seal, std::string_view anchors, SmallFileBytes *text) {
  errno = ENOMEM;
  if (!OpensslStart()) return SealVerdict::Unreadable;
  ERR_clear_error();
  const SealVerdict verdict = Open(seal, anchors, text);
  // The first error is the cause of all others.
  const bool starved = ERR_GET_REASON(ERR_peek_error()) == ERR_R_MALLOC_FAILURE;
  ERR_clear_error();
  // Files of anchors that hold none are no failed call.
  errno = !starved && verdict == SealVerdict::NoAnchors ? 0 : ENOMEM;
  return starved ? SealVerdict::Unreadable : verdict;
}
