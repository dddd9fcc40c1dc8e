// copy_bench.cpp -- copies of files and trees against cp, and against a bare loop of read and write.
//
// Rows:  256 MiB in the page cache, and 10,000 small files in 100 folders.  All of it is in one file
//        system, that of $TMPDIR (/dev/shm unless set), and what is copied to is removed before.
//        Times are the processor's, of cp with its start.
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

void AddTree(Ratios *ratios, const fs::path &dir) {
  const fs::path from = dir / "tree";
  const fs::path to = dir / "copies";
  for (int i = 0; i < 10'000; i++) {
    const fs::path folder = from / std::to_string(i % 100);
    if (i < 100) fs::create_directories(folder);
    std::ofstream(folder / ("file" + std::to_string(i))) << std::string(500, 'x');
  }
  ratios->AddRow("10,000 files", {{"cp", 1.3}});
  Add("10,000 files/lumen", to, [=] {
    fs::create_directory(to);
    Require(File_CopyTree(from.c_str(), to.c_str(), false, false), "copy");
  });
  Add("10,000 files/cp", to, [=] { Shell("cp -R '" + from.string() + "' '" + to.string() + "'"); });
}

}  // namespace

int main(int argc, char **argv) {
  const BenchFolder folder;
  Ratios ratios;
  AddFile(&ratios, folder.Path());
  AddTree(&ratios, folder.Path());
  return ratios.Main(argc, argv);
}
