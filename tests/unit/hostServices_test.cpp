// hostServices_test.cpp -- the host's name and identity, paths that it knows, Base64, and the super-user
// bracket, thread by thread.  The daemon's start has a program of its own.
//
// Linked with --wrap=uname,--wrap=getifaddrs,--wrap=freeifaddrs,--wrap=geteuid: the test decides on the
// host's name and interfaces, and returns a user id that cannot be.

#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <sys/syscall.h>
#include <sys/utsname.h>

#include <cinttypes>
#include <climits>
#include <fstream>

#include "lib/public/base64.h"
#include "lib/public/hostinfo.h"
#include "lib/public/id.h"
#include "lib/public/posix.h"
#include "lib/public/uuid.h"
#include "platform/process.h"
#include "tests/support/asRoot.h"
#include "tests/support/test.h"

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
  // By name, with the last byte of the address 02:01:02:03:04:xx; without any, getifaddrs fails.
  std::vector<std::pair<std::string, unsigned char>> interfaces;
  std::string identity;
} kHosts[] = {
    {"a", {{"en8", 5}, {"xen0", 6}, {"en", 6}, {"en00", 6}}, "177670" ID_NONE},
    // The number decides, not the order of the list.
    {"a", {{"en1", 5}, {"en0", 6}}, "177670" ID_06},
    // The hash is taken modulo 2^32, of bytes from 0 to 255.
    {"b\xC3\xBCild-host-17.example.org", {{"en7", 5}}, "3603901615" ID_05},
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
  EXPECT_TRUE(fs::equivalent("/proc/self/exe", path.get()));
  char room[PATH_MAX];
  EXPECT_FALSE(Platform_ExecutablePath(room, strlen(path.get())));
  EXPECT_TRUE(Platform_ExecutablePath(room, strlen(path.get()) + 1));
  EXPECT_EQ("Warning: Hostinfo_GetModulePath: invalid privilege parameter\n",
            LogOf([] { HeapStr(Hostinfo_GetModulePath(2)).reset(); }));
}

TEST(Posix, PathsAndLinkTargetsAndWhyThereIsNone) {
  const ScratchDir dir;
  const std::string bad = dir.Write("bad\xFF", ""), file = dir.Write("f\xC3\xAFle", "");
  fs::create_directory(dir.Path("sub"));
  const std::string full(2048, 't');  // as the first buffer is then
  const std::pair<const char *, std::string> links[] = {{"link", "sub/../f\xC3\xAFle"},
                                                        {"link2", "link"},
                                                        {"loop", "loop"},
                                                        {"toBad", "bad\xFF"},
                                                        {"full", full}};
  for (const auto &[link, target] : links) {
    ASSERT_EQ(0, symlink(target.c_str(), dir.Path(link).c_str()));
  }
  const struct {
    char *(*call)(const char *);
    std::string path, outcome;  // or the errno
  } rows[] = {
      {Posix_RealPath, dir.Path("sub/.././link2"), file},
      {Posix_RealPath, "", "ENOENT"},
      {Posix_RealPath, dir.Path("loop"), "ELOOP"},
      {Posix_RealPath, bad, "ERANGE"},
      {Posix_RealPath, dir.Path("toBad"), "EILSEQ"},
      {Posix_ReadLink, dir.Path("link2"), "link"},
      {Posix_ReadLink, dir.Path("full"), full},
      {Posix_ReadLink, file, "EINVAL"},
      {Posix_ReadLink, dir.Path("toBad"), "EILSEQ"},
  };
  for (const auto &row : rows) {
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
       {std::pair{""s, ""s},
        {"fo", "Zm8="},
        {"\xFB\xEF\xBE\xFF\0\x10\x83\x10\x51\x87\x20\x92"s, "++++/wAQgxBRhyCS"}}) {
    ASSERT_TRUE(Base64_Encode(plain.data(), plain.size(), text, expected.size() + 1, &length));
    EXPECT_TRUE(text == expected && length == expected.size()) << text;
    EXPECT_FALSE(Base64_Encode(plain.data(), plain.size(), text, expected.size(), &length));
    ASSERT_TRUE(Base64_Decode(expected.c_str(), bytes, plain.size(), &length));
    EXPECT_EQ(plain, std::string(bytes, length));
    EXPECT_EQ(plain.empty(), Base64_Decode(expected.c_str(), bytes, plain.size() - 1, &length));
  }
  EXPECT_FALSE(Base64_Encode("x", SIZE_MAX - 1, text, SIZE_MAX, nullptr));
  for (const char *none : {"Q", "QUI=QUI=", "=QUI", "QQ=Q", "Q===", "QUJ=", "QR==", "QU I"}) {
    EXPECT_FALSE(Base64_Decode(none, bytes, sizeof bytes, &length)) << none;
  }
}

// ---- the super-user bracket ------------------------------------------------------------------

constexpr uid_t kUser = 4321;
bool geteuidIsAllOnes = false;

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
  const auto bracket = [&] {
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    const std::string lowered = "Uid:\t4321\t4321\t0\t4321", raised = "Uid:\t4321\t0\t0\t0";
    const uid_t saved = Id_BeginSuperUser();
    Id_EndSuperUser(Id_BeginSuperUser());
    EXPECT_TRUE(saved == kUser && UidsOf(self) == raised && UidsOf(getpid()) == lowered);
    EXPECT_TRUE(Fd(open(roots.Path().c_str(), O_RDONLY)));
    Id_EndSuperUser(saved);
    Id_EndSuperUser(saved);  // is there already
    EXPECT_TRUE(UidsOf(self) == lowered && getegid() == getgid());
  };
  InChild([&] {
    EXPECT_EQ("", LogOf([&] {
                // As the opener between its raises: the user's, but for the saved user id.
                ASSERT_TRUE(!Id_IsSetUGid() && setresgid(kUser, kUser, 0) == 0);
                ASSERT_TRUE(setresuid(kUser, kUser, 0) == 0 && Id_IsSetUGid());
                std::thread(bracket).join();
                // A bracket that was used leaves its mark.
                EXPECT_TRUE(setresuid(0, 0, 0) == 0 && Id_IsSetUGid());
              }));
  });
}

TEST(SuperUser, WhatCannotBeChangedIsToldOrLeftAlone) {
  RUN_AS_ROOT();
  InChild([] {
    EXPECT_EQ(
        "Failed to release super user privileges.\n", LogOf([] {
          // A set-group-ID program that has lowered itself: no bracket raises it.
          ASSERT_TRUE(setresgid(kUser, kUser, 0) == 0 && setresuid(kUser, kUser, kUser) == 0);
          EXPECT_TRUE(Id_BeginSuperUser() == kUser && geteuid() == kUser && getegid() == kUser);
          Id_EndSuperUser(kUser);
          Id_EndSuperUser(kUser + 1);
          EXPECT_TRUE(geteuid() == kUser && Hostinfo_ProcessState(1) == HOSTINFO_PROCESS_EXISTS);
        }));
  });
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
