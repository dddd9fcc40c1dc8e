// lockTool.h -- what the files of lumen-locks share: its exit statuses, its commands and its messages.
#pragma once

#include <getopt.h>

#include <string>

// As env(1), nohup(1) and timeout(1) have them: what the tool itself has to say stays out of the way
// of COMMAND's own statuses.
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

// getopt_long, which stops at the first word that is no option; what is no option of this command, or
// lacks its value, is complained about.  '?' then, -1 at the end.
int NextOption(int argc, char **argv, const option *allowed);

// Whether a lock may be asked for by this path; complains otherwise.
bool IsLockable(const std::string &file);

// The commands, each a status.  argv[0] is the command.
int MainShow(int argc, char **argv);
int MainRun(int argc, char **argv);
int MainClean(int argc, char **argv);
int PrintHelp();
