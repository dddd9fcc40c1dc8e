#include "tests/support/capture.h"

#include <sys/wait.h>

#include <memory>

#include "tests/support/test.h"

namespace {

using Scratch = std::unique_ptr<FILE, int (*)(FILE *)>;

// From now on what goes to standard output goes to the file.
void Redirect(const Scratch &file) {
  fflush(stdout);
  if (file == nullptr || dup2(fileno(file.get()), STDOUT_FILENO) < 0) abort();
}

std::string Contents(const Scratch &file) {
  const int fd = fileno(file.get());
  std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
  return pread(fd, text.data(), text.size(), 0) == std::ssize(text) ? text : "(not to be read)";
}

}  // namespace

std::string CaptureOutput(const std::function<void()> &body) {
  const Fd saved(dup(STDOUT_FILENO));
  const Scratch file(tmpfile(), fclose);
  Redirect(file);
  body();
  dup2(saved.Get(), STDOUT_FILENO);
  return Contents(file);
}

ChildResult RunInChild(const std::function<void()> &body) {
  fflush(nullptr);
  const Scratch file(tmpfile(), fclose);
  const pid_t child = fork();
  if (child == 0) {
    Redirect(file);
    body();
    _exit(42);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) abort();
  ChildResult result;
  result.output = Contents(file);
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
