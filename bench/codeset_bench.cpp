// codeset_bench.cpp -- UTF-8, comparison, and the names of encodings against ICU and the libraries of
// C and C++.
//
// Texts are 64 KiB of words in random order, so that no branch predictor learns them by heart, and
// one short path.  ICU converts into buffers that it gets beforehand, and so do the library's
// converters but for their first call.
//
//   codeset_bench [options of Google Benchmark]

#include <unicode/uchar.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench/ratios.h"
#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "lib/public/encoding.h"
#include "lib/public/unicode.h"
#include "lib/unicode/encodings/encodingTable.h"

namespace {

std::string Text(const std::vector<std::string_view> &words) {
  constexpr size_t kSize = 1 << 16;
  std::mt19937 random(1);
  std::string text;
  while (text.size() < kSize) text += words[random() % words.size()];
  return text;
}

struct Script {
  const char *name;
  std::string text;
  double validityGoal = 1;  // against the faster of ICU's ways
  double conversionGoal = 1;
};

std::vector<Script> Scripts() {
  constexpr double kWords = 0.95;
  return {
      {"ASCII",
       Text({"the ", "quick ", "brown ", "fox ", "jumps ", "over ", "lazy ", "dog ", "a "})},
      {"European",
       Text({"Zwölf ", "Boxkämpfer ", "jagen ", "über ", "den ", "großen ", "déjà ", "vu ", "ça ",
             "va ", "très ", "bien ", "żółć ", "gęślą ", "příliš ", "žluťoučký "}),
       0.1},
      {"Japanese",
       Text({"いろは", "にほへと", "散りぬるを", "我が世", "誰ぞ", "常ならむ", "有為の", "奥山",
             "今日", "越えて", "、", "。", "ABC", "2024年"}),
       0.25},
      {"emoji", Text({"😀 ", "😁😂 ", "🤣", "😃😄🎉", "🚀 ", "👍🏽", "ok ", "❤️"}), 0.1},
      {"Russian",
       Text({"съешь ", "же ", "ещё ", "этих ", "мягких ", "французских ", "булок ", "да ", "выпей ",
             "чаю ", "в ", "чащах ", "юга ", "жил ", "бы ", "цитрус, "}),
       1, kWords},
      {"Arabic",
       Text({"نص ", "حكيم ", "له ", "سر ", "قاطع ", "وذو ", "شأن ", "عظيم ", "مكتوب ", "على ",
             "ثوب ", "أخضر ", "ومغلف ", "بجلد ", "أزرق. "}),
       1, kWords},
      {"Hindi",
       Text({"ऋषियों ", "को ", "सताने ", "वाले ", "दुष्ट ", "राक्षसों ", "के ", "राजा ", "रावण ", "का ",
             "सर्वनाश ", "करने ", "विष्णुवतार ", "भगवान, "}),
       1, kWords},
      {"Greek",
       Text({"ξεσκεπάζω ", "την ", "ψυχοφθόρα ", "βδελυγμία ", "γαζέες ", "και ", "μυρτιές ",
             "δεν ", "θα ", "βρω ", "πια ", "στο ", "χρυσαφί ", "ξέφωτο. "}),
       1, kWords},
      {"Korean",
       Text({"키스의 ", "고유조건은 ", "입술끼리 ", "만나야 ", "하고 ", "특별한 ", "기술은 ",
             "필요치 ", "않다. ", "다람쥐 ", "헌 ", "쳇바퀴에 ", "타고파 "}),
       1, kWords},
      {"path", "/Library/Caches/com.zephrin.lumen/42.log", 1, kWords},
  };
}

// ---- validity --------------------------------------------------------------------------------

// The macro converts as it likes.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
bool IcuMacrosAccept(const std::string &text) {
  const auto length = static_cast<int32_t>(text.size());
  const char *const bytes = text.data();
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

#pragma GCC diagnostic pop

bool IcuPreflightAccepts(const std::string &text) {
  UErrorCode error = U_ZERO_ERROR;
  int32_t length;
  u_strFromUTF8(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), &error);
  return error == U_BUFFER_OVERFLOW_ERROR;
}

bool ByteLoopAccepts(const std::string &text) {
  uint32_t codePoint;
  const char *const end = text.data() + text.size();
  for (const char *p = text.data(); p < end;) {
    const size_t length = CodeSet_GetUtf8(p, end, &codePoint);
    if (length == 0 || codePoint > 0x10FFFF || codePoint >> 11 == 0xD800 >> 11) return false;
    p += length;
  }
  return true;
}

void AddValidity(Ratios *ratios, const Script &script) {
  const std::string row = std::string("valid ") + script.name;
  const std::string &text = script.text;
  const double goal = script.validityGoal;
  std::vector<Peer> peers = {{"U8_NEXT", goal}, {"u_strFromUTF8", goal}, {"GetUtf8", 1}};
  Ratios::Add(row, "lumen", [text] { return CodeSet_IsValidUTF8(text.data(), text.size()); });
  Ratios::Add(row, "U8_NEXT", [text] { return IcuMacrosAccept(text); });
  Ratios::Add(row, "u_strFromUTF8", [text] { return IcuPreflightAccepts(text); });
  Ratios::Add(row, "GetUtf8", [text] { return ByteLoopAccepts(text); });
  if (std::string_view(script.name) == "ASCII") {
    Ratios::Add(row, "memchr", [text] { return memchr(text.data(), 1, text.size()); });
    peers.push_back({"memchr", 2});
  }
  ratios->AddRow(row, peers);
}

// ---- conversion ------------------------------------------------------------------------------

// A text in both encodings, and room for either.
struct Buffers {
  std::string utf8;
  std::u16string utf16;
  std::string utf8Room;
  std::u16string utf16Room;
  UConverter *converter;  // of ICU, lives as long as the program
  ScopedDynBuf out;

