// The per-interface control files the connection manager owns: the dial
// request and the pid file (the status file is in wan/).
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "core/core.h"

int wds_dial_read() {
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kWanDialFmt, g_acIfname);
  FILE* file = fopen(path, "r");
  if (file == nullptr) return WDS_DIAL_NONE;
  char line[8] = {};
  if (fgets(line, sizeof line, file) == nullptr) line[0] = '\0';
  fclose(file);
  return atoi(line);
}

void wds_dial_take_request() {
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kWanDialFmt, g_acIfname);
  FILE* file = fopen(path, "w");
  if (file == nullptr) return;  // silently: the request then stays and is taken again
  fputs("0", file);
  fclose(file);
}

int wds_pid_file_create() {
  snprintf(g_acPidpath, sizeof g_acPidpath, wds_paths::kWanPidFmt, g_acIfname);
  printf("\ng_acPidpath=[%s]\n", g_acPidpath);
  FILE* file = fopen(g_acPidpath, "w+");
  if (file == nullptr) {
    MAIN_INFO("open pid file failed.\n");
    return -1;
  }
  fprintf(file, "%d", static_cast<int>(getpid()));
  fclose(file);
  return 0;
}

void wds_pid_file_remove() {
  // Nothing is left to do when it cannot be removed: the process is ending.
  if (g_acPidpath[0] != '\0' && access(g_acPidpath, F_OK) == 0) remove(g_acPidpath);
}
