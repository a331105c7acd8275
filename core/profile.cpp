// SPDX-License-Identifier: ISC
// The dial profile "/var/wan/<ifname>/config": one "key = value" per line.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/core.h"

namespace {

constexpr size_t kProfileLineSize = 256;

// A text value, cut to its field.
template <size_t N>
void copy_value(char (&field)[N], const char* value) {
  snprintf(field, N, "%s", value);
}

// Keys are tested in this order as substrings; the first one found decides.
void profile_parse_line(const char* line) {
  const char* value = nullptr;
  auto found = [&](const char* key) {
    const char* at = strstr(line, key);
    if (at == nullptr) return false;
    value = at + strlen(key);
    return true;
  };
  if (found("username = ")) {
    copy_value(wan_profile.username, value);
  } else if (found("password = ")) {
    copy_value(wan_profile.password, value);
  } else if (found("dial_mode = ")) {
    copy_value(wan_profile.dial_mode, value);
  } else if (found("auth = ")) {
    wan_profile.auth = static_cast<uint32_t>(atoi(value));
  } else if (found("idletime = ")) {
    wan_profile.idletime = static_cast<uint32_t>(atoi(value));
  } else if (found("dialnumber = ")) {
    copy_value(wan_profile.dialnumber, value);
  } else if (found("setapn = ")) {
    copy_value(wan_profile.apn, value);
  } else if (found("setip = ")) {
    copy_value(wan_profile.ip, value);
  } else if (found("mru = ")) {
    wan_profile.mru = static_cast<uint32_t>(atoi(value));
  }
}

}  // namespace

void profile_read(FILE* file) {
  // A longer line arrives in pieces of up to 255 characters, each a line.
  char line[kProfileLineSize];
  while (fgets(line, sizeof line, file) != nullptr) {
    size_t len = strlen(line);
    if (len > 0 && line[len - 1] == '\n') line[len - 1] = '\0';
    profile_parse_line(line);
  }
}

int get_curr_profile() {
  snprintf(g_acProfilepath, sizeof g_acProfilepath, wds_paths::kWanFileFmt, g_acIfname,
           wds_paths::kWanConfig);
  printf("\ng_acProfilepath=[%s]\n", g_acProfilepath);
  if (access(g_acProfilepath, F_OK) != 0) return -1;

  // Read once per bring-up: a stream is good enough here.
  FILE* file = fopen(g_acProfilepath, "re");
  if (file == nullptr) {
    MAIN_ERROR("get_curr_profile : open profile err.");
    return -1;
  }
  profile_read(file);
  fclose(file);
  return 0;
}
