// probeDaemon.cpp -- installed in the service's place, it writes down what an opener has started it
// with, and then becomes the service.

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "lib/public/fd.h"
#include "tests/support/product.h"

int main(int argc, char *argv[], char *environment[]) {
  const auto files = FilesOf(getpid());
  {
    std::ofstream report(kProbeReport);
    for (int i = 0; i < argc; i++) report << "argument " << argv[i] << "\n";
    report << "directory " << std::filesystem::current_path().native() << "\n";
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      for (const char *name : {"Umask:", "Uid:", "SigBlk:", "SigIgn:"}) {
        if (line.starts_with(name)) report << line << "\n";
      }
    }
    report << "terminal " << (Fd(open("/dev/tty", O_RDWR)) ? "some" : "none") << "\n";
    for (const auto &[number, target] : files) {
      // Not the one by which they were listed.
      if (!target.starts_with("/proc/")) report << "fd " << number << " " << target << "\n";
    }
    for (char **entry = environment; *entry != nullptr; entry++) {
      // The counters of the coverage run leave a mark.
      if (strncmp(*entry, "__LLVM_", 7) != 0) report << "env " << *entry << "\n";
    }
  }
  execv((kTemplate + kBundleDaemon.substr(kBundle.size())).c_str(), argv);
  return 1;
}
