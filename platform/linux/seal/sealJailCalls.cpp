// sealJailCalls.cpp -- the system calls that the unprivileged process may make.
//
// The list was found by running the tests under strace; each row is needed to read a seal, the files that
// it lists, or a property list.  The filter tests the number of a call and, if a row says so, bits of one
// argument of type int.
// Tests: tests/system/verifier_test.cpp

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "platform/linux/seal/sealJail.h"

namespace {

// Allows the call if its argument number `argument`, masked by `mask`, equals `bits`.
struct Row {
  uint32_t call;
  uint32_t argument = 0;
  uint32_t mask = 0;
  uint32_t bits = 0;
};

constexpr uint32_t kNotForReading =
    ~static_cast<uint32_t>(O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_PATH);

constexpr Row kRows[] = {
    // Requests and answers.
    {SYS_recvmsg},
    {SYS_sendto},
    // Files.
    {SYS_openat, 2, kNotForReading, O_RDONLY},
    {SYS_close},
    {SYS_newfstatat},
    {SYS_fstat},
    {SYS_fcntl, 1, ~0U, F_GETFL},
    {SYS_fcntl, 1, ~0U, F_SETFD},
    {SYS_fcntl, 1, ~0U, F_DUPFD_CLOEXEC},
    {SYS_fgetxattr},
    {SYS_getdents64},
    {SYS_pread64},
    {SYS_read},
    {SYS_readlinkat},
    {SYS_lseek},  // the C library, when it reads the time zone
    // Memory, never executable.
    {SYS_brk},
    {SYS_mmap, 2, PROT_EXEC, 0},
    {SYS_mremap},
    {SYS_munmap},
    // The time, where the vDSO cannot tell it, and a seed for hash tables.
    {SYS_clock_gettime},
    {SYS_gettimeofday},
    {SYS_time},
    {SYS_getrandom},
    {SYS_futex},
    {SYS_exit_group},
#ifdef LUMEN_INSTRUMENTED
    // Only for sanitizers and coverage: their run-time libraries return memory, yield, and look up the
    // signal stack at exit.
    {SYS_madvise},
    {SYS_sched_yield},
    {SYS_sigaltstack},
#endif
};

constexpr uint16_t kLoad = BPF_LD | BPF_W | BPF_ABS;
constexpr uint16_t kAnd = BPF_ALU | BPF_AND | BPF_K;
constexpr uint16_t kIfEqual = BPF_JMP | BPF_JEQ | BPF_K;
constexpr uint16_t kReturn = BPF_RET | BPF_K;
constexpr size_t kPerRow = 6;
constexpr size_t kHead = 3;

constexpr auto MakeFilter() {
  std::array<sock_filter, kHead + kPerRow * std::size(kRows) + 1> filter = {};
  size_t at = 0;
  // How many instructions to skip if a comparison is true, and if it is false.
  const auto add = [&](uint16_t code, uint32_t k, uint8_t ifSo = 0, uint8_t ifNot = 0) {
    filter[at++] = {code, ifSo, ifNot, k};
  };
  const auto offset = [](size_t n) { return static_cast<uint32_t>(n); };
  // The call numbers below are those of this architecture only.
  add(kLoad, offset(offsetof(seccomp_data, arch)));
  add(kIfEqual, AUDIT_ARCH_X86_64, 1, 0);
  add(kReturn, SECCOMP_RET_KILL_PROCESS);
  for (const Row &row : kRows) {
    add(kLoad, offset(offsetof(seccomp_data, nr)));
    add(kIfEqual, row.call, 0, 4);
    add(kLoad, offset(offsetof(seccomp_data, args)) + row.argument * 8);
    add(kAnd, row.mask);
    add(kIfEqual, row.bits, 0, 1);
    add(kReturn, SECCOMP_RET_ALLOW);
  }
  add(kReturn, SECCOMP_RET_KILL_PROCESS);
  return filter;
}

constexpr auto kFilter = MakeFilter();

}  // namespace

bool SealJailFilterCalls() {
  const sock_fprog program = {static_cast<uint16_t>(kFilter.size()),
                              const_cast<sock_filter *>(kFilter.data())};
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}
