// The AT response parser on arbitrary text. Input: one byte choosing the
// selector (mostly 9, the DHCP layout), one byte giving the prefix length,
// the prefix, then the text.
#include <algorithm>
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

bool blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int selector = (data[0] & 0x80) != 0 ? static_cast<int8_t>(data[0]) : 9;
  const size_t prefix_len = std::min<size_t>(data[1] % 12, size - 2);
  const std::string prefix(reinterpret_cast<const char*>(data + 2), prefix_len);
  const std::string text(reinterpret_cast<const char*>(data + 2 + prefix_len), size - 2 - prefix_len);

  at_cmd_field* head = reinterpret_cast<at_cmd_field*>(0x1);
  const int ret = at_cmd_parse(&head, prefix.c_str(), text.c_str(), selector, 0);
  int count = 0;
  for (const at_cmd_field* f = head; f != nullptr; f = f->next, ++count) {
    check(selector == 9 && count < 8);
    check(f->name != nullptr && strcmp(f->name, kDhcpNames[count]) == 0);
    if (f->value != nullptr) {
      const size_t n = strlen(f->value);
      check(n > 0 && strpbrk(f->value, ",\r\n") == nullptr);
      check(!blank(f->value[0]) && !blank(f->value[n - 1]));
      check(strstr(text.c_str(), f->value) != nullptr);
    }
  }
  check(ret == (count > 0 ? count : -1));
  if (count > 0) check(strstr(text.c_str(), prefix.c_str()) != nullptr);
  free_at_cmd(head == reinterpret_cast<at_cmd_field*>(0x1) ? nullptr : head);
  check(head != reinterpret_cast<at_cmd_field*>(0x1));
  return 0;
}
