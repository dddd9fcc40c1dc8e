// hostServices_test.cpp -- the host's name and identity, paths that it knows, Base64,
// and the super-user bracket, thread by thread.  The daemon's start has a program of its own.
//
// Linked with --wrap=uname,--wrap=getifaddrs,--wrap=freeifaddrs,--wrap=geteuid: the test decides what
// the host is called and which interfaces it has, and what an identity cannot be.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base64.h"
#include "fd.h"
#include "heap.h"
#include "hostinfo.h"
#include "id.h"
#include "platform/process.h"
#include "posix.h"
#include "tests/support/asRoot.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"
#include "uuid.h"

namespace {

using std::string_literals::operator""s;

// ---- identity --------------------------------------------------------------------------------

// The digests come from sha1sum: of the address with two zero bytes, or of the hash 177670.
#define ID_05 " 0000050403020102\n52 1b bc 37 56 80 e4 a0-1f b3 e6 2c a3 91 fc bc\n"
#define ID_06 " 0000060403020102\n52 2d 1d 06 c5 f3 83 d4-68 c3 2b 52 b6 94 75 79\n"
#define NO_NAME "Warning: Hostinfo_MachineID Hostinfo_HostName failure; providing default.\n0"
#define ID_NONE " 0000000000000000\n52 c0 7d aa 1e 1e e4 4b-52 a4 76 f0 c9 a2 2d d1\n"

const struct Host {
  std::string name;
  // By name, with the last byte of the address 02:01:02:03:04:xx; without any, they are not told.
  std::vector<std::pair<std::string, unsigned char>> interfaces;
  std::string identity;
} kHosts[] = {
    {"a", {{"en8", 5}, {"xen0", 6}, {"en", 6}, {"en00", 6}}, "177670" ID_NONE},
    // The number decides, not the order of the list.
    {"a", {{"en1", 5}, {"en0", 6}}, "177670" ID_06},
    // The hash is taken modulo 2^32, of bytes from 0 to 255.
    {"build-host-17.example.org", {{"en7", 5}}, "2812844453" ID_05},
    {"\xC3\xA9", {{"en0", 5}}, "5866513" ID_05},
    {"a\xFF", {{"en0", 5}}, NO_NAME ID_05},
    {"", {{"en0", 5}}, NO_NAME ID_05},
    {"a",
     {},
     "Warning: ObtainHardwareID getifaddrs failure: Too many open files.\n"
     "Warning: Hostinfo_MachineID ObtainHardwareID failure (Too many open files); providing "
     "default.\n177670" ID_NONE},
};

const Host *host;

TEST(MachineID, ComesFromNameAndFirstInterfaceWithAnAddress) {
  for (const Host &row : kHosts) {
    host = &row;
    const ChildResult result = RunInChild([] {
      uint32_t hash;
      uint64_t hardwareID;
      Hostinfo_MachineID(&hash, &hardwareID);
      dprintf(STDOUT_FILENO, "%u %016" PRIX64 "\n%s\n", hash, hardwareID,
              HeapStr(UUID_GetHostString()).get());
    });
    EXPECT_EQ(row.identity, WithoutStamps(result.output));
  }
}

// ---- paths -----------------------------------------------------------------------------------

TEST(ModulePath, KnowsTwoPrivilegesAndItsRoom) {
  const HeapStr path(Hostinfo_GetModulePath(1));
  EXPECT_TRUE(std::filesystem::equivalent("/proc/self/exe", path.get()));
  char room[PATH_MAX];
  EXPECT_FALSE(Platform_ExecutablePath(room, strlen(path.get())));
  EXPECT_TRUE(Platform_ExecutablePath(room, strlen(path.get()) + 1));
  EXPECT_EQ("Warning: Hostinfo_GetModulePath: invalid privilege parameter\n",
            WithoutStamps(CaptureOutput([] { HeapStr(Hostinfo_GetModulePath(2)).reset(); })));
}

TEST(Posix, PathsAndLinkTargetsAndWhyThereIsNone) {
  const ScratchDir dir;
  const std::string bad = dir.Write("bad\xFF", ""), file = dir.Write("f\xC3\xAFle", "");
  std::filesystem::create_directory(dir.Path("sub"));
  struct Row {
    char *(*call)(const char *);
    std::string path, outcome;  // or the errno
  };
  std::vector<Row> rows = {
      {Posix_RealPath, dir.Path("sub/.././link2"), file},
      {Posix_RealPath, "", "ENOENT"},
      {Posix_RealPath, dir.Path("loop"), "ELOOP"},
      {Posix_RealPath, bad, "ERANGE"},
      {Posix_RealPath, dir.Path("toBad"), "EILSEQ"},
      {Posix_ReadLink, dir.Path("link2"), "link"},
      {Posix_ReadLink, file, "EINVAL"},
      {Posix_ReadLink, dir.Path("toBad"), "EILSEQ"},
  };
  std::vector<std::pair<std::string, std::string>> links = {
      {"link", "sub/../f\xC3\xAFle"}, {"link2", "link"}, {"loop", "loop"}, {"toBad", "bad\xFF"}};
  // Targets around the first buffer and its first growth, and the longest that a link can have.
  for (const size_t length : {2047U, 2048U, 3071U, 3072U, 4095U}) {
    links.emplace_back(std::to_string(length), std::string(length, 't'));
    rows.push_back({Posix_ReadLink, dir.Path(links.back().first), links.back().second});
  }
  for (const auto &[link, target] : links) {
    ASSERT_EQ(0, symlink(target.c_str(), dir.Path(link).c_str()));
  }
  for (const Row &row : rows) {
    errno = ETXTBSY;
    const HeapStr result(row.call(row.path.c_str()));
    EXPECT_EQ(result == nullptr, errno != ETXTBSY) << "on success errno is left alone";
    EXPECT_EQ(row.outcome, result == nullptr ? strerrorname_np(errno) : result.get()) << row.path;
  }
}

// ---- Base64 ----------------------------------------------------------------------------------

TEST(Base64, GoesThereAndBackWithinItsRoom) {
  char text[17], bytes[16];
  size_t length = 0;
  for (const auto &[plain, expected] :
       {std::pair<std::string, std::string>{"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foobar", "Zm9vYmFy"},
        {"\xFB\xEF\xBE\xFF\0\x10\x83\x10\x51\x87\x20\x92"s, "++++/wAQgxBRhyCS"}}) {
    ASSERT_TRUE(Base64_Encode(plain.data(), plain.size(), text, expected.size() + 1, &length));
    EXPECT_TRUE(text == expected && length == expected.size()) << text;
    EXPECT_FALSE(Base64_Encode(plain.data(), plain.size(), text, expected.size(), &length));
    ASSERT_TRUE(Base64_Decode(expected.c_str(), bytes, plain.size(), &length));
    EXPECT_EQ(plain, std::string(bytes, length));
    EXPECT_EQ(plain.empty(), Base64_Decode(expected.c_str(), bytes, plain.size() - 1, &length));
  }
  for (const size_t size : {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX - 2}) {
    EXPECT_FALSE(Base64_Encode("x", size, text, SIZE_MAX, nullptr));
  }
  for (const char *none : {"QUI", "QUI=QUI=", "=QUI", "QQ=Q", "Q===", "QUJ=", "QR==", "QU I"}) {
    EXPECT_FALSE(Base64_Decode(none, bytes, sizeof bytes, &length)) << none;
  }
}

// ---- the super-user bracket ------------------------------------------------------------------
//
// Everything that needs root runs in a child process, which ends with 42 (capture.h) when all is
// well and otherwise with the line that was not.

constexpr uid_t kUser = 4321;
bool geteuidIsAllOnes = false;

#define REQUIRE(condition) \
  if (!(condition)) _exit(__LINE__ & 255)

// The line "Uid:" of a thread: real, effective, saved and file-system user id.
std::string UidsOf(pid_t thread) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  std::string line;
  while (std::getline(status, line) && !line.starts_with("Uid:")) {
  }
  return line;
}

