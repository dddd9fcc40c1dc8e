// capture.h -- runs a piece of code and returns what it wrote to the log descriptor.
#pragma once

#include <functional>
#include <string>

// What `body`, run in this process, writes to standard output, where the log goes by default.
std::string CaptureOutput(const std::function<void()> &body);

// How a child process that ran `body` ended, and what it wrote to standard output.
struct ChildResult {
  std::string output;
  int exitStatus = -1;  // if it exited; 42 if body returned
  int signal = 0;       // if it was killed
};
ChildResult RunInChild(const std::function<void()> &body);

// Runs `body` in a child process; failed expectations in it fail the test here.
void InChild(const std::function<void()> &body);

// The records without their stamps "YYYY-MM-DDThh:mm:ss.mmm| ".
std::string WithoutStamps(const std::string &records);

// What `body` logs in this process, without stamps.
std::string LogOf(const std::function<void()> &body);

// The records, without stamps, of a child process that runs `body` and must end by Panic (exit status 1).
std::string FatalText(const std::function<void()> &body);
