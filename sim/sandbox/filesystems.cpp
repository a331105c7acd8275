// SPDX-License-Identifier: ISC
#include "sim/sandbox/filesystems.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "sim/sandbox/files.h"
#include "sim/sandbox/layout.h"
#include "sim/sandbox/root.h"

namespace sandbox {

namespace {

void prepare_run(const Options& o) {
  // The exchange directory is taken before /run is covered: it may lie
  // below it.
  int exchange = check_fd(open_tree(AT_FDCWD, o.dir.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE),
                          "take the exchange directory");
  check(mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"), "mount /run");
  make_dir(kExchange);
  check(move_mount(exchange, "", AT_FDCWD, kExchange, MOVE_MOUNT_F_EMPTY_PATH), "mount the exchange directory");
  close(exchange);
}

// Only what the daemon, ifconfig, route and the simulator need.
void prepare_dev() {
  check(mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755"), "mount /dev");
  struct Node {
    const char* path;
    unsigned maj, min;
  };
  static constexpr Node kNodes[] = {{"/dev/null", 1, 3},   {"/dev/zero", 1, 5},    {"/dev/full", 1, 7},
                                    {"/dev/random", 1, 8}, {"/dev/urandom", 1, 9}, {"/dev/tty", 5, 0},
                                    {"/dev/net/tun", 10, 200}, {"/dev/fuse", 10, 229}};
  make_dir("/dev/net");
  for (const auto& n : kNodes) check(mknod(n.path, S_IFCHR | 0666, makedev(n.maj, n.min)), std::string("mknod ") + n.path);
  make_dir("/dev/pts");
  check(mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=0620"),
        "mount devpts");
  check(symlink("pts/ptmx", "/dev/ptmx"), "ptmx link");
  make_dir("/dev/shm", 01777);
  check(mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777"), "mount /dev/shm");
  check(symlink("/proc/self/fd", "/dev/fd"), "fd link");
  check(symlink("/proc/self/fd/0", "/dev/stdin"), "stdin link");
  check(symlink("/proc/self/fd/1", "/dev/stdout"), "stdout link");
  check(symlink("/proc/self/fd/2", "/dev/stderr"), "stderr link");
  // The simulator mounts the modem's tty on this file.
  write_file("/dev/qmitty0", "", 0666);
}

// /proc cannot take new files: a tmpfs with links into a fresh procfs, plus
// the chip file.
void prepare_proc(const Options& o) {
  make_dir(kRealProc);
  check(mount("proc", kRealProc, "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr), "mount procfs");
  check(mount("tmpfs", "/proc", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0555"), "mount /proc");
  const std::string real = kRealProc;
  DIR* d = opendir(kRealProc);
  if (!d) throw std::runtime_error("cannot list " + real);
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name == "." || name == ".." || name.find_first_not_of("0123456789") == std::string::npos) continue;
    check(symlink((real + "/" + name).c_str(), ("/proc/" + name).c_str()), "link /proc/" + name);
  }
  closedir(d);
  // Process directories cannot follow the processes into a tmpfs, so the
  // namespace's pids are kept below a small limit and every possible one
  // gets its link in advance (sanitizers and ps look there by number).
  int fd = open((real + "/sys/kernel/pid_max").c_str(), O_WRONLY | O_CLOEXEC);
  if (fd >= 0) {
    std::string max = std::to_string(kPidMax);
    ssize_t w = write(fd, max.data(), max.size());
    (void)w;  // without it pids may outrun their links; nothing else breaks
    close(fd);
  }
  for (int pid = 1; pid <= kPidMax; ++pid) {
    std::string n = std::to_string(pid);
    check(symlink((real + "/" + n).c_str(), ("/proc/" + n).c_str()), "link /proc/" + n);
  }
  if (o.chip) write_file("/proc/proc_user_datacardchip", *o.chip, 0444);
}

void prepare_var(const Options& o) {
  check(mount("tmpfs", "/var", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"), "mount /var");
  for (const char* p : {"/var/wan", "/var/log", "/var/tmp"}) make_dir(p);
  make_dir("/var/wan/" + o.ifname);
  check(symlink("/run", "/var/run"), "/var/run link");
  if (o.profile) write_file("/var/wan/" + o.ifname + "/config", *o.profile);
  if (o.dial) write_file("/var/wan/" + o.ifname + "/dial", *o.dial);
}

void install_stub_tools() {
  make_dir(kBinDir);
  write_file(std::string(kBinDir) + "/atcmd",
             "#!/bin/sh\n"
             "# Stand-in for the gateway's AT command tool: records its arguments.\n"
             "echo \"$*\" >> /run/sandbox/atcmd.log\n",
             0755);
}

}  // namespace

void prepare_filesystems(const Options& o) {
  make_own_root();
  prepare_run(o);
  prepare_dev();
  prepare_proc(o);
  // sysfs of this network namespace: lo and the modem's interface only.
  check(mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RDONLY, nullptr), "mount /sys");
  prepare_var(o);
  install_stub_tools();
  if (o.ro_root) {
    // Only this namespace's view of / changes; dropping MS_BIND here would
    // remount the host's root filesystem read-only.
    if (mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
      fprintf(stderr, "wds-sandbox: read-only root not available: %s\n", strerror(errno));
  }
  sethostname("wds-sandbox", 11);
}

}  // namespace sandbox
