// capture.h -- runs a piece of code and returns what it wrote to the log descriptor.
#pragma once

#include <functional>
#include <string>

// What `body` writes to standard output, where the log goes by default.  The code runs in this
// process.
std::string CaptureOutput(const std::function<void()> &body);

// How a child process that ran `body` ended, and what it wrote to standard output.
struct ChildResult {
  std::string output;
  int exitStatus = -1;  // of a child that exited; 42 when body returned
  int signal = 0;       // of a child that was killed
};
ChildResult RunInChild(const std::function<void()> &body);

// Runs `body` in a child process, to its end; what it expects in vain fails here.
void InChild(const std::function<void()> &body);

// The text after the stamps "YYYY-MM-DDThh:mm:ss.mmm| " of each record.
std::string WithoutStamps(const std::string &records);

// What `body` logs in this process, without stamps.
std::string LogOf(const std::function<void()> &body);

// The log output, without stamps, of a child that must have ended by Panic (exit status 1).
std::string FatalText(const std::function<void()> &body);
