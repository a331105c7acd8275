// SPDX-License-Identifier: ISC
// A dial profile file as bring-up parses it: every text field stays
// terminated within its size, and a value that was set stands in the file
// right behind its key.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/core.h"

namespace {

template <size_t N>
void check_text(const uint8_t* data, size_t size, const char* key, const char (&field)[N]) {
  if (strnlen(field, N) == N) __builtin_trap();
  char keyed[32 + N];
  const int n = snprintf(keyed, sizeof keyed, "%s%s", key, field);
  if (field[0] != '\0' && memmem(data, size, keyed, static_cast<size_t>(n)) == nullptr) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "r");
  if (file == nullptr) return 0;
  memset(&wan_profile, 0, sizeof wan_profile);
  profile_read(file);
  fclose(file);
  check_text(data, size, "username = ", wan_profile.username);
  check_text(data, size, "password = ", wan_profile.password);
  check_text(data, size, "dial_mode = ", wan_profile.dial_mode);
  check_text(data, size, "dialnumber = ", wan_profile.dialnumber);
  check_text(data, size, "setapn = ", wan_profile.apn);
  check_text(data, size, "setip = ", wan_profile.ip);
  return 0;
}
