// codeset_fuzz.cpp -- each pair of encodings that the own engine converts, by both engines.
//
// Where the own engine has a converter and may not repair, ICU must say the same: the same bytes, or
// a refusal.  A failure leaves the buffer alone, and what was made is valid.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "lib/misc/codeset/codesetEngine.h"
#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "lib/public/log.h"

namespace {

void Require(bool condition, const char *what, const char *from, const char *to) {
  if (condition) return;
  fprintf(stderr, "%s: %s to %s\n", what, from, to);
  abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  LogOpen("/dev/null");
  std::string folder = std::filesystem::temp_directory_path() / "codeset_fuzz.XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) abort();
  std::ofstream(folder + "/icudt44l.dat") << "data";
  const bool ok = CodeSet_Init(folder.c_str());
  std::filesystem::remove_all(folder);
  return ok ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  constexpr std::pair<const char *, const char *> kPairs[] = {
      {"UTF-8", "UTF-8"},       {"UTF-16LE", "UTF-16LE"}, {"UTF-16BE", "UTF-16BE"},
      {"US-ASCII", "US-ASCII"}, {"UTF-8", "UTF-16LE"},    {"UTF-8", "US-ASCII"},
      {"UTF-16LE", "UTF-8"},    {"UTF-16BE", "UTF-8"},    {"US-ASCII", "UTF-8"},
      {"ISO-8859-1", "UTF-8"}};
  FuzzedDataProvider data(bytes, size);
  const auto [from, to] = data.PickValueInArray(kPairs);
  const int flags = data.ConsumeIntegralInRange<int>(CODESET_STOP, CODESET_SKIP);
  const std::vector<char> text = data.ConsumeRemainingBytes<char>();  // no NUL follows it
  if (text.empty()) return 0;

  ScopedDynBuf byIcu;
  if (!DynBuf_Append(&byIcu, "x", 1)) abort();
  const bool icuDoes =
      CodeSet_GenericToGenericDb(from, text.data(), text.size(), to, flags, &byIcu);
  Require(icuDoes || byIcu.size == 1, "a trace of a failure", from, to);

  ScopedDynBuf byOwn;
  const CodeSetEngine &own = kCodeSetOwnEngine;
  const bool ownDoes = own.convert(from, text.data(), text.size(), to, flags, &byOwn) == 0;
  if (flags == CODESET_STOP) {
    // ICU leaves out what is ignorable by default, U+00AD for one, where the target lacks it.
    const bool dropped = to == std::string("US-ASCII") && byIcu.size - 1 < text.size();
    Require(ownDoes == (icuDoes && !dropped), "one engine refuses", from, to);
    Require(!ownDoes ||
                std::string(byOwn.data, byOwn.size) == std::string(byIcu.data + 1, byIcu.size - 1),
            "the engines differ", from, to);
  }
  Require(!ownDoes || own.isValid(byOwn.data, byOwn.size, to), "an invalid result", from, to);
  return 0;
}
