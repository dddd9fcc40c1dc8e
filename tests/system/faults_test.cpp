// faults_test.cpp -- every system call on the way of a hand-off fails once, in the opener as
// installed: strace(1) injects the error into the running set-user-ID program.
//
// A row names a call by its position among those of its name after the opener's first record; what
// the C library does before that is not counted.  A run without faults shows which calls there are,
// and a call without a row fails the test.  An injected call does not happen: a descriptor whose
// close "fails" stays open, so the close that ends a pipe somebody reads has no row.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <span>

#include "tests/support/product.h"
#include "tests/support/scratchDir.h"
#include "tests/support/trace.h"

namespace {

struct Row {
  const char *call;
  int nth;
  int error;
  int status;
  const char *records;  // {errno}, and {fd} for the first argument of the call
};

#define PICK(what) "Warning: ServiceImplPickSockSide: " what " errno {errno}.\n"
#define CLOSE "Warning: ServiceImplClose: close {fd} errno {errno}.\n"
#define DAEMONIZE(what) "Warning: Hostinfo_Daemonize: " what "{errno}.\n"

// With a service running: from the first record to the end.
constexpr Row kClientRows[] = {
    {"setresuid", 1, EAGAIN, 1, "Warning: ServiceImpl_PrivRaise: seteuid errno {errno}.\n"},
    {"socket", 1, EMFILE, 1, PICK("socket")},
    {"openat", 1, EMFILE, 1, PICK("open")},
    {"flock", 1, EINTR, 1, PICK("open")},
    {"connect", 1, EACCES, 1, PICK("connect")},
    {"connect", 1, EINTR, 1, PICK("connect")},
    {"close", 1, EIO, 1, CLOSE},
    {"setresuid", 2, EAGAIN, 1, "Warning: ServiceImpl_PrivLower: seteuid errno {errno}.\n"},
    {"getsockopt", 1, ENOBUFS, 1, "Warning: ServiceImplOpener: setsockopt errno {errno}.\n"},
    {"read", 1, EIO, 1, "Warning: ServiceImplReadOne: read errno {errno}.\n"},
    {"read", 1, EINTR, 1, "Warning: ServiceImplReadOne: read errno {errno}.\n"},
    {"read", 1, ECONNRESET, 0, ""},  // a listener that has gone: begin again
    {"sendmsg", 1, EIO, 1, "Warning: ServiceImplSendFd: sendmsg errno {errno}.\n"},
    {"sendmsg", 1, EPIPE, 1, ""},  // a service that has gone
    {"read", 2, EIO, 1, "Warning: ServiceImplReadOne: read errno {errno}.\n"},
    {"read", 2, ECONNRESET, 1, ""},
    {"close", 2, EIO, 1, CLOSE},
};

// Without a service: from the first record to the beginning of the second pass.
constexpr Row kServerRows[] = {
    {"setresuid", 1, EAGAIN, 1, "Warning: ServiceImpl_PrivRaise: seteuid errno {errno}.\n"},
    {"socket", 1, ENFILE, 1, PICK("socket")},
    {"openat", 1, ENOSPC, 1, PICK("open")},
    {"flock", 1, ENOLCK, 1, PICK("open")},
    {"connect", 1, ENOBUFS, 1, PICK("connect")},
    {"unlink", 1, EROFS, 1, PICK("unlink")},
    {"bind", 1, ENOSPC, 1, PICK("bind")},
    {"chmod", 1, EPERM, 1, PICK("chmod")},
    {"listen", 1, EADDRINUSE, 1, PICK("listen")},
    {"close", 1, EIO, 1, CLOSE},  // of the lock file
    {"setresuid", 2, EAGAIN, 1, "Warning: ServiceImpl_PrivLower: seteuid errno {errno}.\n"},
    {"getsockopt", 1, ENOBUFS, 1, "Warning: ServiceImplOpener: setsockopt errno {errno}.\n"},
    {"pipe2", 1, EMFILE, 1, "Warning: ServiceImplDaemonStart: pipe errno {errno}.\n"},
    {"setresuid", 3, EAGAIN, 1, "Warning: ServiceImpl_PrivRaise: seteuid errno {errno}.\n"},
    {"pipe2", 2, ENFILE, 1, DAEMONIZE("Couldn't create pipe, error ")},
    {"fcntl", 1, EIO, 1, DAEMONIZE("Couldn't set close-on-exec for fd {fd}, error ")},
    {"rt_sigaction", 1, EINVAL, 0, ""},  // only asked; nothing is changed then
    {"clone", 1, EAGAIN, 1, DAEMONIZE("Couldn't fork first child, error ")},
    // The error pipe tells the outcome all the same, and only an error that it tells counts.
    {"wait4", 1, EINTR, 0, ""},
    {"wait4", 1, ECHILD, 0, ""},
    {"read", 1, EINTR, 0, ""},
    {"read", 1, EIO, 0, ""},
    {"close", 3, EIO, 0, ""},
    {"setresuid", 4, EAGAIN, 1, "Warning: ServiceImpl_PrivLower: seteuid errno {errno}.\n"},
    {"close", 4, EIO, 1, CLOSE},  // of the status pipe's read end
    {"close", 5, EIO, 1, CLOSE},  // of the listening socket
};

// In the children of the start; these names occur in no other place, or harmlessly.
constexpr Row kChildRows[] = {
    {"setsid", 1, EPERM, 1,
     DAEMONIZE("Couldn't create new session, error ") "Warning: Hostinfo_Daemonize: Child N exited "
                                                      "with error 1.\n"},
    {"chdir", 1, EACCES, 1,
     DAEMONIZE("Couldn't chdir to /, error ") "Warning: Hostinfo_Daemonize: Child could not exec "
                                              "{daemon}, read 4, error {errno}.\n"},
    // What follows is done as far as it goes.
    {"setitimer", 2, EINVAL, 0, ""},
    {"rt_sigaction", 15, EINVAL, 0, ""},
    {"close_range", 1, ENOSYS, 0, ""},
    {"rt_sigprocmask", 1, EINVAL, 0, ""},
    {"dup2", 3, EBUSY, 0, ""},  // the third: those that check signatures have two
};

// Calls that cannot fail, change nothing when they do, or belong to the log.
const std::set<std::string> kWithoutRow = {"geteuid", "getuid", "write", "exit_group", "brk"};

void Replace(std::string *text, const std::string &part, const std::string &with) {
  for (size_t at; (at = text->find(part)) != text->npos;) text->replace(at, part.size(), with);
}

std::string ExpectedRecords(const Row &row, const Trace &trace) {
  std::string text = row.records;
  const auto call = trace.calls.find({row.call, row.nth});
  Replace(&text, "{fd}", call == trace.calls.end() ? "" : call->second.argument);
  Replace(&text, "{errno}", std::to_string(row.error));
  Replace(&text, "{daemon}", kStagedDaemon);
  return text;
}

class Faults : public ProductTest {
 protected:
  void SetUp() override {
    ProductTest::SetUp();
    ASSERT_EQ(0, access(kStrace.c_str(), X_OK)) << "strace is needed";
  }