TEST(SuperUser, BracketChangesTheCallingThreadOnlyAndNests) {
  RUN_AS_ROOT();
  const ScratchDir roots;
  const ChildResult result = RunInChild([&] {
    // As the opener between its raises: the user's, but for the saved user id.
    REQUIRE(!Id_IsSetUGid() && setresgid(kUser, kUser, 0) == 0);
    REQUIRE(setresuid(kUser, kUser, 0) == 0 && Id_IsSetUGid());
    const std::string lowered = "Uid:\t4321\t4321\t0\t4321", raised = "Uid:\t4321\t0\t0\t0";
    std::thread thread([&] {
      const auto self = static_cast<pid_t>(syscall(SYS_gettid));
      const uid_t saved = Id_BeginSuperUser();
      Id_EndSuperUser(Id_BeginSuperUser());
      REQUIRE(saved == kUser && UidsOf(self) == raised && UidsOf(getpid()) == lowered);
      REQUIRE(Fd(open(roots.Path().c_str(), O_RDONLY)));
      Id_EndSuperUser(saved);
      Id_EndSuperUser(saved);  // is there already
      REQUIRE(UidsOf(self) == lowered && getegid() == getgid());
    });
    thread.join();
    // A bracket that was used leaves its mark.
    REQUIRE(setresuid(0, 0, 0) == 0 && Id_IsSetUGid());
  });
  EXPECT_EQ(42, result.exitStatus);
  EXPECT_EQ("", result.output);
}

