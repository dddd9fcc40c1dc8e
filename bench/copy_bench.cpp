// copy_bench.cpp -- copies of files and trees against cp, and against a bare loop of read and write.
//
// Rows:  256 MiB in the page cache, and trees of 100 folders with files of 1 kB, 20 kB and 1 MB.  All
//        of it is in one file system, that of $TMPDIR (/dev/shm unless set), and the destination is
//        removed before each copy.  Times are the processor's; those of cp include its start.
//
//   copy_bench [options of Google Benchmark]

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "bench/ratios.h"
#include "bench/wholeRuns.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"

namespace {

namespace fs = std::filesystem;

// The peer of one block size, without anything around it.
void BareLoop(const fs::path &from, const fs::path &to) {
  const Fd in(open(from.c_str(), O_RDONLY));
  const Fd out(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
  char buffer[8192];
  for (ssize_t n; (n = read(in.Get(), buffer, sizeof buffer)) > 0;) {
    Require(write(out.Get(), buffer, static_cast<size_t>(n)) == n, "write");
  }
}

// Measures body() after `to` has been removed.
void Add(const std::string &name, const fs::path &to, const std::function<void()> &body) {
  AddWholeRun(
      name, [=] { fs::remove_all(to); }, body);
}

void AddFile(Ratios *ratios, const fs::path &dir) {
  const fs::path from = dir / "file";
  const fs::path to = dir / "copy";
  std::ofstream out(from);
  for (int i = 0; i < 256; i++) out << std::string(1 << 20, static_cast<char>(i));
  out.close();
  ratios->AddRow("256 MiB", {{"cp", 2}, {"loop", 1.05}});
  Add("256 MiB/lumen", to, [=] { Require(File_Copy(from.c_str(), to.c_str(), true), "copy"); });
  Add("256 MiB/cp", to,
      [=] { Shell("cp --reflink=never '" + from.string() + "' '" + to.string() + "'"); });
  Add("256 MiB/loop", to, [=] { BareLoop(from, to); });
}

struct Tree {
  const char *row;
  int files;
  size_t size;
  double goal;
};
constexpr Tree kTrees[] = {
    {"tree of 1 kB files", 10'000, 1000, 1.0},
    {"tree of 20 kB files", 4'000, 20'000, 1.1},
    {"tree of 1 MB files", 200, 1'000'000, 1.1},
};

void AddTree(Ratios *ratios, const fs::path &dir, const Tree &tree) {
  const fs::path from = dir / tree.row;
  const fs::path to = dir / "copies";
  for (int i = 0; i < tree.files; i++) {
    const fs::path folder = from / std::to_string(i % 100);
    if (i < 100) fs::create_directories(folder);
    std::ofstream(folder / ("file" + std::to_string(i))) << std::string(tree.size, 'x');
  }
  const std::string row = tree.row;
  ratios->AddRow(row, {{"cp", tree.goal}});
  Add(row + "/lumen", to, [=] {
    fs::create_directory(to);
    Require(File_CopyTree(from.c_str(), to.c_str(), false, false), "copy");
  });
  Add(row + "/cp", to, [=] { Shell("cp -R '" + from.string() + "' '" + to.string() + "'"); });
}

}  // namespace

int main(int argc, char **argv) {
  const BenchFolder folder;
  Ratios ratios;
  AddFile(&ratios, folder.Path());
  for (const Tree &tree : kTrees) AddTree(&ratios, folder.Path(), tree);
  return ratios.Main(argc, argv);
}
