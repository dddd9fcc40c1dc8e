#include "tests/support/asRoot.h"

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

int StatusOfTestInSandbox() {
  const testing::TestInfo &test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  const std::string command = "exec '" LUMEN_SANDBOX "' '" + program + "' --gtest_filter='" +
                              test.test_suite_name() + "." + test.name() + "'";
  const int status = system(command.c_str());  // NOLINT(cert-env33-c): of this tree's own paths
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
