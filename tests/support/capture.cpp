#include "tests/support/capture.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

#include "fd.h"

namespace {

// Everything in the unlinked file behind `fd`.
std::string Contents(int fd) {
  std::string text;
  char piece[4096];
  off_t at = 0;
  for (ssize_t got; (got = pread(fd, piece, sizeof piece, at)) > 0; at += got) {
    text.append(piece, static_cast<size_t>(got));
  }
  return text;
}

Fd ScratchFile() {
  FILE *const file = tmpfile();
  Fd fd(file == nullptr ? -1 : dup(fileno(file)));
  if (file != nullptr) fclose(file);
  if (!fd) abort();
  return fd;
}

}  // namespace

std::string CaptureOutput(const std::function<void()> &body) {
  fflush(stdout);
  const Fd saved(dup(STDOUT_FILENO));
  const Fd file = ScratchFile();
  dup2(file.Get(), STDOUT_FILENO);
  body();
  dup2(saved.Get(), STDOUT_FILENO);
  return Contents(file.Get());
}

ChildResult RunInChild(const std::function<void()> &body) {
  fflush(nullptr);
  const Fd file = ScratchFile();
  const pid_t child = fork();
  if (child == 0) {
    dup2(file.Get(), STDOUT_FILENO);
    body();
    _exit(42);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) abort();
  ChildResult result;
  result.output = Contents(file.Get());
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

std::string WithoutStamps(const std::string &records) {
  static const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}\| )");
  return std::regex_replace(records, stamp, "");
}

std::string FatalText(const std::function<void()> &body) {
  const ChildResult result = RunInChild(body);
  EXPECT_EQ(1, result.exitStatus) << "signal " << result.signal << ", output " << result.output;
  return WithoutStamps(result.output);
}
