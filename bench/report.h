// report.h -- the line that every comparison ends with.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

// A program, library or loop that does the same, and the most that our measure may be, divided by
// its.
struct Peer {
  std::string name;
  double goal;
};

// Prints a row.  If LUMEN_RATIOS names a file, the row is also appended to it with tabs between its
// fields, for bench/ratioTable.
inline void ReportRatio(const std::string &row, const char *unit, double ours, const Peer &peer,
                        double theirs) {
  const double ratio = ours / theirs;
  std::printf("%-24s %10.1f %-3s %10.1f of %-18s %5.2f  (%s %.2f)\n", row.c_str(), ours, unit,
              theirs, peer.name.c_str(), ratio, ratio > peer.goal ? "over" : "goal", peer.goal);
  std::fflush(stdout);
  const char *const path = getenv("LUMEN_RATIOS");
  if (path == nullptr) return;
  FILE *const file = std::fopen(path, "a");
  if (file == nullptr ||
      std::fprintf(file, "%s\t%s\t%s\t%g\t%g\t%g\n", row.c_str(), unit, peer.name.c_str(), ours,
                   theirs, peer.goal) < 0 ||
      std::fclose(file) != 0) {
    std::perror(path);
    exit(EXIT_FAILURE);
  }
}