  explicit Buffers(const std::string &text)
      : utf8(text), utf16(text.size(), u'\0'), utf8Room(text), utf16Room(utf16) {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(utf16.data(), Size(utf16), &length, utf8.data(), Size(utf8), &error);
    utf16.resize(static_cast<size_t>(length));
    converter = ucnv_open("UTF-8", &error);
  }

  template <typename String>
  static int32_t Size(const String &string) {
    return static_cast<int32_t>(string.size());
  }

  template <typename String>
  bool Convert(const char *from, const String &text, const char *to) {
    out.size = 0;
    return CodeSet_GenericToGenericDb(from, text.data(), text.size() * sizeof text[0], to,
                                      CODESET_STOP, &out);
  }
};

void AddConversions(Ratios *ratios, const Script &script) {
  const auto b = std::make_shared<Buffers>(script.text);
  const auto size = Buffers::Size<std::string>;
  const double goal = script.conversionGoal;

  std::string row = std::string("UTF-16 from ") + script.name;
  ratios->AddRow(row, {{"u_strFromUTF8", goal}, {"ucnv_toUChars", goal}});
  Ratios::Add(row, "lumen", [b] { return b->Convert("UTF-8", b->utf8, "UTF-16LE"); });
  Ratios::Add(row, "u_strFromUTF8", [=] {
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8(b->utf16Room.data(), size(b->utf8), nullptr, b->utf8.data(), size(b->utf8),
                  &error);
    return error;
  });
  Ratios::Add(row, "ucnv_toUChars", [=] {
    UErrorCode error = U_ZERO_ERROR;
    return ucnv_toUChars(b->converter, b->utf16Room.data(), size(b->utf8), b->utf8.data(),
                         size(b->utf8), &error);
  });

  row = std::string("UTF-16 to ") + script.name;
  ratios->AddRow(row, {{"u_strToUTF8", goal}, {"ucnv_fromUChars", goal}});
  Ratios::Add(row, "lumen", [b] { return b->Convert("UTF-16LE", b->utf16, "UTF-8"); });
  Ratios::Add(row, "u_strToUTF8", [=] {
    UErrorCode error = U_ZERO_ERROR;
    u_strToUTF8(b->utf8Room.data(), size(b->utf8), nullptr, b->utf16.data(),
                Buffers::Size(b->utf16), &error);
    return error;
  });
  Ratios::Add(row, "ucnv_fromUChars", [=] {
    UErrorCode error = U_ZERO_ERROR;
    return ucnv_fromUChars(b->converter, b->utf8Room.data(), size(b->utf8), b->utf16.data(),
                           Buffers::Size(b->utf16), &error);
  });
}

// ---- one byte a character --------------------------------------------------------------------

// Against a copy of as many bytes.
void AddOneByte(Ratios *ratios) {
  const auto b = std::make_shared<Buffers>(Scripts().front().text);
  const std::pair<const char *, const char *> pairs[] = {
      {"US-ASCII", "UTF-8"}, {"UTF-8", "US-ASCII"}, {"ISO-8859-1", "UTF-8"}};
  for (const auto &[from, to] : pairs) {
    const std::string row = std::string(from) + " to " + to;
    ratios->AddRow(row, {{"memcpy", 4}});
    Ratios::Add(row, "lumen", [b, from = from, to = to] { return b->Convert(from, b->utf8, to); });
    Ratios::Add(row, "memcpy",
                [b] { return memcpy(b->utf8Room.data(), b->utf8.data(), b->utf8.size()); });
  }
}

// ---- comparison ------------------------------------------------------------------------------

std::u16string ToUtf16(const std::string &text) {
  return Buffers(text).utf16;
}

void AddComparison(Ratios *ratios, const std::string &what, const std::string &a,
                   const std::string &b) {
  const std::string row = "ignoring case, " + what;
  ratios->AddRow(row, {{"u_memcasecmp", 1}});
  Ratios::Add(row, "lumen",
              [=] { return Unicode_CompareRange(a.c_str(), 0, -1, b.c_str(), 0, -1, true); });
  Ratios::Add(row, "u_memcasecmp", [a = ToUtf16(a), b = ToUtf16(b)] {
    const auto length = static_cast<int32_t>(std::min(a.size(), b.size()));
    return u_memcasecmp(a.data(), b.data(), length, U_FOLD_CASE_DEFAULT);
  });
}

// The text with all letters large that are one letter then, too.
std::string Upper(const std::string &text) {
  std::u16string units = ToUtf16(text);
  for (char16_t &unit : units) {
    if (!U16_IS_SURROGATE(unit)) unit = static_cast<char16_t>(u_toupper(unit));
  }
  std::string upper(units.size() * 3, '\0');
  UErrorCode error = U_ZERO_ERROR;
  int32_t length = 0;
  u_strToUTF8(upper.data(), Buffers::Size(upper), &length, units.data(), Buffers::Size(units),
              &error);
  upper.resize(static_cast<size_t>(length));
  return upper;
}

void AddComparisons(Ratios *ratios, const Script &script) {
  const std::string name = script.name, &text = script.text;
  AddComparison(ratios, name + " equal", text, text);
  AddComparison(ratios, name + " in other case", text, Upper(text));
  AddComparison(ratios, name + " differing", text + "a", Upper(text) + "b");
}

// ---- names -----------------------------------------------------------------------------------

// The peer is what one would build without the cache: a map of all names, exactly as they are.
void AddNames(Ratios *ratios) {
  const auto map = std::make_shared<std::unordered_map<std::string, StringEncoding>>();
  for (const EncodingRow &row : EncodingTableRows()) {
    for (const char *name = EncodingTableFirstName(row); *name != '\0';
         name = EncodingTableNextName(name)) {
      map->emplace(name, StringEncoding{row.encoding});
    }
  }
  const std::vector<std::string> names = {"UTF-8",        "UTF-16LE",  "ISO-8859-1", "latin1",
                                          "windows-1252", "Shift_JIS", "GB18030",    "KOI8-R"};
  auto next = [names, i = size_t{0}]() mutable -> const std::string & {
    return names[i++ % names.size()];
  };
  ratios->AddRow("remembered name", {{"unordered_map", 2}});
  Ratios::Add("remembered name", "lumen",
              [next]() mutable { return Unicode_EncodingNameToEnum(next().c_str()); });
  Ratios::Add("remembered name", "unordered_map",
              [map, next]() mutable { return map->find(next())->second; });
}

}  // namespace

int main(int argc, char **argv) {
  Ratios ratios;
  for (const Script &script : Scripts()) AddValidity(&ratios, script);
  for (const Script &script : Scripts()) AddConversions(&ratios, script);
  AddOneByte(&ratios);
  for (const Script &script : Scripts()) {
    for (const std::string_view name : {"European", "Japanese", "Russian", "path"}) {
      if (script.name == name) AddComparisons(&ratios, script);
    }
  }
  AddNames(&ratios);
  return ratios.Main(argc, argv);
}
