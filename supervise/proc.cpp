// SPDX-License-Identifier: ISC
// What /proc says about a process, read into fixed buffers: the directory
// is listed with getdents64 rather than opendir(), which allocates.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "supervise/supervise.h"

namespace {

// Reads a whole small file into `buf`, terminated; its length, or -1.
ssize_t read_small(const char* path, char* buf, size_t size) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  ssize_t n = read(fd, buf, size - 1);
  close(fd);
  if (n < 0) return -1;
  buf[n] = '\0';
  return n;
}

// A linux_dirent64 as getdents64 lays it out.
struct dirent64_head {
  uint64_t ino;
  int64_t off;
  unsigned short reclen;
  unsigned char type;
  char name[];
};

pid_t parse_pid(const char* name) {
  if (*name < '1' || *name > '9') return 0;
  char* end;
  long v = strtol(name, &end, 10);
  return *end == '\0' && v > 0 ? static_cast<pid_t>(v) : 0;
}

}  // namespace

int proc_read(pid_t pid, proc_info* out) {
  char path[32], buf[512];
  snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  if (read_small(path, buf, sizeof buf) < 0) return -1;
  // "pid (comm) state ppid ..."; the name may hold blanks and parentheses.
  char* open_paren = strchr(buf, '(');
  char* close_paren = strrchr(buf, ')');
  if (!open_paren || !close_paren || close_paren < open_paren) return -1;
  size_t comm_len = static_cast<size_t>(close_paren - open_paren - 1);
  if (comm_len >= sizeof out->comm) comm_len = sizeof out->comm - 1;
  memcpy(out->comm, open_paren + 1, comm_len);
  out->comm[comm_len] = '\0';
  // After the name: field 3 (state) is the first, field 22 (start time) the 20th.
  char* p = close_paren + 1;
  for (int field = 3; field <= 22; ++field) {
    while (*p == ' ') ++p;
    if (*p == '\0') return -1;
    if (field == 3) out->state = *p;
    if (field == 4) out->ppid = static_cast<pid_t>(strtol(p, nullptr, 10));
    if (field == 22) out->start_ticks = strtoull(p, nullptr, 10);
    while (*p != ' ' && *p != '\0') ++p;
  }
  return 0;
}

bool proc_catches(pid_t pid, int sig) {
  char path[32], buf[4096];
  snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
  if (read_small(path, buf, sizeof buf) < 0) return false;
  const char* caught = strstr(buf, "\nSigCgt:");
  if (!caught) return false;
  uint64_t mask = strtoull(caught + 8, nullptr, 16);
  return sig >= 1 && sig <= 64 && ((mask >> (sig - 1)) & 1) != 0;
}

pid_t proc_find(proc_match match, void* ctx) {
  int dir = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return 0;
  alignas(8) char buf[4096];
  pid_t found = 0;
  long n;
  while (found == 0 && (n = syscall(SYS_getdents64, dir, buf, sizeof buf)) > 0) {
    for (long off = 0; off < n && found == 0;) {
      const auto* d = reinterpret_cast<const dirent64_head*>(buf + off);
      off += d->reclen;
      pid_t pid = parse_pid(d->name);
      proc_info p;
      if (pid > 0 && proc_read(pid, &p) == 0 && match(ctx, pid, p)) found = pid;
    }
  }
  close(dir);
  return found;
}
