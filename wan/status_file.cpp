// SPDX-License-Identifier: ISC
// One-line state files under /var/wan/<ifname>/, and the status file.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "wan/wan.h"

int WriteToFile(const char* path, const char* text) {
  const int fd = var_file_open(path, O_WRONLY | O_TRUNC);
  if (fd < 0) {
    MAIN_ERROR("WriteToFile open file[%s] fail.", path);
    return -1;
  }
  // One short line: once the file is open, the write is taken as done.
  var_file_write(fd, text, "\n");
  close(fd);
  return 0;
}

int wds_status_write(int code) {
  char path[kTextBufSize];
  char text[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kWanFileFmt, g_acIfname, wds_paths::kWanStatus);
  snprintf(text, sizeof text, "%d", code);
  // A status that cannot be written is logged by WriteToFile; nothing else to do.
  WriteToFile(path, text);
  return 0;
}
