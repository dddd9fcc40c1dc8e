// fileIOConfig.cpp -- the settings of the FileIO layer, read once from the program's store.
//
// Tests: tests/unit/fileIO_test.cpp

#include <atomic>

#include "lib/file/io/fileIOFaceInt.h"
#include "lib/public/fileIO.h"
#include "lib/public/onceCell.h"

namespace {

std::atomic<FileIOConfigFn> configStore = nullptr;
constinit OnceCell<FileIOSettings> settings;

int64_t ReadSetting(const char *key, int64_t defaultValue) {
  const FileIOConfigFn read = configStore.load(std::memory_order_acquire);
  int64_t value = 0;
  return read != nullptr && read(key, &value) ? value : defaultValue;
}

FileIOSettings ReadSettings() {
  FileIOAlignedPrepare();
  return {
      .coalesceEnable = ReadSetting("filePosix.coalesce.enable", 1) != 0,
      .coalesceAligned = ReadSetting("filePosix.coalesce.aligned", 0) != 0,
      .coalesceCount = ReadSetting("filePosix.coalesce.count", 5),
      .coalesceSize = ReadSetting("filePosix.coalesce.size", 16384),
      .aiomgrNumThreads = ReadSetting("aiomgr.numThreads", 0),
  };
}

}  // namespace

void FileIO_SetConfigStore(FileIOConfigFn read) {
  configStore.store(read, std::memory_order_release);
}

const FileIOSettings &FileIOGetSettings() {
  return settings.Get(ReadSettings);
}
