// hostServices_test.cpp -- the host's name and identity, paths that it knows, and Base64 against
// OpenSSL.
//
// Linked with --wrap=uname,--wrap=getifaddrs,--wrap=freeifaddrs: the test decides what the host is
// called and which interfaces it has.

#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <openssl/evp.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base64.h"
#include "heap.h"
#include "hostinfo.h"
#include "posix.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"
#include "uuid.h"

namespace {

// ---- identity --------------------------------------------------------------------------------

// The digests come from sha1sum: of the address with two zero bytes, or of the hash 177670.
#define ID_05 " 0000050403020102\n52 1b bc 37 56 80 e4 a0-1f b3 e6 2c a3 91 fc bc\n"
#define ID_06 " 0000060403020102\n52 2d 1d 06 c5 f3 83 d4-68 c3 2b 52 b6 94 75 79\n"
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
    {"a\xFF",
     {{"en0", 5}},
     "Warning: Hostinfo_MachineID Hostinfo_HostName failure; providing default.\n0" ID_05},
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

TEST(ModulePath, KnowsTwoPrivileges) {
  const HeapStr path(Hostinfo_GetModulePath(1));
  EXPECT_TRUE(std::filesystem::equivalent("/proc/self/exe", path.get()));
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

TEST(Base64, AgreesWithOpenSslAndStaysInItsRoom) {
  std::mt19937 random(64);
  std::string bytes;
  for (size_t size = 0; size < 300; bytes += static_cast<char>(random()), size++) {
    std::string expected((size + 2) / 3 * 4 + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(expected.data()),
                    reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int>(size));
    std::string out(expected.size() + 1, '#'), back(size + 1, '#');
    size_t length = 0;
    ASSERT_TRUE(Base64_Encode(bytes.data(), size, out.data(), expected.size(), &length));
    EXPECT_TRUE(expected + '#' == out && length == expected.size() - 1) << out;
    EXPECT_FALSE(Base64_Encode("x", size, out.data(), expected.size() - 1, &length));
    ASSERT_TRUE(Base64_Decode(expected.c_str(), back.data(), size, &length));
    EXPECT_TRUE(bytes + '#' == back && length == size) << expected;
    EXPECT_EQ(size == 0, Base64_Decode(expected.c_str(), back.data(), size - 1, &length));
  }
}

TEST(Base64, RefusesWhatHasNoTextAndTextsThatAreNone) {
  char out[8];
  size_t length;
  for (const size_t size : {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX - 2}) {
    EXPECT_FALSE(Base64_Encode("x", size, out, SIZE_MAX, nullptr));
  }
  for (const char *text : {"QUI", "QUI=QUI=", "=QUI", "QQ=Q", "Q===", "QUJ=", "QR==", "QU I"}) {
    EXPECT_FALSE(Base64_Decode(text, out, sizeof out, &length)) << text;
  }
}

}  // namespace

extern "C" {
int __wrap_uname(utsname *names);
int __wrap_uname(utsname *names) {
  strcpy(names->nodename, host->name.c_str());
  return 0;
}

int __wrap_getifaddrs(ifaddrs **list);
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

void __wrap_freeifaddrs(ifaddrs *list);
void __wrap_freeifaddrs(ifaddrs *) {}
}
