// SPDX-License-Identifier: ISC
// DHCP and IPv6 capability reply texts as the fetches read them back from
// their result files: any text up to the 255 bytes a file pass keeps.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "at/internal.h"

namespace {
void check(bool ok) {
  if (!ok) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char text[kAtSmallFileSize];
  const size_t len = size < sizeof text - 1 ? size : sizeof text - 1;
  memcpy(text, data, len);
  text[len] = '\0';

  link_settings_t record;
  memset(&record, 0xa5, sizeof record);
  const link_settings_t before = record;
  const int ret = parse_dhcp_reply(text, &record);
  // Only the five address words may change; a reply is one that names itself.
  check((ret == 0 && strstr(text, "^DHCP") != nullptr) || ret == -1);
  check(memcmp(record.username, before.username, sizeof record.username) == 0 && record.auth_pref == before.auth_pref);

  int capability = 99;
  const int cap_ret = parse_ipv6cap_reply(text, &capability);
  check((cap_ret == 0 && (capability == 1 || capability == 7)) || (cap_ret == -1 && capability == 99));

  const uint32_t word = hex_to_u32(text);
  if (len == 0 || strspn(text, "0123456789abcdefABCDEF") != strlen(text)) check(word == 0);
  return 0;
}