  static Outcome OutcomeWith(const std::vector<std::string> &options) {
    Outcome outcome = OutcomeOf(Traced(options));
    static const std::regex child(R"(Child \d+ exited)");
    outcome.records = std::regex_replace(outcome.records, child, "Child N exited");
    return outcome;
  }

  static Trace Baseline() {
    EXPECT_EQ(kDelivered, OutcomeWith({}));
    return Trace(ReadFile(kTracePath));
  }

  static void ExpectRowForEachCall(const Trace &trace, std::span<const Row> rows, size_t upTo) {
    for (size_t i = 0; i < upTo; i++) {
      const std::string &call = trace.order[i].first;
      const int nth = trace.order[i].second;
      if (kWithoutRow.contains(call)) continue;
      EXPECT_TRUE(std::ranges::any_of(
          rows, [&](const Row &row) { return row.call == call && row.nth == nth; }))
          << call << ", number " << nth << ", has no row";
    }
  }

  static void ExpectFault(const Row &row, const Trace &trace, std::vector<std::string> options) {
    options.insert(options.end(),
                   {"-e", Injection({row.call, trace.Absolute({row.call, row.nth})}, row.error)});
    SCOPED_TRACE(options.back());
    EXPECT_EQ((Outcome{row.status, ExpectedRecords(row, trace)}), OutcomeWith(options));
    EXPECT_NE(std::string::npos, ReadFile(kTracePath).find("(INJECTED)"))
        << "the fault did not come";
    // Nothing is held: the next one gets the lock.
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("").Get())));
    EXPECT_EQ(1U, Services().size());
  }
};

