// sealMaker.cpp -- makes seals.
// Tests: tests/system/codeseal_test

#include "tools/codeseal/sealMaker.h"

#include <fcntl.h>
#include <openssl/cms.h>
#include <openssl/cmserr.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "lib/public/codeset.h"
#include "lib/public/fd.h"
#include "platform/linux/seal/openssl.h"
#include "platform/linux/seal/sealDigest.h"
#include "platform/linux/seal/sealSignature.h"
#include "platform/linux/seal/sealText.h"
#include "platform/linux/seal/sealWalk.h"

namespace {

using Bio = OpensslOwner<BIO, BIO_free_all>;
using Cms = OpensslOwner<CMS_ContentInfo, CMS_ContentInfo_free>;
using Key = OpensslOwner<EVP_PKEY, EVP_PKEY_free>;
using X509Owner = OpensslOwner<X509, X509_free>;

// The names of kSealFile, and that of a new seal until it is complete.
constexpr char kContents[] = "Contents";
constexpr char kFolder[] = "_CodeSignature";
constexpr char kSeal[] = "CodeSeal";
constexpr char kHalfDone[] = "CodeSeal.new";

[[noreturn]] void ThrowErrno(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

[[noreturn]] void ThrowOpenssl(const std::string &what) {
  const char *const reason = ERR_reason_error_string(ERR_peek_last_error());
  throw std::runtime_error(what + (reason == nullptr ? "" : std::string(": ") + reason));
}

// ---- what is there -----------------------------------------------------------------------------

struct Found {
  std::string path;
  bool isLink = false;
  std::string target;
  SealDigest digest = {};
  uint64_t size = 0;
};

// The walk is compiled without exceptions, so failures are reported by errno.
bool Collect(void *context, const SealFound &found) {
  Found &one = static_cast<std::vector<Found> *>(context)->emplace_back();
  one.path = found.path;
  // The product can only copy files whose names are UTF-8.
  if (!CodeSet_IsValidUTF8(found.path)) {
    errno = EILSEQ;
    return false;
  }
  one.isLink = found.target != nullptr;
  if (one.isLink) one.target = found.target;
  return one.isLink || SealDigestOf(found.fd, UINT64_MAX, &one.digest, &one.size);
}

std::vector<Found> Survey(int item) {
  std::vector<Found> found;
  if (!SealIsDirectory(item)) {
    if (!Collect(&found, {kSealSinglePath, item, nullptr})) ThrowErrno("reading");
    return found;
  }
  SealWalk walk(Collect, &found);
  if (!walk.Below(item)) ThrowErrno(walk.Path());
  if (found.size() > kSealMaxItems) throw std::runtime_error("too many files");
  std::ranges::sort(found, {}, &Found::path);
  return found;
}

// ---- PEM files ---------------------------------------------------------------------------------

Bio OpenPem(const std::string &path) {
  errno = 0;
  Bio bio(BIO_new_file(path.c_str(), "r"));
  if (bio == nullptr) ThrowErrno(path);
  return bio;
}

Key ReadKey(const std::string &path) {
  Key key(PEM_read_bio_PrivateKey(OpenPem(path).get(), nullptr, nullptr, nullptr));
  if (key == nullptr) ThrowOpenssl(path + ": no private key");
  // Others sign, too, but not what the checks accept: RSA-PSS and Ed25519 among them.
  const int kind = EVP_PKEY_get_base_id(key.get());
  if (kind != EVP_PKEY_RSA && kind != EVP_PKEY_EC) {
    throw std::runtime_error(path + ": not a key for RSA (PKCS #1) or ECDSA");
  }
  return key;
}

// Reads the whole file; one with a truncated or malformed certificate is refused.
std::vector<X509Owner> ReadCertificates(const std::string &path) {
  std::vector<X509Owner> all;
  const Bio bio = OpenPem(path);
  while (X509 *const one = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    all.emplace_back(one);
  }
  const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  if (all.empty() || !atEnd) ThrowOpenssl(path + ": not certificates");
  ERR_clear_error();
  return all;
}

std::string ReadText(const std::string &path) {
  std::ifstream in(path);
  std::string text{std::istreambuf_iterator<char>(in), {}};
  if (!in) ThrowErrno(path);
  return text;
}

// A seal that no anchors could make valid is not worth attaching.  It is checked with all certificates
// that were given as anchors: which of them a machine trusts is not known here, nor which others.
void RequireValid(const std::string &seal, const SealMakerFiles &files) {
  SmallFileBytes text;
  std::string anchors = ReadText(files.cert);
  if (!files.chain.empty()) anchors += "\n" + ReadText(files.chain);
  const SealVerdict verdict = SealOpen(seal, anchors, &text);
  if (verdict != SealVerdict::Valid) {
    throw std::runtime_error(std::string("no machine would accept it: ") +
                             SealVerdictWords(verdict));
  }
}

// The signer's certificate is in the seal already, and may be in the chain's file, too.
void AddAuthorities(CMS_ContentInfo *cms, const std::vector<X509Owner> &authorities,
                    const std::string &path) {
  for (const X509Owner &authority : authorities) {
    if (CMS_add1_cert(cms, authority.get()) == 1) continue;
    if (ERR_GET_REASON(ERR_peek_last_error()) != CMS_R_CERTIFICATE_ALREADY_PRESENT) {
      ThrowOpenssl(path);
    }
    ERR_clear_error();
  }
}

// ---- attaching ---------------------------------------------------------------------------------

// Never by a link, which could lead out of the bundle.
Fd OpenFolder(int parent, const char *name) {
  return Fd(openat(parent, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Written under another name and renamed, so that the seal appears whole or not at all.
void WriteSealFile(int bundle, const std::string &seal) {
  const Fd contents = OpenFolder(bundle, kContents);
  if (!contents) ThrowErrno(kContents);
  if (mkdirat(contents.Get(), kFolder, 0755) != 0 && errno != EEXIST) ThrowErrno(kFolder);
  const Fd folder = OpenFolder(contents.Get(), kFolder);
  if (!folder) ThrowErrno(kFolder);
  const Fd fd(
      openat(folder.Get(), kHalfDone, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd) ThrowErrno(kHalfDone);
  for (size_t done = 0; done < seal.size();) {
    const ssize_t n = write(fd.Get(), seal.data() + done, seal.size() - done);
    if (n < 0 && errno != EINTR) ThrowErrno(kHalfDone);
    if (n > 0) done += static_cast<size_t>(n);
  }
  // Everybody may verify, whatever the umask.
  if (fchmod(fd.Get(), 0644) != 0 || fsync(fd.Get()) != 0) ThrowErrno(kHalfDone);
  if (renameat(folder.Get(), kHalfDone, folder.Get(), kSeal) != 0) ThrowErrno(kSealFile);
}

}  // namespace

std::string SealMaker_Text(int item, const std::string &identifier) {
  const std::vector<Found> found = Survey(item);
  std::vector<SealItem> items;
  items.reserve(found.size());
  for (const Found &one : found) {
    items.push_back(
        {one.path.c_str(), one.isLink ? one.target.c_str() : nullptr, one.digest, one.size});
  }
  size_t size = 0;
  const HeapArray<char> text = SealWrite(identifier.c_str(), items, &size);
  if (text == nullptr) ThrowErrno("seal");
  return {text.get(), size};
}

std::string SealMaker_Sign(const std::string &text, const SealMakerFiles &files) {
  if (!OpensslStart()) ThrowOpenssl("OpenSSL does not start");
  const Key key = ReadKey(files.key);
  const std::vector<X509Owner> certs = ReadCertificates(files.cert);
  std::vector<X509Owner> chain;
  if (!files.chain.empty()) chain = ReadCertificates(files.chain);

  constexpr unsigned kFlags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
  const Cms cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags));
  const Bio content(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  if (cms == nullptr || content == nullptr ||
      CMS_add1_signer(cms.get(), certs.front().get(), key.get(), EVP_sha256(), kFlags) == nullptr) {
    ThrowOpenssl(files.cert);
  }
  AddAuthorities(cms.get(), certs, files.cert);
  AddAuthorities(cms.get(), chain, files.chain);
  if (CMS_final(cms.get(), content.get(), nullptr, kFlags) != 1) ThrowOpenssl("signing");
  unsigned char *out = nullptr;
  const int size = i2d_CMS_ContentInfo(cms.get(), &out);
  if (size <= 0) ThrowOpenssl("signing");
  std::string seal(reinterpret_cast<char *>(out), static_cast<size_t>(size));
  OPENSSL_free(out);
  if (seal.size() > kSealMaxSize) throw std::runtime_error("the seal gets too large");
  RequireValid(seal, files);
  return seal;
}

void SealMaker_RemoveHalfDone(int item) {
  if (!SealIsDirectory(item)) return;
  const Fd contents = OpenFolder(item, kContents);
  const Fd folder = contents ? OpenFolder(contents.Get(), kFolder) : Fd();
  if ((!folder || unlinkat(folder.Get(), kHalfDone, 0) != 0) && errno != ENOENT) {
    ThrowErrno(kHalfDone);
  }
}

void SealMaker_Attach(int item, const std::string &seal) {
  if (SealIsDirectory(item)) {
    WriteSealFile(item, seal);
  } else if (fsetxattr(item, kSealAttribute, seal.data(), seal.size(), 0) != 0) {
    ThrowErrno(kSealAttribute);
  }
}

bool SealMaker_Remove(int item) {
  if (!SealIsDirectory(item)) {
    if (fremovexattr(item, kSealAttribute) == 0) return true;
    if (errno != ENODATA) ThrowErrno(kSealAttribute);
    return false;
  }
  SealMaker_RemoveHalfDone(item);
  const Fd contents = OpenFolder(item, kContents);
  const Fd folder = contents ? OpenFolder(contents.Get(), kFolder) : Fd();
  if (!folder || unlinkat(folder.Get(), kSeal, 0) != 0) {
    if (errno != ENOENT && errno != ENOTDIR) ThrowErrno(kSealFile);
    return false;
  }
  // Other files may be there.
  if (unlinkat(contents.Get(), kFolder, AT_REMOVEDIR) != 0 && errno != ENOTEMPTY) {
    ThrowErrno(kFolder);
  }
  return true;
}
