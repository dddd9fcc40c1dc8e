// icu_test.cpp -- the code sets with ICU: what it takes over, and what both engines agree on.
//
// ICU never leaves a process that it has entered, so whoever lets it in does so in a child.

#include <gtest/gtest.h>
#include <unicode/putil.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "codeset.h"
#include "dynbuf.h"
#include "encoding.h"
#include "heap.h"
#include "lib/misc/codesetEngine.h"
#include "lib/unicode/encodingTable.h"
#include "productDir.h"
#include "tests/support/capture.h"
#include "tests/support/rounds.h"
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

  // Failures in the child are failures here.
  static void InChild(const std::function<void()> &body) {
    const ChildResult child = RunInChild([&] {
      body();
      fflush(stdout);
      if (HasFailure()) _exit(1);
    });
    EXPECT_EQ(42, child.exitStatus) << child.output;
  }

  // In a child where ICU has taken over.
  void WithIcu(const std::function<void()> &body) {
    InChild([&] {
      ASSERT_TRUE(CodeSet_Init(folder_.c_str()) && IcuIsIn());
      body();
    });
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

TEST_F(Icu, IsLetInOnceByManyThreadsWhereItsDataFileIs) {
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
      std::vector<std::jthread> threads;
      for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
          Unicode_Init(row.given);
          EXPECT_EQ(row.comesIn, IcuIsIn()) << "nobody comes back too early";
        });
      }
      threads.clear();
      EXPECT_EQ(row.given == nullptr ? 1 : 0, lookups);
      EXPECT_EQ(row.comesIn, folder_ + "/icudt44l.dat" == u_getDataDirectory());
      EXPECT_TRUE(CodeSet_Init(empty.c_str()) && row.comesIn == IcuIsIn()) << "it never leaves";
    });
  }
}

// ---- what both engines make of texts ---------------------------------------------------------

// Where the own engine has a converter and may not repair.  Any bytes: fuzz/codeset_fuzz.cpp.
TEST_F(Icu, AgreesWithTheOwnEngine) {
  WithIcu([] {
    const char *const names[] = {"UTF-8", "UTF-16LE", "UTF-16BE", "US-ASCII", "ISO-8859-1"};
    std::mt19937 random(1);
    for (int round = Rounds(20'000); round > 0; round--) {
      const size_t from = random() % 5, to = random() % 5;
      if (to != 0 && (from != 0 || to % 2 == 0) && (from != to || from == 4)) continue;
      std::u32string text(1 + random() % 12, U' ');
      for (char32_t &c : text) c = static_cast<char32_t>(random() % 0x110000 >> random() % 20);
      const std::string utf32(reinterpret_cast<const char *>(text.data()), 4 * text.size());
      std::string in = Convert("UTF-32LE", utf32, names[from], CODESET_SKIP).value_or("") + "a\0"s;
      if (round % 4 == 0) in[random() % in.size()] = static_cast<char>(random());
      ScopedDynBuf out;
      std::optional<std::string> own;
      if (kCodeSetOwnEngine.convert(names[from], in.data(), in.size(), names[to], 0, &out)) {
        own.emplace(out.data, out.size);
      }
      ASSERT_EQ(own, Convert(names[from], in, names[to], 0)) << names[from] << " to " << names[to];
    }
  });
}

TEST_F(Icu, HeedsTheFlagsWhereTheOwnEngineDoesInAsciiOnly) {
  const struct {
    const char *from, *to;
    std::string in;
    std::optional<std::string> out[3];  // by flags: stop, substitute, skip
  } rows[] = {
      {"UTF-8", "UTF-8", "a\x80z", {{}, "a\xEF\xBF\xBDz", "az"}},
      {"UTF-8", "UTF-16LE", "a\xFF", {{}, "a\0\xFD\xFF"s, "a\0"s}},
      {"UTF-16LE", "UTF-8", "a\0\0\xD8z\0"s, {{}, "a\xEF\xBF\xBDz", "az"}},
      {"UTF-16BE", "UTF-16BE", "\xD8\x3D\xDE"s, {{}, "\xFF\xFD"s, ""}},
      {"UTF-8", "ISO-8859-1", "\xC3\xA9\xE3\x81\x84", {{}, "\xE9\x1A", "\xE9"}},
      {"no such name", "UTF-8", "a", {}},
      // A whole sequence counts once.
      {"UTF-8", "US-ASCII", "\xC3\xA9-\xF0\x9F\x98\x80-\x81", {{}, "\x1A-\x1A-\x1A", "--"}},
      {"US-ASCII", "UTF-8", "a\x80z", {{}, "a\xEF\xBF\xBDz", "az"}},
      {"no such name", "UTF-8", "", {"", "", ""}},
  };
  constexpr size_t kFirstOfBoth = 6;
  const auto check = [&](bool isIcu) {
    for (size_t i = 0; i < std::size(rows); i++) {
      const auto &[from, to, in, out] = rows[i];
      for (const int flags : {CODESET_STOP, CODESET_SUBSTITUTE, CODESET_SKIP}) {
        EXPECT_EQ(isIcu || i >= kFirstOfBoth ? out[flags] : std::nullopt,
                  Convert(from, in, to, flags))
            << from << " to " << to << ", " << flags;
      }
    }
  };
  check(false);
  WithIcu([&] {
    check(true);
    EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/misc/codeset:988\n",
              FatalText([] { Convert("UTF-8", "a", "UTF-8", 3); }));
  });
}

TEST_F(Icu, KnowsEveryUsableEncodingByItsPreferredName) {
  WithIcu([&] {
    for (const EncodingRow &row : EncodingTableRows()) {
      if (!row.usable) continue;
      const char *const name = EncodingTablePreferredName(row);
      const std::string bytes = Convert("UTF-8", "Az 09", name, CODESET_STOP).value_or("");
      EXPECT_EQ("Az 09", Convert(name, bytes, "UTF-8", CODESET_STOP)) << name;
      EXPECT_TRUE(CodeSet_Validate(bytes.data(), bytes.size(), name)) << name;
    }
    EXPECT_FALSE(CodeSet_Validate("\x82", 1, "Shift_JIS"));
    EXPECT_EQ("Panic: VERIFY lib/misc/codeset:1723\n",
              FatalText([] { static_cast<void>(CodeSet_Validate("a", 1, "no such name")); }));
  });
}

}  // namespace
