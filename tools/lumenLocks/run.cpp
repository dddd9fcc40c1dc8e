// run.cpp -- takes the lock, runs COMMAND, and releases the lock.
// Tests: tests/system/lumenLocks_test

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <system_error>

#include "lib/public/fileLock.h"
#include "lib/public/heap.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/msgList.h"
#include "tools/lumenLocks/command.h"
#include "tools/lumenLocks/entries.h"
#include "tools/lumenLocks/lockTool.h"
#include "tools/lumenLocks/signals.h"
#include "tools/toolText.h"

namespace {

struct Request {
  bool shared = false;
  bool verbose = false;
  uint32_t waitMs = FILELOCK_INFINITE_WAIT;
  int conflictStatus = kTimedOut;
  const char *file = nullptr;
  char **command = nullptr;
};

constexpr option kOptions[] = {{"shared", no_argument, nullptr, 's'},
                               {"wait", required_argument, nullptr, 'w'},
                               {"conflict-exit-code", required_argument, nullptr, 'E'},
                               {"verbose", no_argument, nullptr, 'v'},
                               {"help", no_argument, nullptr, 'h'},
                               {nullptr, 0, nullptr, 0}};

// ---- options -----------------------------------------------------------------------------------

// Not negative and not above `limit`.
std::optional<double> ParseNumber(const char *text, double limit) {
  char *end = nullptr;
  const double number = strtod(text, &end);
  if (end == text || *end != '\0' || !(number >= 0) || number > limit) return std::nullopt;
  return number;
}

// Returns the exit status if there is nothing to run.
std::optional<int> Parse(int argc, char **argv, Request *request) {
  for (int c; (c = NextOption(argc, argv, kOptions)) != -1;) {
    if (c == '?') return kFailed;
    if (c == 'h') return PrintHelp();
    if (c == 's') request->shared = true;
    if (c == 'v') request->verbose = true;
    if (c == 'w') {
      const auto seconds = ParseNumber(optarg, 4e6);
      if (!seconds) return WrongUsage("--wait takes seconds, not " + std::string(optarg));
      request->waitMs = static_cast<uint32_t>(std::llround(*seconds * 1000));
    }
    if (c == 'E') {
      const auto status = ParseNumber(optarg, 255);
      if (!status || std::floor(*status) != *status) {
        return WrongUsage("--conflict-exit-code takes 0 to 255, not " + std::string(optarg));
      }
      request->conflictStatus = static_cast<int>(*status);
    }
  }
  if (argc - optind < 2) return WrongUsage("run takes a FILE and a COMMAND");
  request->file = argv[optind];
  request->command = argv + optind + 1;
  return std::nullopt;
}

// ---- messages ----------------------------------------------------------------------------------

std::string Text(MsgList *messages) {
  const HeapStr text(MsgList_ToString(messages));
  MsgList_Free(messages);
  std::string line = text == nullptr ? "" : text.get();
  while (line.ends_with('\n')) line.pop_back();
  return line;
}

void TellHolders(const std::string &file) try {
  for (const Entry &entry : ReadEntries(file)) {
    if (entry.state != EntryState::Holds) continue;
    Complain(file + ": " + CleanText(entry.name) + " belongs to " + OwnerOf(entry) + " and is " +
             std::to_string(entry.ageSeconds) + " s old");
  }
} catch (const std::system_error &error) {
  Complain(error.what());  // the exit status is still that of a conflict
}

void TellTime(const std::string &file, int64_t ms) {
  char text[32];
  snprintf(text, sizeof text, "%.3f", static_cast<double>(ms) / 1000);
  Complain(file + ": got the lock after " + text + " s");
}

int Refuse(const Request &request, int error, MsgList *messages) {
  const std::string file = request.file;
  const std::string text = Text(messages);
  if (error != EAGAIN) return Complain(file + ": " + text);
  Complain(file + ": the lock is in use");
  if (request.verbose) TellHolders(file);
  return request.conflictStatus;
}

// ---- the lock ----------------------------------------------------------------------------------

int Run(const Request &request) {
  Signals signals;
  const int64_t startMs = MonotonicClock_Ms();
  int error = 0;
  MsgList *messages = nullptr;
  FileLockToken *const token = FileLock_LockCancellable(
      request.file, request.shared, request.waitMs, signals.Descriptor(), &error, &messages);
  const int signal = signals.Hold();
  if (signal != 0) {
    if (token != nullptr) (void)FileLock_Unlock(token, &error, nullptr);
    Signals::EndBy(signal);
  }
  if (token == nullptr) return Refuse(request, error, messages);
  if (request.verbose) TellTime(request.file, MonotonicClock_Ms() - startMs);
  const int status = RunCommand(request.command, &signals);
  if (FileLock_Unlock(token, &error, &messages)) return status;
  return Complain(std::string(request.file) + ": " + Text(messages));
}

}  // namespace

int MainRun(int argc, char **argv) {
  Request request;
  if (const auto status = Parse(argc, argv, &request)) return *status;
  return IsLockable(request.file) ? Run(request) : kFailed;
}
