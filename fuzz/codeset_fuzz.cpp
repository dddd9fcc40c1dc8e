// codeset_fuzz.cpp -- conversion between any two names that the library knows, by both engines.
//
// Where the own engine has a converter and may not repair, ICU must say the same: the same bytes, or
// a refusal.  A failure leaves the buffer alone, and what was made is valid.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "lib/misc/codeset/codesetEngine.h"
#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "lib/public/encoding.h"
#include "lib/public/log.h"
#include "lib/unicode/encodings/encodingTable.h"

namespace {

void Require(bool condition, const char *what, const char *from, const char *to) {
  if (condition) return;
  fprintf(stderr, "%s: %s to %s\n", what, from, to);
  abort();
}

std::vector<const char *> AllNames() {
  std::vector<const char *> names;
  for (const EncodingRow &row : EncodingTableRows()) {
    for (const char *name = EncodingTableFirstName(row); *name != '\0';
         name = EncodingTableNextName(name)) {
      names.push_back(name);
    }
  }
  return names;
}

// Whether the own engine converts this pair; ISO-8859-1 it only reads.
bool IsOwnPair(StringEncoding from, StringEncoding to) {
  using enum StringEncoding;
  if (from == to) return from == Utf8 || from == Utf16Le || from == Utf16Be || from == UsAscii;
  if (from == Utf8) return to == Utf16Le || to == UsAscii;
  return to == Utf8 && (from == Utf16Le || from == Utf16Be || from == UsAscii || from == Iso8859_1);
}

// The name that ICU is sure to understand in the same way.
const char *Preferred(const char *name) {
  const StringEncoding encoding = Unicode_EncodingNameToEnum(name);
  return encoding == StringEncoding::Unknown ? name : Unicode_EncodingEnumToName(encoding);
}

// Appends to `out` what the engine makes of the text.
bool RunOwn(const char *from, const std::string &text, const char *to, int flags, DynBuf *out) {
  return kCodeSetOwnEngine.convert(from, text.data(), text.size(), to, flags, out);
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
  static const std::vector<const char *> names = AllNames();
  static const std::vector<const char *> own = {"UTF-8", "UTF-16LE", "UTF-16BE", "US-ASCII",
                                                "ISO-8859-1"};
  FuzzedDataProvider data(bytes, size);
  const auto &choice = data.ConsumeBool() ? own : names;
  const char *const from = choice[data.ConsumeIntegralInRange<size_t>(0, choice.size() - 1)];
  const char *const to = choice[data.ConsumeIntegralInRange<size_t>(0, choice.size() - 1)];
  const int flags = data.ConsumeIntegralInRange<int>(CODESET_STOP, CODESET_SKIP);
  const std::string text = data.ConsumeRemainingBytesAsString();
  if (text.empty()) return 0;

  ScopedDynBuf byIcu;
  if (!DynBuf_Append(&byIcu, "x", 1)) abort();
  const bool icuDoes = CodeSet_GenericToGenericDb(Preferred(from), text.data(), text.size(),
                                                  Preferred(to), flags, &byIcu);
  Require(icuDoes || byIcu.size == 1, "a trace of a failure", from, to);

  const StringEncoding fromEncoding = Unicode_EncodingNameToEnum(from);
  const StringEncoding toEncoding = Unicode_EncodingNameToEnum(to);
  ScopedDynBuf byOwn;
  const bool ownDoes = RunOwn(from, text, to, flags, &byOwn);
  if (!IsOwnPair(fromEncoding, toEncoding)) {
    Require(!ownDoes, "a converter that is not there", from, to);
    return 0;
  }
  if (flags == CODESET_STOP) {
    Require(ownDoes == icuDoes, "one engine refuses", from, to);
    Require(!ownDoes ||
                std::string(byOwn.data, byOwn.size) == std::string(byIcu.data + 1, byIcu.size - 1),
            "the engines differ", from, to);
  }
  ScopedDynBuf copy;
  Require(!ownDoes || byOwn.size == 0 ||
              RunOwn(to, std::string(byOwn.data, byOwn.size), to, CODESET_STOP, &copy),
          "an invalid result", from, to);
  return 0;
}
