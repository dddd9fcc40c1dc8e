// trace.cpp -- runs strace, and reads its output.

#include "tests/support/trace.h"

#include <sys/resource.h>

#include <sstream>

Trace::Trace(const std::string &text) {
  static const std::regex call(R"(^(\w+)\(.*)");
  std::istringstream lines(text);
  std::map<std::string, int> all, counted;
  bool started = false, inStaging = false;
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, call)) continue;
    const std::string name = match[1];
    const int absolute = ++all[name];
    inStaging =
        line.find("\"" + kInstallParent + "\"") != line.npos || (inStaging && name != "setresuid");
    if (inStaging) {
      staging.emplace_back(name, absolute);
    } else if (started) {
      order.emplace_back(name, ++counted[name]);
      calls[order.back()] = absolute;
    }
    started = started || line.find("ServiceImpl_Opener: PID") != line.npos;
  }
}

// The set-user-ID bit has an effect under strace only if strace itself is root.
Launch Traced(const std::vector<std::string> &options) {
  // Some rows make the children close every possible descriptor, each by a traced call.
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
                         const std::string &error, std::vector<std::string> options) {
  options.insert(options.end(), {"-e", "inject=" + call + ":error=" + error + ":when=" + number});
  const Outcome outcome = OutcomeOf(Traced(options));
  EXPECT_LT(0U, Count(ReadFile(kTracePath), "(INJECTED)")) << "the fault did not come";
  return outcome;
}

namespace {

Launch Stopped(const std::string &tracePath, const std::string &call, const std::string &path) {
  std::filesystem::remove(tracePath);
  return Traced({"-o", tracePath, "-f", "--detach-on=execve", "-P", path, "-e", "trace=" + call,
                 "-e", "inject=" + call + ":signal=SIGSTOP"});
}

}  // namespace

StoppedOpener::StoppedOpener(const std::string &call, const std::string &path)
    : tracePath_(kTracePath + "." + call), process_(Stopped(tracePath_, call, path)) {}

std::vector<pid_t> StoppedOpener::Stops() const {
  static const std::regex stop(R"((\d+) +--- stopped by SIGSTOP ---)");
  const std::string trace = ReadFile(tracePath_);
  std::vector<pid_t> pids;
  for (std::sregex_iterator at(trace.begin(), trace.end(), stop), end; at != end; ++at) {
    pids.push_back(std::stoi((*at)[1]));
  }
  return pids;
}

bool StoppedOpener::AwaitStop() const {
  return Eventually([this] { return Stops().size() > continued_; });
}

void StoppedOpener::Continue() {
  Check(kill(Stops().at(continued_++), SIGCONT) == 0, "kill");
}

Outcome StoppedOpener::ContinueToEnd() {
  EXPECT_TRUE(Eventually([this] {
    if (Stops().size() > continued_) Continue();
    return !process_.Running();
  }));
  return Finish(&process_);
}
