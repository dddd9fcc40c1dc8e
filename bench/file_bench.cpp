// file_bench.cpp -- removing and listing directories against rm and ls.
//
// Rows:  10,000 empty files in 100 folders, removed; directories of 1,000, 10,000 and 100,000 names,
//        listed, also against a loop that only copies each name.  All of it is in one file system,
//        that of $TMPDIR (/dev/shm unless set).
//
//   file_bench [options of Google Benchmark]

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/ratios.h"
#include "bench/wholeRuns.h"
#include "lib/public/file.h"

namespace {

namespace fs = std::filesystem;

// `count` empty files, `perFolder` in each folder.
void Fill(const fs::path &dir, int count, int perFolder) {
  for (int i = 0; i < count; i++) {
    const fs::path folder = dir / std::to_string(i / perFolder);
    if (i % perFolder == 0) fs::create_directories(folder);
    std::ofstream(folder / ("file-of-some-name-" + std::to_string(i)));
  }
}

void AddDelete(Ratios *ratios, const fs::path &dir) {
  const fs::path tree = dir / "tree";
  const auto fill = [=] { Fill(tree, 10'000, 100); };
  ratios->AddRow("remove 10,000", {{"rm", 1.0}});
  AddWholeRun("remove 10,000/lumen", fill,
              [=] { Require(File_DeleteDirectoryTree(tree.c_str()), "remove"); });
  AddWholeRun("remove 10,000/rm", fill, [=] { Shell("rm -rf '" + tree.string() + "'"); });
}

void List(const char *path) {
  char **names;
  const int count = File_ListDirectory(path, &names);
  Require(count > 0, path);
  for (int i = 0; i < count; i++) free(names[i]);
  free(names);
}

void BareLoop(const char *path) {
  DIR *const stream = opendir(path);
  Require(stream != nullptr, path);
  std::vector<char *> names;
  while (const dirent *const entry = readdir(stream)) names.push_back(strdup(entry->d_name));
  closedir(stream);
  for (char *const name : names) free(name);
}

void AddList(Ratios *ratios, const fs::path &dir, int count) {
  const std::string row = "list " + std::to_string(count);
  const fs::path parent = dir / row;
  Fill(parent, count, count);
  const fs::path full = parent / "0";
  ratios->AddRow(row, {{"ls", 1.3}, {"loop", 2.5}});
  AddWholeRun(
      row + "/lumen", [] {}, [=] { List(full.c_str()); });
  AddWholeRun(
      row + "/ls", [] {}, [=] { Shell("ls -U '" + full.string() + "' > /dev/null"); });
  AddWholeRun(
      row + "/loop", [] {}, [=] { BareLoop(full.c_str()); });
}

}  // namespace

int main(int argc, char **argv) {
  const BenchFolder folder;
  Ratios ratios;
  AddDelete(&ratios, folder.Path());
  for (const int count : {1'000, 10'000, 100'000}) AddList(&ratios, folder.Path(), count);
  return ratios.Main(argc, argv);
}
