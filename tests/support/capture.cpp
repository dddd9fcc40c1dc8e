#include "tests/support/capture.h"

#include <sys/wait.h>

#include "tests/support/test.h"

namespace {

// From now on what goes to standard output goes to the file.
void Redirect(const Fd &file) {
  fflush(stdout);
  if (dup2(file.Get(), STDOUT_FILENO) < 0) abort();
}

}  // namespace

std::string CaptureOutput(const std::function<void()> &body) {
  const Fd saved(dup(STDOUT_FILENO));
  const Fd file = FileWith("");
  Redirect(file);
  body();
  dup2(saved.Get(), STDOUT_FILENO);
  return ContentOf(file);
}

ChildResult RunInChild(const std::function<void()> &body) {
  fflush(nullptr);
  const Fd file = FileWith("");
  const pid_t child = fork();
  if (child == 0) {
    Redirect(file);
    body();
    _exit(42);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) abort();
  ChildResult result;
  result.output = ContentOf(file);
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

void InChild(const std::function<void()> &body) {
  const ChildResult child = RunInChild([&] {
    body();
    fflush(stdout);
    if (testing::Test::HasFailure()) _exit(1);
  });
  EXPECT_EQ(42, child.exitStatus) << child.output;
}

std::string WithoutStamps(const std::string &records) {
  static const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\| )");
  return std::regex_replace(records, stamp, "");
}

std::string LogOf(const std::function<void()> &body) {
  return WithoutStamps(CaptureOutput(body));
}

std::string FatalText(const std::function<void()> &body) {
  const ChildResult result = RunInChild(body);
  EXPECT_EQ(1, result.exitStatus) << "signal " << result.signal << ", output " << result.output;
  return WithoutStamps(result.output);
}
