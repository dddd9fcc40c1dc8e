// trace.cpp -- running strace, and reading what it has written.

#include "tests/support/trace.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <sstream>

Trace::Trace(const std::string &text) {
  static const std::regex call(R"(^(\w+)\(([^,)]*).*)");
  const bool staged = text.find("constructWorkingDir: ") != text.npos;
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

int Trace::Absolute(const Position &position) const {
  const auto call = calls.find(position);
  return call == calls.end() ? position.second : call->second.absolute;
}

// strace must itself be root to leave the set-user-ID bit in force.
Launch Traced(const std::vector<std::string> &options) {
  static const Fd file = FileWith("traced");
  lseek(file.Get(), 0, SEEK_SET);
  Launch launch = OpenerLaunch(file.Get());
  launch.user = 0;
  // Closing one by one all that there may be takes long when each call is traced.
  launch.adjust = [openArgument = launch.adjust] {
    openArgument();
    const rlimit few = {512, 512};
    setrlimit(RLIMIT_NOFILE, &few);
  };
  std::vector<std::string> command = {kStrace, "-u", "nobody", "-o", kTracePath};
  command.insert(command.end(), options.begin(), options.end());
  launch.argv.insert(launch.argv.begin(), command.begin(), command.end());
  return launch;
}

std::string Injection(const Position &absolute, int error) {
  return "inject=" + absolute.first + ":error=" + strerrorname_np(error) +
         ":when=" + std::to_string(absolute.second);
}
