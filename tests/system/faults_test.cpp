// faults_test.cpp -- every system call of a hand-off fails once in the installed opener: strace(1) injects
// the errors into the running set-user-ID program.  faults.txt has the calls and the expected results.  A
// run without faults shows which calls there are; one without a row fails the test.

#include <fstream>
#include <set>
#include <sstream>

#include "tests/support/trace.h"

namespace {

struct Row {
  std::string run, call, number, error;
  int status = 0;
  std::string records;

  Position At() const { return {call, stoi(number)}; }
};

// Those of one run.
std::vector<Row> Rows(const std::string &run) {
  std::vector<Row> rows;
  std::ifstream file(LUMEN_FAULTS);
  for (std::string line; std::getline(file, line);) {
    Row row;
    if (line.starts_with("  ")) {
      rows.back().records += line.substr(2) + "\n";
    } else if (std::istringstream(line) >> row.run >> row.call >> row.number >> row.error >>
               row.status) {
      rows.push_back(row);
    }
  }
  std::erase_if(rows, [&](const Row &row) { return row.run != run; });
  EXPECT_FALSE(rows.empty());
  return rows;
}

std::string NumberOf(const std::string &error) {
  int number = 1000;
  while (number > 0 && (strerrorname_np(number) == nullptr || strerrorname_np(number) != error))
    number--;
  return std::to_string(number);
}

std::string Replaced(const std::string &text, const std::string &pattern, const std::string &by) {
  return std::regex_replace(text, std::regex(pattern), by);
}

std::string ExpectedRecords(const Row &row) {
  return Replaced(Replaced(row.records, R"(\{errno\})", NumberOf(row.error)), R"(\{daemon\})",
                  kStagedDaemon);
}

class Faults : public ProductTest {
 protected:
  static Trace Baseline() {
    EXPECT_EQ(kDelivered, OutcomeOf(Traced()));
    return Trace(ReadFile(kTracePath));
  }

  // No row is needed for calls that cannot fail, whose failure changes nothing, or that belong to the log.
  static void ExpectRowForEachCall(const Trace &trace, const std::vector<Row> &rows) {
    std::set<Position> known;
    for (const Row &row : rows) known.insert(row.At());
    for (const Position &call : trace.order) {
      if (call == Position{"setresuid", 9}) return;  // the second pass of a server
      // A sanitizer ends the process by itself if it gets no memory.
      static const std::set<std::string> without = {
          "geteuid", "getuid", "rt_sigprocmask", "write", "exit_group", "brk", "mmap"};
      EXPECT_TRUE(without.contains(call.first) || known.contains(call))
          << call.first << ", number " << call.second << ", has no row";
    }
  }

  static void ExpectFault(const Row &row, const Trace &trace,
                          const std::vector<std::string> &options = {}) {
    if (row.error == "-") return;
    SCOPED_TRACE(row.call + " " + row.number + " " + row.error);
    const auto call = trace.calls.find(row.At());
    const std::string number =
        call == trace.calls.end() ? row.number : std::to_string(call->second);
    Outcome outcome = OutcomeWithFault(row.call, number, row.error, options);
    outcome.records = Replaced(outcome.records, R"((Child|close|fd) \d+)", "$1 N");
    EXPECT_EQ((Outcome{row.status, ExpectedRecords(row)}), outcome);
    // All locks are free: another opener gets them.
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith(""))));
    EXPECT_EQ(1U, Services().size());
  }
};

TEST_F(Faults, OfTheClient) {
  ASSERT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith(""))));
  const Trace trace = Baseline();
  ExpectRowForEachCall(trace, Rows("client"));
  for (const Row &row : Rows("client")) ExpectFault(row, trace);
}

TEST_F(Faults, OfTheServer) {
  const Trace trace = Baseline();
  const std::string text = ReadFile(kTracePath);
  ExpectRowForEachCall(trace, Rows("server"));
  for (const Row &row : Rows("server")) {
    Reset();
    ExpectFault(row, trace);
  }
  // Start lock and listener are closed before the user may stop the opener again.
  std::string all;
  for (const Position &call : trace.order) all += call.first + " ";
  EXPECT_NE(std::string::npos, all.find("close close setresuid setreuid ")) << all;
  // The socket has its mode before it listens, and the shortest possible queue.
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(listen\(\d+, 0\))")));
  std::string names;
  for (size_t i = 0; i < trace.order.size() && trace.order[i].first != "listen"; i++)
    names += trace.order[i].first + " ";
  EXPECT_TRUE(
      names.ends_with("socket getsockopt openat flock connect openat flock unlink bind chmod "))
      << names;
}

TEST_F(Faults, OfTheChildrenThatBecomeTheService) {
  for (const Row &row : Rows("child")) {
    Reset();
    InstallProbe();
    ExpectFault(row, Trace(""), {"-f", "--detach-on=execve"});
    // In any case the service has 0 to 2 and its own two.
    EXPECT_EQ(5U, Count(ReadFile(kProbeReport), "\nfd "));
  }
}

}  // namespace
