// staging_bench.cpp -- the start of the service from a bundle of realistic size, against the least
// that staging must do: a copy of its items, and a digest of each item and of its copy.
//
// Bundle:  a daemon of 20 MiB, an arbitrator of 5 MiB, an extension of 40 files of 16 KiB.
// Peer:    cp -a, and openssl dgst -sha256 over sources and copies; nothing is checked against
//          anything, and no service is started.
//
//   staging_bench [RUNS]
//
// Runs inside the sandbox, which it starts itself.  The two take turns.

#include <chrono>
#include <fstream>

#include "bench/report.h"
#include "bench/sandboxed.h"
#include "tests/support/product.h"

namespace {

namespace fs = std::filesystem;

const std::string kKext = kBundleLibrary + "/kexts/zioplug.kext";

constexpr char kPeer[] = R"sh(
  rm -rf /Library/copies && mkdir /Library/copies && cp -a "$0" /Library/copies/ &&
  find "$0" /Library/copies -type f -exec openssl dgst -sha256 {} + >/dev/null
)sh";

void Enlarge(const std::string &path, size_t size) {
  std::ofstream file(path, std::ios::app | std::ios::binary);
  for (size_t at = fs::file_size(path); at < size; at++) {
    file.put(static_cast<char>(at * 2654435761U >> 24));
  }
}

void MakeRealistic() {
  InstallBundle();
  Enlarge(kBundleDaemon, size_t{20} << 20);
  Enlarge(kBundleLibrary + "/zephrin-usbarbitrator", size_t{5} << 20);
  for (int i = 0; i < 40; i++) {
    const std::string path = kKext + "/Contents/Resources/" + std::to_string(i);
    std::ofstream{path};
    Enlarge(path, size_t{16} << 10);
  }
  Shell(R"(sign "$daemon" "$daemon"; sign zephrin-usbarbitrator zephrin-usbarbitrator
           sign com.zephrin.kext.zioplug kexts/zioplug.kext)");
}

// Milliseconds.
double TimeOf(const Launch &launch) {
  const auto start = std::chrono::steady_clock::now();
  Process process(launch);
  if (process.Wait() != 0) {
    fprintf(stderr, "%s failed: %s\n", launch.argv[0].c_str(), process.Output().c_str());
    exit(EXIT_FAILURE);
  }
  const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
  return time.count();
}

}  // namespace

int main(int argc, char *argv[]) {
  EnterSandbox(argv, LUMEN_SUPPORT);
  const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 21;
  MakeRealistic();
  const Launch peer = {.argv = {"/bin/sh", "-ec", kPeer, kBundleLibrary},
                       .env = {"PATH=/usr/bin:/bin"}};
  std::vector<double> starts, peers;
  for (int i = 0; i < runs; i++) {
    starts.push_back(TimeOf(OpenerLaunch(FileWith(""))));
    StopServices();
    peers.push_back(TimeOf(peer));
  }
  ReportRatio("start, 25 MiB staged", "ms", Median(&starts), {"copies, digests", 1.0},
              Median(&peers));
  return 0;
}