TEST(SuperUser, WhatCannotBeChangedIsToldOrLeftAlone) {
  RUN_AS_ROOT();
  const ChildResult unprivileged = RunInChild([] {
    // A set-group-ID program that has lowered itself: no bracket raises it.
    REQUIRE(setresgid(kUser, kUser, 0) == 0 && setresuid(kUser, kUser, kUser) == 0);
    REQUIRE(Id_BeginSuperUser() == kUser && geteuid() == kUser && getegid() == kUser);
    Id_EndSuperUser(kUser);
    Id_EndSuperUser(kUser + 1);
    REQUIRE(geteuid() == kUser && Hostinfo_ProcessState(1) == HOSTINFO_PROCESS_EXISTS);
  });
  EXPECT_EQ(42, unprivileged.exitStatus);
  EXPECT_EQ("Failed to release super user privileges.\n", WithoutStamps(unprivileged.output));
  EXPECT_EQ("Panic: VERIFY lib/misc/idLinux:925\n", FatalText([] {
              geteuidIsAllOnes = true;
              (void)Id_BeginSuperUser();
            }));
}

}  // namespace

extern "C" {
int __wrap_uname(utsname *names) {
  strcpy(names->nodename, host->name.c_str());
  return 0;
}

int __wrap_getifaddrs(ifaddrs **list) {
  static ifaddrs entries[4];
  static sockaddr_ll addresses[4] = {};
  const size_t count = host->interfaces.size();
  for (size_t i = 0; i < count; i++) {
    const auto &[name, lastByte] = host->interfaces[i];
    addresses[i] = {AF_PACKET, 0, 0, 0, 0, 6, {2, 1, 2, 3, 4, lastByte, 0, 0}};
    entries[i].ifa_name = const_cast<char *>(name.c_str());
    entries[i].ifa_addr = reinterpret_cast<sockaddr *>(&addresses[i]);
    entries[i].ifa_next = i + 1 < count ? &entries[i + 1] : nullptr;
  }
  *list = entries;
  errno = EMFILE;
  return count == 0 ? -1 : 0;
}

void __wrap_freeifaddrs(ifaddrs *) {}

uid_t __real_geteuid();
uid_t __wrap_geteuid() {
  return geteuidIsAllOnes ? static_cast<uid_t>(-1) : __real_geteuid();
}
}
