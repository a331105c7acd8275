// SPDX-License-Identifier: ISC
// A block as read from the QMI tty: the first byte picks whether a response
// or the status indication is awaited, the second the awaited identifier,
// the rest is the block.
#include <cstddef>
#include <cstdint>

#include "qmi/internal.h"

namespace {
constexpr uint16_t kAwaited[] = {0x0000, 0x0002, 0x0020, 0x0021, 0x0022, 0x002D, 0x0001};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size - 2 > 0x7fffffff) return 0;
  const qmi_expect expect = {static_cast<uint8_t>((data[0] & 1) != 0 ? 0x04 : 0x02), 1,
                             kAwaited[data[1] % (sizeof kAwaited / sizeof kAwaited[0])]};
  connection_status = 1;
  reconfiguration_flag = 0;
  const int verdict = parse_msg(data + 2, &expect, static_cast<int>(size - 2));
  if (verdict < -3 || verdict > 0) __builtin_trap();
  if (link_settings.username[sizeof link_settings.username - 1] != '\0') __builtin_trap();
  return 0;
}
