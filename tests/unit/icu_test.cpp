// icu_test.cpp -- the code sets with ICU: what it takes over, and what both engines agree on.
//
// ICU never leaves a process that it has entered, so whoever lets it in does so in a child.

#include <gtest/gtest.h>
#include <unicode/putil.h>
#include <unicode/ucnv.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "codeset.h"
#include "encoding.h"
#include "heap.h"
#include "lib/unicode/encodingTable.h"
#include "productDir.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"
#include "unicode.h"

namespace {

using std::string_literals::operator""s;

// The result of a conversion; none when it fails.
std::optional<std::string> Convert(const char *from, const std::string &text, const char *to,
                                   int flags) {
  char *out = nullptr;
  size_t length = 0;
  if (!CodeSet_GenericToGeneric(from, text.data(), text.size(), to, flags, &out, &length))
    return {};
  const HeapStr owner(out);
  return std::string(out, length);
}

bool IcuIsIn() {
  return Convert("UTF-8", "a", "ISO-8859-1", CODESET_STOP).has_value();
}

class Icu : public testing::Test {
 protected:
  // What this host's ICU makes of the file does not matter: it has its data in a library of its
  // own, and never opens the file.
  const ScratchDir dir_;
  const std::string folder_ = dir_.Path();

  void SetUp() override { dir_.Write("icudt44l.dat", "data"); }

  // In a child where ICU has taken over.
  void WithIcu(const std::function<void()> &body) {
    InChild([&] {
      ASSERT_TRUE(CodeSet_Init(folder_.c_str()) && IcuIsIn());
      body();
    });
  }

  std::string FatalWithIcu(const std::function<void()> &body) {
    return FatalText([&] { CodeSet_Init(folder_.c_str()) ? body() : _exit(2); });
  }

  // Failures in there are failures here.
  static void InChild(const std::function<void()> &body) {
    const ChildResult child = RunInChild([&] {
      body();
      fflush(stdout);
      if (HasFailure()) _exit(1);
    });
    EXPECT_EQ(42, child.exitStatus) << child.output;
  }
};

// ---- how ICU gets in -------------------------------------------------------------------------

const char *lookedUp;
std::atomic<int> lookups;

char *LookUp(const char *key) {
  lookups++;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_STREQ("icuDir", key);
  return lookedUp == nullptr ? nullptr : strdup(lookedUp);
}

TEST_F(Icu, ComesInWhenItsDataFileIsThere) {
  const std::string empty = dir_.Path("empty"), folderInstead = dir_.Path("folderInstead");
  ASSERT_TRUE(std::filesystem::create_directories(empty));
  ASSERT_TRUE(std::filesystem::create_directories(folderInstead + "/icudt44l.dat"));
  const struct {
    const char *given, *lookedUp;
    bool comesIn;
  } rows[] = {
      {folder_.c_str(), nullptr, true},
      {empty.c_str(), folder_.c_str(), false},
      {nullptr, folder_.c_str(), true},
      {folderInstead.c_str(), nullptr, false},
  };
  for (const auto &row : rows) {
    InChild([&] {
      ProductDir_InstallLookup(LookUp);
      lookedUp = row.lookedUp;
      EXPECT_TRUE(CodeSet_Init(row.given));
      EXPECT_EQ(row.comesIn, IcuIsIn());
      EXPECT_EQ(row.comesIn, folder_ + "/icudt44l.dat" == u_getDataDirectory());
      EXPECT_TRUE(CodeSet_Init(empty.c_str()) && row.comesIn == IcuIsIn()) << "it never leaves";
    });
  }
}

TEST_F(Icu, IsLetInOnceByManyThreads) {
  InChild([this] {
    lookedUp = folder_.c_str();
    ProductDir_InstallLookup(LookUp);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++) {
      threads.emplace_back([] {
        Unicode_Init(nullptr);
        EXPECT_TRUE(IcuIsIn()) << "nobody comes back too early";
      });
    }
    threads.clear();
    Unicode_Init("/nowhere");
    EXPECT_EQ(1, lookups);
  });
}

// ---- the same on valid text ------------------------------------------------------------------

std::string Encoded(const std::u32string &text, const char *name) {
  UErrorCode error = U_ZERO_ERROR;
  std::string bytes(text.size() * 4 + 1, '\0');
  const auto size = static_cast<int32_t>(text.size() * sizeof(char32_t));
  bytes.resize(static_cast<size_t>(
      ucnv_convert(name, "UTF-32LE", bytes.data(), static_cast<int32_t>(bytes.size()),
                   reinterpret_cast<const char *>(text.data()), size, &error)));
  EXPECT_TRUE(U_SUCCESS(error)) << u_errorName(error);
  return bytes;
}