TEST_F(Faults, OfTheClient) {
  ASSERT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("").Get())));
  const Trace trace = Baseline();
  ExpectRowForEachCall(trace, kClientRows, trace.order.size());
  for (const Row &row : kClientRows) ExpectFault(row, trace, {});
}

TEST_F(Faults, OfTheServer) {
  const Trace trace = Baseline();
  const auto secondPass = std::ranges::find(trace.order, Position{"setresuid", 5});
  ASSERT_NE(trace.order.end(), secondPass);
  std::vector<Row> rows(std::begin(kServerRows), std::end(kServerRows));
  rows.push_back({"close", 2, EIO, 0, ""});  // see above: only to say that there is such a call
  ExpectRowForEachCall(trace, rows, static_cast<size_t>(secondPass - trace.order.begin()));
  for (const Row &row : kServerRows) {
    Reset();
    ExpectFault(row, trace, {});
  }
}

TEST_F(Faults, OfTheChildrenThatBecomeTheService) {
  const Trace trace("");
  for (const Row &row : kChildRows) {
    Reset();
    // Up to exec; each process has a count of its own.
    ExpectFault(row, trace, {"-f", "--detach-on=execve"});
  }
}

// What happens only when two things go wrong, or all calls of a name fail.
TEST_F(Faults, ThatComeTogether) {
  const std::string daemonize = "Warning: Hostinfo_Daemonize: ";
  const std::string killed = daemonize + "Child N exited with signal " + std::to_string(SIGKILL);
  EXPECT_EQ((Outcome{1, killed + ".\n"}),
            OutcomeWith({"-f", "--detach-on=execve", "-e", "inject=setsid:signal=SIGKILL"}));

  // A report that an interrupted read does not lose.
  Reset();
  std::ofstream(kBundleDaemon) << "#!/Library/no such interpreter\n";
  Sign(kBundleDaemon, "Zephrin Lumen Client Services");
  const Outcome noProgram = {1, daemonize + "Child could not exec " + kStagedDaemon +
                                    ", read 4, error " + std::to_string(ENOENT) + ".\n"};
  EXPECT_EQ(noProgram, OutcomeWith({}));
  const Trace trace(ReadFile(kTracePath));
  EXPECT_EQ(noProgram,
            OutcomeWith({"-e", Injection({"read", trace.Absolute({"read", 1})}, EINTR)}));

  // A kernel without close_range.
  Reset();
  InstallDaemon("LUMEN_PROBE");
  EXPECT_EQ(kDelivered,
            OutcomeWith({"-f", "--detach-on=execve", "-e", "inject=close_range:error=ENOSYS"}));
  const std::string report = ReadFile(kProbeReport);
  EXPECT_EQ(5U, Count(report, "\nfd ")) << report;
}

TEST_F(Faults, TheListenerIsMadeReadyBeforeItListens) {
  const Trace trace = Baseline();
  std::string names;
  for (size_t i = 0; i < trace.order.size() && trace.order[i].first != "listen"; i++)
    names += trace.order[i].first + " ";
  EXPECT_TRUE(names.ends_with("flock connect unlink bind chmod ")) << names;
}

}  // namespace
