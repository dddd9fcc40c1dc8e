// hostinfo_test.cpp -- the host's name, its identity and the path of the running program.
//
// The identity is taken in a network and host-name namespace of its own, where the test decides
// what the host is called and which interfaces it has.

#include "hostinfo.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "fd.h"
#include "heap.h"
#include "tests/support/capture.h"
#include "tests/support/sandboxSkip.h"
#include "uuid.h"

namespace {

constexpr int kNoNamespace = 77;

// ---- a host of the test's making -------------------------------------------------------------

struct Interface {
  const char *name;
  char lastByte;  // of the address 02:01:02:03:04:xx
};

// In a namespace where the first interface is the new loopback under another name, and the others
// are bridges: so they are listed in this order, and nothing but the kernel is needed.
bool MakeHost(std::string_view name, const std::vector<Interface> &interfaces) {
  constexpr int kSpaces = CLONE_NEWNET | CLONE_NEWUTS;
  bool ok = (unshare(kSpaces) == 0 || unshare(kSpaces | CLONE_NEWUSER) == 0) &&
            sethostname(name.data(), name.size()) == 0;
  const Fd sock(socket(AF_INET, SOCK_DGRAM, 0));
  for (const Interface &interface : interfaces) {
    ifreq request{};
    const bool first = &interface == &interfaces.front();
    strcpy(request.ifr_name, first ? "lo" : interface.name);
    strcpy(request.ifr_newname, interface.name);
    ok = ok && (first ? ioctl(sock.Get(), SIOCSIFNAME, &request)
                      : ioctl(sock.Get(), SIOCBRADDBR, interface.name)) == 0;
    strcpy(request.ifr_name, interface.name);
    ok = ok && ioctl(sock.Get(), SIOCGIFHWADDR, &request) == 0;
    const char address[6] = {2, 1, 2, 3, 4, interface.lastByte};
    memcpy(request.ifr_hwaddr.sa_data, address, sizeof address);
    ok = ok && ioctl(sock.Get(), SIOCSIFHWADDR, &request) == 0;
  }
  return ok;
}

std::string Identity() {
  uint32_t hash;
  uint64_t hardwareID;
  Hostinfo_MachineID(&hash, &hardwareID);
  char text[100];
  snprintf(text, sizeof text, "%u %016" PRIX64 "\n%s\n", hash, hardwareID,
           HeapStr(UUID_GetHostString()).get());
  return text;
}

// The digests come from sha1sum: of the address with two zero bytes, or of the hash 177670.
constexpr char k05[] = " 0000050403020102\n52 1b bc 37 56 80 e4 a0-1f b3 e6 2c a3 91 fc bc\n";
constexpr char k06[] = " 0000060403020102\n52 2d 1d 06 c5 f3 83 d4-68 c3 2b 52 b6 94 75 79\n";
constexpr char kNone[] = " 0000000000000000\n52 c0 7d aa 1e 1e e4 4b-52 a4 76 f0 c9 a2 2d d1\n";

TEST(MachineID, ComesFromNameAndFirstInterfaceWithAnAddress) {
  const struct {
    std::string_view name;
    std::vector<Interface> interfaces;
    std::string hash, rest;
  } rows[] = {
      {"a", {{"en8", 5}, {"xen0", 6}, {"en", 6}, {"en00", 6}}, "177670", kNone},
      // The number decides, not the order of the list.
      {"a", {{"en1", 5}, {"en0", 6}}, "177670", k06},
      // The hash is taken modulo 2^32, of bytes from 0 to 255.
      {"build-host-17.example.org", {{"en7", 5}}, "2812844453", k05},
      {"\xC3\xA9", {{"en0", 5}}, "5866513", k05},
      {"a\xFF",
       {{"en0", 5}},
       "Warning: Hostinfo_MachineID Hostinfo_HostName failure; providing default.\n0",
       k05},
  };
  for (const auto &row : rows) {
    const ChildResult result = RunInChild([&] {
      if (!MakeHost(row.name, row.interfaces)) _exit(kNoNamespace);
      dprintf(STDOUT_FILENO, "%s", Identity().c_str());
    });
    if (result.exitStatus == kNoNamespace) SKIP_FOR_WANT_OF("a network namespace");
    ASSERT_EQ(42, result.exitStatus) << "signal " << result.signal;
    EXPECT_EQ(row.hash + row.rest, WithoutStamps(result.output));
  }
}

TEST(MachineID, GoesOnWithoutTheListOfInterfaces) {
  const ChildResult result = RunInChild([] {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    // The second time everything is known, and nothing is reported.
    if (Identity() != Identity() || Identity().find(" 0000000000000000\n") == std::string::npos) {
      _exit(3);
    }
  });
  EXPECT_EQ(42, result.exitStatus);
  const std::string text = strerror(EMFILE);
  EXPECT_EQ("Warning: ObtainHardwareID getifaddrs failure: " + text +
                ".\nWarning: Hostinfo_MachineID ObtainHardwareID failure (" + text +
                "); providing default.\n",
            WithoutStamps(result.output));
}

TEST(ModulePath, KnowsTwoPrivileges) {
  EXPECT_TRUE(
      std::filesystem::equivalent("/proc/self/exe", HeapStr(Hostinfo_GetModulePath(1)).get()));
  EXPECT_EQ("Warning: Hostinfo_GetModulePath: invalid privilege parameter\n",
            WithoutStamps(CaptureOutput([] { HeapStr(Hostinfo_GetModulePath(2)).reset(); })));
}

}  // namespace
