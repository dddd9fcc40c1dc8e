// test.h -- what nearly every test needs: GoogleTest, captured output, scratch folders, common headers.
// Tests include nothing that is here a second time.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lib/public/fd.h"
#include "lib/public/heap.h"
#include "tests/support/capture.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"

namespace fs = std::filesystem;

// How often to repeat a random test: `usual` times LUMEN_ROUNDS, which is 1 by default.
inline int Rounds(int usual = 1) {
  const char *const rounds = getenv("LUMEN_ROUNDS");
  return usual * (rounds == nullptr ? 1 : std::clamp(atoi(rounds), 1, 1000));
}

// The text that a procedure returned, freed; "(null)" for none.
inline std::string Owned(char *text) {
  const HeapStr owner(text);
  return text == nullptr ? "(null)" : text;
}

// "ok", or the name of the value of errno.
inline std::string OkOrErrno(bool ok) {
  return ok ? "ok" : strerrorname_np(errno);
}
