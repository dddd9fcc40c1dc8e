// report.cpp -- results as lines or as JSON (RFC 8259).
// Tests: tests/system/check_test.cpp

#include "checker/report.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "lib/public/displayText.h"
#include "lib/public/escape.h"
#include "lib/public/str.h"

namespace {

// As users see it and as scripts read it, in the order of CheckState.
constexpr const char *kLabels[] = {"ok   ", "FAIL ", "?    "};
constexpr const char *kNames[] = {"ok", "fail", "unknown"};

// Paths and identifiers may hold anything, a terminal's commands included.
void PrintClean(const char *text) {
  const HeapStr line(DisplayText_Line(text));
  fputs(line.get(), stdout);
}

// Whether a command, or null, is printed as it is: with characters replaced, it would act on something
// else.
bool IsPrintable(const char *command) {
  if (command == nullptr) return true;
  const HeapStr line(DisplayText_Line(command));
  return strcmp(line.get(), command) == 0;
}

void PrintJsonMember(const char *name, const char *value) {
  printf("\"%s\":", name);
  if (value == nullptr) {
    fputs("null", stdout);
  } else {
    const HeapStr json(DisplayText_Json(value));
    fputs(json.get(), stdout);
  }
}

}  // namespace

HeapStr Text(const char *format, ...) {
  va_list args;
  va_start(args, format);
  HeapStr text(Str_SafeVasprintf(nullptr, format, args));
  va_end(args);
  return text;
}

HeapStr Quoted(const char *text) {
  HeapStr quoted(Escape_Sh(text, strlen(text), nullptr));
  if (quoted == nullptr) Fatal_MemAlloc();
  return quoted;
}

void Report::PrintLines(CheckState state, const char *check, const char *detail,
                        const char *mend) const {
  printf("%s %s: ", kLabels[static_cast<size_t>(state)], check);
  PrintClean(detail);
  if (mend != nullptr) {
    printf("\n          %s", mend);
  }
  putchar('\n');
}

void Report::PrintObject(CheckState state, const char *check, const char *detail,
                         const char *mend) const {
  fputs(count_ == 0 ? "[\n " : ",\n ", stdout);
  putchar('{');
  PrintJsonMember("check", check);
  putchar(',');
  PrintJsonMember("state", kNames[static_cast<size_t>(state)]);
  putchar(',');
  PrintJsonMember("detail", detail);
  putchar(',');
  PrintJsonMember("mend", mend);
  putchar('}');
}

void Report::Add(CheckState state, const char *check, const HeapStr &detail, const HeapStr &mend) {
  const char *const command = IsPrintable(mend.get()) ? mend.get() : nullptr;
  if (json_) {
    PrintObject(state, check, detail.get(), command);
  } else {
    PrintLines(state, check, detail.get(), command);
  }
  count_++;
  failed_ |= state == CheckState::kFail;
  unknown_ |= state == CheckState::kUnknown;
}

bool Report::End() const {
  if (json_) fputs(count_ == 0 ? "[]\n" : "\n]\n", stdout);
  return fflush(stdout) == 0 && ferror(stdout) == 0;
}
