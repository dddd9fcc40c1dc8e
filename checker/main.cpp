// main.cpp -- lumen-opener-check: why a hand-off works on this machine, or why not.
//
//   lumen-opener-check [--json] [OPENER]
//
// Goes through what the opener depends on, in the opener's order and by the opener's own procedures, and
// prints for each whether it holds and which command mends it.  Changes nothing and needs no privileges;
// as root it sees more.
//
// Root may run it on a bundle that users can write to.  So it opens nothing there but regular files and
// folders, parses them in the opener's unprivileged process, quotes every path in a command, and prints no
// command that follows a link of a user's or makes a program of a user's set-user-ID.
// Tests: tests/system/check_test.cpp

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "checker/checks.h"
#include "lib/public/posix.h"
#include "opener/startup.h"

namespace {

enum Status { kAllHolds = 0, kSomethingFails = 1, kNotKnown = 2 };

constexpr char kUsage[] =
    "usage: lumen-opener-check [--json] [OPENER]\n"
    "       lumen-opener-check --help | --version\n"
    "\n"
    "Checks everything that a hand-off by the program OPENER depends on, in the opener's order.\n"
    "Prints a line for each check: ok, FAIL, or ? (not known; root sees more). Below a FAIL is "
    "the\n"
    "command that mends it, if there is one. Without OPENER, the program checked is\n"
    "  " LUMEN_OPENER
    "\n"
    "\n"
    "Exit status: 0 everything holds, 1 something fails, 2 wrong usage or not everything is "
    "known.\n";

// The path less its last three components: what the opener takes for the root of its bundle.
HeapStr BundleOf(const char *opener) {
  HeapStr bundle = Heap_SafeStrdup(opener);
  for (int up = 0; up < 3; up++) {
    char *const slash = strrchr(bundle.get(), '/');
    if (slash == nullptr) return nullptr;
    *slash = '\0';
  }
  return bundle;
}

void CheckAll(const char *path, Report *report) {
  const HeapStr opener(Posix_RealPath(path));
  if (opener == nullptr) {
    report->Fail("opener", PathAndError(path, errno), nullptr);
    return;
  }
  const HeapStr bundle = BundleOf(opener.get());
  if (bundle == nullptr) {
    report->Fail("opener", Text("%s does not lie three levels below a bundle's root", opener.get()),
                 nullptr);
    return;
  }
  // As the opener: a limit of a file's size is an error, and no signal.
  IgnoreWriteSignals();
  const CheckSubject subject = {opener.get(), bundle.get(), geteuid() == 0};
  CheckProgram(subject, report);
  CheckRendezvous(subject, report);
  CheckStaging(subject, report);
}

int Print(const char *text) {
  return fputs(text, stdout) >= 0 && fflush(stdout) == 0 ? kAllHolds : kNotKnown;
}

int Misused() {
  fputs(kUsage, stderr);
  return kNotKnown;
}

int Run(bool json, const char *opener) {
  Report report(json);
  CheckAll(opener, &report);
  if (!report.End()) {
    fprintf(stderr, "lumen-opener-check: standard output: %s\n", strerror(errno));
    return kNotKnown;
  }
  if (report.AnyFailed()) return kSomethingFails;
  return report.AnyUnknown() ? kNotKnown : kAllHolds;
}

}  // namespace

int main(int argc, char **argv) {
  enum : int { kJson = 1, kVersion };
  constexpr option kOptions[] = {{"json", no_argument, nullptr, kJson},
                                 {"version", no_argument, nullptr, kVersion},
                                 {"help", no_argument, nullptr, 'h'},
                                 {}};
  bool json = false;
  for (int c = 0; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
    switch (c) {
      case kJson:
        json = true;
        break;
      case kVersion:
        return Print("lumen-opener-check " LUMEN_VERSION "\n");
      case 'h':
        return Print(kUsage);
      default:
        return Misused();
    }
  }
  if (argc - optind > 1) return Misused();
  return Run(json, optind < argc ? argv[optind] : LUMEN_OPENER);
}
