// The per-interface control files: status, dial request and pid file.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "core/core.h"
#include "core/paths.h"
#include "log/log.h"

namespace {
constexpr size_t kFilePathSize = 128;
}

int WriteToFile(const char* path, const char* text) {
  FILE* file = fopen(path, "w");
  if (file == nullptr) {
    MAIN_ERROR("WriteToFile open file[%s] fail.", path);
    return -1;
  }
  fprintf(file, "%s\n", text);
  fclose(file);
  return 0;
}

int wds_status_write(int code) {
  char path[kFilePathSize];
  char text[kFilePathSize];
  snprintf(path, sizeof path, wds_paths::kWanStatusFmt, g_acIfname);
  snprintf(text, sizeof text, "%d", code);
  WriteToFile(path, text);
  return 0;
}

int wds_dial_read() {
  char path[kFilePathSize];
  snprintf(path, sizeof path, wds_paths::kWanDialFmt, g_acIfname);
  FILE* file = fopen(path, "r");
  if (file == nullptr) return WDS_DIAL_NONE;
  char line[8] = {};
  if (fgets(line, sizeof line, file) == nullptr) line[0] = '\0';
  fclose(file);
  return atoi(line);
}

void wds_dial_take_request() {
  char path[kFilePathSize];
  snprintf(path, sizeof path, wds_paths::kWanDialFmt, g_acIfname);
  FILE* file = fopen(path, "w");
  if (file == nullptr) return;
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
  if (g_acPidpath[0] != '\0' && access(g_acPidpath, F_OK) == 0) remove(g_acPidpath);
}
