// sandboxRoot.cpp -- a root directory of bind mounts around a few folders of its own.

#include "tests/support/sandboxRoot.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// The new root is assembled over the host's /run, the one folder that every host has and no sandbox
// shows.  So no folder has to be made on the host.
const fs::path kNewRoot = "/run";

// Reached through the links in the sandbox's own /etc.
const fs::path kHostEtc = "/.host-etc";

// Made by the sandbox itself.
const std::set<fs::path> kOwn = {"Applications", "Library", "etc", "lost+found", "proc", "run"};

void Check(int result, const std::string &what) {
  if (result != 0) throw std::system_error(errno, std::generic_category(), what);
}

void MakeDir(const fs::path &path, mode_t mode = 0755) {
  Check(mkdir(path.c_str(), mode), "mkdir " + path.string());
}

void Mount(const char *source, const fs::path &target, const char *type, unsigned long flags,
           const char *data = nullptr) {
  Check(mount(source, target.c_str(), type, flags, data), "mount " + target.string());
}

// A user namespace may copy mounts only together with those below them, hence MS_REC.
void BindHostFolder(const fs::path &source, const fs::path &target) {
  MakeDir(target);
  Mount(source.c_str(), target, nullptr, MS_BIND | MS_REC);
}

void BindHostFolders() {
  for (const fs::directory_entry &entry : fs::directory_iterator("/")) {
    const fs::path name = entry.path().filename();
    if (kOwn.contains(name)) continue;
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), kNewRoot / name);
    } else if (entry.is_directory()) {
      BindHostFolder(entry.path(), kNewRoot / name);
    }
  }
}

void MakeEtc() {
  BindHostFolder("/etc", kNewRoot / kHostEtc.relative_path());
  MakeDir(kNewRoot / "etc");
  for (const fs::directory_entry &entry : fs::directory_iterator("/etc")) {
    const fs::path name = entry.path().filename();
    if (name != "zephrin") fs::create_symlink(kHostEtc / name, kNewRoot / "etc" / name);
  }
  MakeDir(kNewRoot / "etc/zephrin");
}

void MakeOwnFolders() {
  for (const char *name : {"Applications", "Library", "run", "proc"}) MakeDir(kNewRoot / name);
  const int mark = creat((kNewRoot / fs::path(kSandboxMark).relative_path()).c_str(), 0444);
  Check(mark < 0 ? -1 : close(mark), "making the sandbox's mark");
}

// Where the host still has a folder of its own there.
void LeadVarRunToRun() {
  if (fs::equivalent("/var/run", "/run")) return;
  Mount("/run", "/var/run", nullptr, MS_BIND);
}

// The old root stays mounted on top of the new one for a moment, at the same place.
void PivotToNewRoot() {
  Check(chdir(kNewRoot.c_str()), "chdir to the new root");
  Check(static_cast<int>(syscall(SYS_pivot_root, ".", ".")), "pivot_root");
  Check(umount2(".", MNT_DETACH), "umount of the old root");
  Check(chdir("/"), "chdir /");
}

}  // namespace

void SandboxRoot_Enter() {
  umask(022);
  // Nothing that is mounted from here on reaches the host.
  Mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE);
  Mount("lumen-sandbox", kNewRoot, "tmpfs", 0, "mode=0755");
  BindHostFolders();
  MakeEtc();
  MakeOwnFolders();
  // A user namespace gets a new proc only while it still sees a whole old one: before the pivot.
  Mount("proc", kNewRoot / "proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
  PivotToNewRoot();
  LeadVarRunToRun();
}