// All characters of both; mixed texts: fuzz/codeset_fuzz.cpp.
TEST(OwnConverters, AgreeWithIcuOnValidText) {
  const std::tuple<const char *, const char *, char32_t> pairs[] = {
      {"UTF-8", "UTF-8", 0x110000},       {"UTF-8", "UTF-16LE", 0x110000},
      {"UTF-16LE", "UTF-8", 0x110000},    {"UTF-16BE", "UTF-8", 0x110000},
      {"UTF-16LE", "UTF-16LE", 0x110000}, {"UTF-16BE", "UTF-16BE", 0x110000},
      {"US-ASCII", "UTF-8", 0x80},        {"UTF-8", "US-ASCII", 0x80},
      {"US-ASCII", "US-ASCII", 0x80},     {"ISO-8859-1", "UTF-8", 0x100},
  };
  ASSERT_FALSE(IcuIsIn());
  for (const auto &[from, to, limit] : pairs) {
    std::u32string text;
    for (char32_t c = 0; c < limit; c++) {
      if (c < 0xD800 || c > 0xDFFF) text += c;
    }
    EXPECT_TRUE(Encoded(text, to) == Convert(from, Encoded(text, from), to, CODESET_STOP))
        << from << " to " << to;
  }
}

// ---- each by its own rules on invalid text ---------------------------------------------------

struct Difference {
  const char *from, *to;
  std::string in;
  std::optional<std::string> own[3], icu[3];  // by flags: stop, substitute, skip
};

TEST_F(Icu, HeedsTheFlagsWhereTheOwnEngineRefuses) {
  const Difference rows[] = {
      {"UTF-8", "UTF-8", "a\x80z", {}, {{}, "a\xEF\xBF\xBDz", "az"}},
      {"UTF-8", "UTF-16LE", "a\xFF", {}, {{}, "a\0\xFD\xFF"s, "a\0"s}},
      {"UTF-16LE", "UTF-8", "a\0\0\xD8z\0"s, {}, {{}, "a\xEF\xBF\xBDz", "az"}},
      {"UTF-16LE", "UTF-8", "a\0b"s, {}, {{}, "a\xEF\xBF\xBD", "a"}},  // half a unit
      {"UTF-16BE", "UTF-16BE", "\xD8\x3D\xDE"s, {}, {{}, "\xFF\xFD"s, ""}},
      // A whole sequence counts once, even a surrogate's; what is none, byte by byte.
      {"UTF-8",
       "US-ASCII",
       "\xC3\xA9-\xED\xA0\x80-\xE3\x81",
       {{}, "\x1A-\x1A-\x1A\x1A", "--"},
       {{}, "\x1A-\x1A\x1A\x1A-\x1A", "--"}},
      {"US-ASCII", "UTF-8", "a\x80z", {{}, "a\xEF\xBF\xBDz", "az"}, {{}, "a\xEF\xBF\xBDz", "az"}},
      {"UTF-8", "ISO-8859-1", "\xC3\xA9\xE3\x81\x84", {}, {{}, "\xE9\x1A", "\xE9"}},
      {"ISO-8859-1", "ISO-8859-1", "a", {}, {"a", "a", "a"}},
      {"no such name", "UTF-8", "a", {}, {}},
      {"UTF-8", "no such name", "a", {}, {}},
      {"no such name", "UTF-8", "", {"", "", ""}, {"", "", ""}},
  };
  const auto check = [&](auto results) {
    for (const auto &row : rows) {
      for (const int flags : {CODESET_STOP, CODESET_SUBSTITUTE, CODESET_SKIP}) {
        EXPECT_EQ((row.*results)[flags], Convert(row.from, row.in, row.to, flags))
            << row.from << " to " << row.to << ", " << flags;
      }
    }
  };
  check(&Difference::own);
  EXPECT_EQ("a", Convert("UTF-8", "a", "UTF-8", 3));
  WithIcu([&] { check(&Difference::icu); });
  EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/misc/codeset:988\n",
            FatalWithIcu([] { Convert("UTF-8", "a", "UTF-8", 3); }));
}

TEST_F(Icu, ConvertsEveryUsableEncodingByItsPreferredName) {
  WithIcu([] {
    for (const EncodingRow &row : EncodingTableRows()) {
      if (!row.usable) continue;
      const char *const name = EncodingTablePreferredName(row);
      const auto bytes = Convert("UTF-8", "Az 09", name, CODESET_STOP);
      ASSERT_TRUE(bytes.has_value()) << name;
      EXPECT_EQ("Az 09", Convert(name, *bytes, "UTF-8", CODESET_STOP)) << name;
    }
  });
}

// Room behind what is there already: fuzz/codeset_fuzz.cpp.
TEST_F(Icu, Validates) {
  WithIcu([] {
    EXPECT_TRUE(CodeSet_Validate("\x82\xA0", 2, "Shift_JIS"));
    EXPECT_FALSE(CodeSet_Validate("\x82", 1, "Shift_JIS"));
    const std::string latin1(100001, '\xE9');
    EXPECT_EQ(2 * latin1.size(), Convert("ISO-8859-1", latin1, "UTF-8", 0)->size());
  });
  EXPECT_EQ("Panic: VERIFY lib/misc/codeset:1723\n",
            FatalWithIcu([] { static_cast<void>(CodeSet_Validate("a", 1, "no such name")); }));
}

}  // namespace
