// trace.cpp -- running strace, and reading what it has written.

#include "tests/support/trace.h"

#include <sys/resource.h>

#include <regex>
#include <sstream>

#include "tests/support/scratchDir.h"

Trace::Trace(const std::string &text) {
  static const std::regex call(R"(^(\w+)\(([^,)]*).*)");
  const bool staged = text.find("memfd_create(") != text.npos;
  std::istringstream lines(text);
  std::map<std::string, int> all, counted;
  bool started = false;
  int identities = 0;
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, call)) continue;
    const std::string name = match[1];
    const int absolute = ++all[name];
    if (started) {
      if (name == "setresuid") identities++;
      if (staged && (identities == 3 || (identities == 4 && name == "setresuid"))) {
        staging.emplace_back(name, absolute);
        continue;
      }
      order.emplace_back(name, ++counted[name]);
      calls[order.back()] = {match[2], absolute};
    }
    started = started || line.find("ServiceImpl_Opener: PID") != line.npos;
  }
}

// strace must itself be root to leave the set-user-ID bit in force.
Launch Traced(const std::vector<std::string> &options) {
  // Closing one by one all that there may be takes long when each call is traced.
  Launch launch = OpenerLaunch(FileWith("traced"), [] {
    const rlimit few = {512, 512};
    setrlimit(RLIMIT_NOFILE, &few);
  });
  launch.user = 0;
  std::vector<std::string> command = {"/usr/bin/strace", "-u", "nobody", "-o", kTracePath};
  command.insert(command.end(), options.begin(), options.end());
  launch.argv.insert(launch.argv.begin(), command.begin(), command.end());
  return launch;
}

Outcome OutcomeWithFault(const std::string &call, const std::string &number,
                         const std::string &error, std::string *trace,
                         std::vector<std::string> options) {
  options.insert(options.end(), {"-e", "inject=" + call + ":error=" + error + ":when=" + number});
  const Outcome outcome = OutcomeOf(Traced(options));
  *trace = ReadFile(kTracePath);
  EXPECT_NE(trace->npos, trace->find("(INJECTED)")) << "the fault did not come";
  return outcome;
}
