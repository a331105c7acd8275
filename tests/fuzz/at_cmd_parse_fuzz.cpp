// SPDX-License-Identifier: ISC
// The AT response parser on arbitrary text. Input: one byte choosing the
// selector (mostly 9, the DHCP layout), one byte giving the prefix length,
// the prefix, then the text.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/platform.h"

namespace {

constexpr const char* kDhcpNames[] = {"clip", "netmask", "gate", "dhcp", "pDNS", "sDNS", "max_rx_data", "max_tx_data"};

void check(bool ok) {
  if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int selector = (data[0] & 0x80) != 0 ? static_cast<int8_t>(data[0]) : 9;
  const size_t prefix_len = std::min<size_t>(data[1] % 12, size - 2);
  // The parser reads the prefix as a C string: up to its first NUL.
  const std::string prefix(std::string(reinterpret_cast<const char*>(data + 2), prefix_len).c_str());
  const std::string text(reinterpret_cast<const char*>(data + 2 + prefix_len), size - 2 - prefix_len);

  at_cmd_field* head = reinterpret_cast<at_cmd_field*>(0x1);  // must be overwritten, also on failure
  const int ret = at_cmd_parse(&head, prefix.c_str(), text.c_str(), selector, 0);
  int count = 0;
  for (const at_cmd_field* f = head; f != nullptr; f = f->next, ++count) {
    // Named by the layout, each value trimmed, within one line of the text.
    check(selector == 9 && count < 8 && strcmp(f->name, kDhcpNames[count]) == 0);
    const size_t n = f->value != nullptr ? strlen(f->value) : 1;
    check(n > 0 && (f->value == nullptr || (strpbrk(f->value, ",\r\n") == nullptr && !isblank(f->value[0]) &&
                                            !isblank(f->value[n - 1]) && text.find(f->value) != std::string::npos)));
  }
  check(ret == (count > 0 ? count : -1) && (count == 0 || text.find(prefix) != std::string::npos));
  free_at_cmd(head);
  return 0;
}
