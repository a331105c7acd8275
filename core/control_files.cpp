// SPDX-License-Identifier: ISC
// The per-interface control files the connection manager owns: the dial
// request and the pid file (the status file is in wan/). They are read and
// written with descriptors: the dial file is read on every tick.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "core/core.h"

namespace {
// The request is one line of at most 7 characters.
constexpr size_t kDialLineMax = 7;
constexpr size_t kPidTextSize = 16;
}  // namespace

int wds_dial_parse(const char* bytes, size_t len) {
  // The first line only, with its newline if that is within the 7: a
  // number on a later line is not the request.
  char line[kDialLineMax + 1] = {};
  for (size_t i = 0; i < len && i < kDialLineMax; ++i) {
    line[i] = bytes[i];
    if (bytes[i] == '\n') break;
  }
  return atoi(line);
}

int wds_dial_read() {
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kWanFileFmt, g_acIfname, wds_paths::kWanDial);
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return WDS_DIAL_NONE;
  char bytes[kDialLineMax];
  const ssize_t got = read(fd, bytes, sizeof bytes);
  close(fd);
  return wds_dial_parse(bytes, got > 0 ? static_cast<size_t>(got) : 0);
}

void wds_dial_take_request() {
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kWanFileFmt, g_acIfname, wds_paths::kWanDial);
  const int fd = var_file_open(path, O_WRONLY | O_TRUNC);
  if (fd < 0) return;  // silently: the request then stays and is taken again
  var_file_write(fd, "0", "");
  close(fd);
}

int wds_pid_file_create() {
  snprintf(g_acPidpath, sizeof g_acPidpath, wds_paths::kWanFileFmt, g_acIfname, wds_paths::kWanPid);
  printf("\ng_acPidpath=[%s]\n", g_acPidpath);
  const int fd = var_file_open(g_acPidpath, O_RDWR | O_TRUNC);
  if (fd < 0) {
    MAIN_INFO("open pid file failed.\n");
    return -1;
  }
  char pid[kPidTextSize];
  snprintf(pid, sizeof pid, "%d", static_cast<int>(getpid()));
  var_file_write(fd, pid, "");
  close(fd);
  return 0;
}

void wds_pid_file_remove() {
  // Nothing is left to do when it cannot be removed: the process is ending.
  if (g_acPidpath[0] != '\0' && access(g_acPidpath, F_OK) == 0) remove(g_acPidpath);
}
