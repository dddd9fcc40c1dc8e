// rounds.h -- how often to repeat what chance decides.
#pragma once

#include <algorithm>
#include <cstdlib>

// LUMEN_ROUNDS, or 1, times what an ordinary run is content with.
inline int Rounds(int usual = 1) {
  const char *const rounds = getenv("LUMEN_ROUNDS");
  return usual * (rounds == nullptr ? 1 : std::clamp(atoi(rounds), 1, 1000));
}
