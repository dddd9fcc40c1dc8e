// sealDescription.cpp -- what a seal says of itself, by OpenSSL.
// Tests: tests/system/codeseal_test

#include "tools/codeseal/sealDescription.h"

#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <sstream>
#include <stdexcept>

#include "platform/linux/seal/openssl.h"
#include "tools/toolText.h"

namespace {

using Bio = OpensslOwner<BIO, BIO_free_all>;
using Cms = OpensslOwner<CMS_ContentInfo, CMS_ContentInfo_free>;

std::string TextOf(const Bio &bio) {
  char *text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<size_t>(size)};
}

std::string NameOf(const X509_NAME *name) {
  const Bio out(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(out.get(), name, 0, XN_FLAG_RFC2253);
  return TextOf(out);
}

std::string TimeOf(const ASN1_TIME *time) {
  const Bio out(BIO_new(BIO_s_mem()));
  ASN1_TIME_print(out.get(), time);
  return TextOf(out);
}

std::string KeyOf(X509 *certificate) {
  const EVP_PKEY *const key = X509_get0_pubkey(certificate);
  if (key == nullptr) return "unknown";
  const char *const name = EVP_PKEY_get0_type_name(key);
  return std::string(name == nullptr ? "unknown" : name) + " of " +
         std::to_string(EVP_PKEY_get_bits(key)) + " bits";
}

std::string AlgorithmOf(const X509_ALGOR *algorithm) {
  const ASN1_OBJECT *object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
  char name[100] = "";
  OBJ_obj2txt(name, sizeof name, object, 0);
  return name;
}

std::string SignatureOf(CMS_ContentInfo *cms) {
  STACK_OF(CMS_SignerInfo) *const signers = CMS_get0_SignerInfos(cms);
  if (sk_CMS_SignerInfo_num(signers) != 1) return "not of one signer";
  X509_ALGOR *digest = nullptr;
  X509_ALGOR *signature = nullptr;
  CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, 0), nullptr, nullptr, &digest,
                           &signature);
  return AlgorithmOf(digest) + ", " + AlgorithmOf(signature);
}

}  // namespace

SealDescription SealDescription_Of(const std::string &seal) {
  if (!OpensslStart()) throw std::runtime_error("OpenSSL does not start");
  const auto *next = reinterpret_cast<const unsigned char *>(seal.data());
  const Cms cms(d2i_CMS_ContentInfo(nullptr, &next, static_cast<long>(seal.size())));
  ASN1_OCTET_STRING **const content = cms == nullptr ? nullptr : CMS_get0_content(cms.get());
  if (content == nullptr || *content == nullptr) throw std::runtime_error("not a seal");
  SealDescription said;
  said.text.assign(reinterpret_cast<const char *>(ASN1_STRING_get0_data(*content)),
                   static_cast<size_t>(ASN1_STRING_length(*content)));
  said.signature = SignatureOf(cms.get());
  STACK_OF(X509) *const certs = CMS_get1_certs(cms.get());
  for (int i = 0; i < sk_X509_num(certs); i++) {
    X509 *const one = sk_X509_value(certs, i);
    said.certificates.push_back(
        {NameOf(X509_get_subject_name(one)), NameOf(X509_get_issuer_name(one)),
         TimeOf(X509_get0_notBefore(one)), TimeOf(X509_get0_notAfter(one)), KeyOf(one)});
  }
  sk_X509_pop_free(certs, X509_free);
  return said;
}

std::string SealDescription::Lines() const {
  std::string lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines += CleanText(line) + "\n";
  lines += "signature " + CleanText(signature) + "\n";
  for (const Certificate &one : certificates) {
    lines += "certificate " + CleanText(one.subject) + "\n  issuer " + CleanText(one.issuer) +
             "\n  valid from " + one.notBefore + " to " + one.notAfter + "\n  key " +
             CleanText(one.key) + "\n";
  }
  return lines;
}

std::string SealDescription::Json() const {
  std::string json = JsonMember("text", text) + ", " + JsonMember("signature", signature) +
                     ", \"certificates\": [";
  const char *separator = "";
  for (const Certificate &one : certificates) {
    json += separator;
    json += "{" + JsonMember("subject", one.subject) + ", " + JsonMember("issuer", one.issuer) +
            ", " + JsonMember("notBefore", one.notBefore) + ", " +
            JsonMember("notAfter", one.notAfter) + ", " + JsonMember("key", one.key) + "}";
    separator = ", ";
  }
  return json + "]";
}
