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
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "codeset.h"
#include "dynbuf.h"
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

// Only ICU knows this pair.
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

  // Runs `body` in a child where ICU has taken over; failures in there are failures here.
  void WithIcu(const std::function<void()> &body) {
    InChild([&] {
      ASSERT_TRUE(CodeSet_Init(folder_.c_str()));
      ASSERT_TRUE(IcuIsIn());
      body();
    });
  }

  std::string FatalWithIcu(const std::function<void()> &body) {
    return FatalText([&] {
      static_cast<void>(CodeSet_Init(folder_.c_str()));
      body();
    });
  }

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

std::atomic<const char *> lookedUp;
std::atomic<int> lookups;

char *LookUp(const char *key) {
  lookups++;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_STREQ("icuDir", key);
  const char *const folder = lookedUp;
  return folder == nullptr ? nullptr : strdup(folder);
}

TEST_F(Icu, ComesInWhenItsDataFileIsThere) {
  const std::string empty = dir_.Path("empty"), folderInstead = dir_.Path("folderInstead");
  ASSERT_TRUE(std::filesystem::create_directories(empty));
  ASSERT_TRUE(std::filesystem::create_directories(folderInstead + "/icudt44l.dat"));
  const struct {
    const char *given, *lookedUp;
    bool comesIn;
  } rows[] = {
      {folder_.c_str(), nullptr, true},        {empty.c_str(), folder_.c_str(), false},
      {nullptr, folder_.c_str(), true},        {nullptr, nullptr, false},
      {folderInstead.c_str(), nullptr, false},
  };
  for (const auto &row : rows) {
    InChild([&] {
      ProductDir_InstallLookup(LookUp);
      lookedUp = row.lookedUp;
      EXPECT_TRUE(CodeSet_Init(row.given));
      EXPECT_EQ(row.comesIn, IcuIsIn());
      EXPECT_EQ(row.given == nullptr ? 1 : 0, lookups);
      EXPECT_EQ(row.comesIn, folder_ + "/icudt44l.dat" == u_getDataDirectory());
      EXPECT_TRUE(CodeSet_Init(empty.c_str()));
      EXPECT_EQ(row.comesIn, IcuIsIn()) << "it never leaves";
    });
  }
  InChild([] {
    EXPECT_TRUE(CodeSet_Init(nullptr)) << "no look-up, and no installation on this machine";
    EXPECT_FALSE(IcuIsIn());
  });
}

TEST_F(Icu, IsLetInOnceByManyThreads) {
  InChild([this] {
    lookedUp = folder_.c_str();
    ProductDir_InstallLookup(LookUp);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
      threads.emplace_back([] {
        Unicode_Init(nullptr);
        EXPECT_TRUE(IcuIsIn()) << "nobody comes back too early";
      });
    }
    for (std::thread &thread : threads) thread.join();
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

// All characters below the limit in order, and then texts of runs of like characters.
std::vector<std::u32string> Texts(char32_t limit) {
  std::vector<std::u32string> texts(1);
  const auto append = [](char32_t c, std::u32string *text) {
    if (c < 0xD800 || c > 0xDFFF) *text += c;
  };
  for (char32_t c = 0; c < limit; c++) append(c, &texts[0]);
  std::mt19937 random(7);
  while (texts.size() < 2000) {
    std::u32string text = U" ";
    for (auto runs = random() % 8; runs > 0; runs--) {
      const char32_t sorts[] = {0x80, 0x100, 0x800, 0x10000, 0x110000};
      const char32_t below = std::min(limit, sorts[random() % std::size(sorts)]);
      for (auto length = random() % 20; length > 0; length--)
        append(static_cast<char32_t>(random()) % below, &text);
    }
    texts.push_back(text);
  }
  return texts;
}

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
    for (const std::u32string &text : Texts(limit)) {
      ASSERT_EQ(Encoded(text, to), Convert(from, Encoded(text, from), to, CODESET_STOP))
          << from << " to " << to;
    }
  }
}

// ---- different on invalid text, on purpose ---------------------------------------------------

struct Difference {
  const char *from, *to;
  std::string in;
  std::optional<std::string> own[3], icu[3];  // by flags: stop, substitute, skip
};

TEST_F(Icu, HeedsTheFlagsWhereTheOwnEngineRefuses) {
  const Difference rows[] = {
      {"UTF-8", "UTF-8", "a\x80z", {}, {{}, "a\xEF\xBF\xBDz", "az"}},
      {"UTF-16LE", "UTF-8", "a\0\0\xD8z\0"s, {}, {{}, "a\xEF\xBF\xBDz", "az"}},
      {"UTF-8", "UTF-16LE", "a\xFF", {}, {{}, "a\0\xFD\xFF"s, "a\0"s}},
      {"UTF-8", "ISO-8859-1", "\xC3\xA9\xE3\x81\x84", {}, {{}, "\xE9\x1A", "\xE9"}},
      {"UTF-8", "US-ASCII", "\xC3\xA9z", {{}, "\x1Az", "z"}, {{}, "\x1Az", "z"}},
      {"US-ASCII", "UTF-8", "\x80z", {{}, "\xEF\xBF\xBDz", "z"}, {{}, "\xEF\xBF\xBDz", "z"}},
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
  WithIcu([&] {
    check(&Difference::icu);
    const HeapStr repaired(Unicode_AllocWithLength("a\x80", 2, StringEncoding::Utf8));
    EXPECT_STREQ("a\xEF\xBF\xBD", repaired.get());
  });
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

TEST_F(Icu, MakesRoomForTextsThatGrow) {
  WithIcu([] {
    const std::u32string text(100001, 0xE9);
    const std::string latin1(text.size(), '\xE9');
    EXPECT_EQ(Encoded(text, "UTF-8"), Convert("ISO-8859-1", latin1, "UTF-8", CODESET_STOP));
    EXPECT_EQ(Encoded(text, "UTF-32BE"), Convert("ISO-8859-1", latin1, "UTF-32BE", CODESET_STOP));
    // Behind what is there already, which stays when it fails.
    ScopedDynBuf out;
    ASSERT_TRUE(DynBuf_Append(&out, "before", 6));
    const std::string bad = std::string(5000, 'a') + '\xC3';
    EXPECT_FALSE(CodeSet_GenericToGenericDb("UTF-8", bad.data(), bad.size(), "UTF-16LE", 0, &out));
    EXPECT_TRUE(CodeSet_GenericToGenericDb("UTF-8", "\xC3\xA9", 2, "UTF-16LE", 0, &out));
    EXPECT_EQ("before\xE9\0"s, std::string(out.data, out.size));
  });
}

TEST_F(Icu, ValidatesWhatItKnows) {
  WithIcu([] {
    EXPECT_TRUE(CodeSet_Validate("\x82\xA0", 2, "Shift_JIS"));
    EXPECT_FALSE(CodeSet_Validate("\x82", 1, "Shift_JIS"));
    EXPECT_FALSE(CodeSet_Validate("\xED\xA0\x80", 3, "UTF-8"));
    EXPECT_TRUE(CodeSet_Validate(nullptr, 0, "no such name"));
  });
  EXPECT_EQ("Panic: VERIFY lib/misc/codeset:1723\n",
            FatalWithIcu([] { static_cast<void>(CodeSet_Validate("a", 1, "no such name")); }));
}

}  // namespace
