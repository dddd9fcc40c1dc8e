// lockTool.h -- what the files of lumen-locks share: its exit statuses, its commands and its messages.
#pragma once

#include <getopt.h>

#include <string>

// Like those of env(1), nohup(1) and timeout(1): the tool's own failures are not taken for COMMAND's.
enum Status {
  kOk = 0,
  kInUse = 3,      // show: somebody holds the lock or waits for it
  kOnlyDead = 4,   // show: nobody does, but something is left of others
  kTimedOut = 75,  // run: EX_TEMPFAIL of sysexits, unless another one was asked for
  kFailed = 125,
  kNotExecutable = 126,
  kNotFound = 127,
  kSignalBase = 128,
};

// Prints a line on standard error; returns `status`.
int Complain(const std::string &what, int status = kFailed);
int WrongUsage(const std::string &what);

// getopt_long; stops at the first word that is not an option.  Returns -1 at the end, and '?' after a
// complaint about an unknown option or a missing value.
int NextOption(int argc, char **argv, const option *allowed);

// Whether a lock may be asked for by this path; complains otherwise.
bool IsLockable(const std::string &file);

// The commands; each returns the exit status, or throws std::system_error.  argv[0] is the command.
int MainShow(int argc, char **argv);
int MainRun(int argc, char **argv);
int MainClean(int argc, char **argv);
int PrintHelp();
