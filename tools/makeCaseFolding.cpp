// makeCaseFolding.cpp -- writes lib/unicode/caseFolding.inc from the data of this host's ICU.
//
//   build/dev/tools/makeCaseFolding >lib/unicode/caseFolding.inc

#include <unicode/uchar.h>

#include <cstdint>
#include <cstdio>

namespace {

constexpr UChar32 kLimit = 0x110000;

int32_t Delta(UChar32 c) {
  return u_foldCase(c, U_FOLD_CASE_DEFAULT) - c;
}

// The last character of the row that begins at `first`: every step-th character has the same delta, and
// those in between have none.
UChar32 LastOfRow(UChar32 first, int step) {
  UChar32 last = first;
  while (last + step < kLimit && Delta(last + step) == Delta(first) &&
         (step == 1 || Delta(last + 1) == 0)) {
    last += step;
  }
  return last;
}

}  // namespace

int main() {
  std::printf("// caseFolding.inc -- simple case folding of Unicode " U_UNICODE_VERSION
              ".  Made by tools/makeCaseFolding.cpp.\n"
              "//\n"
              "// {first, last, step, delta},\n"
              "\n"
              "// clang-format off\n");
  for (UChar32 c = 0; c < kLimit; c++) {
    if (Delta(c) == 0) continue;
    const UChar32 dense = LastOfRow(c, 1);
    const UChar32 sparse = LastOfRow(c, 2);
    const int step = sparse > dense ? 2 : 1;
    const UChar32 last = step == 2 ? sparse : dense;
    std::printf("{0x%05X, 0x%05X, %d, %d},\n", static_cast<unsigned>(c),
                static_cast<unsigned>(last), step, Delta(c));
    c = last;
  }
  std::printf("// clang-format on\n");
  return std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
}
