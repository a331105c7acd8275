// SPDX-License-Identifier: ISC
// A block as read from the QMI tty: the first byte picks whether a response
// or the status indication is awaited, the second the awaited identifier,
// the rest is the block.
#include <cstddef>
#include <cstdint>

#include "qmi/internal.h"
#include "qmi/qmi.h"

namespace {
// The identifiers the daemon awaits, and one it never asks for.
constexpr uint16_t kUnknownId = 0x0001;
constexpr uint16_t kAwaited[] = {kWdsReset,         kWdsAbort,           kWdsStartNetwork, kWdsStopNetwork,
                                 kWdsPktSrvcStatus, kWdsRuntimeSettings, kUnknownId};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size - 2 > 0x7fffffff) return 0;
  const qmi_expect expect = {(data[0] & 1) != 0 ? kQmiCtlIndication : kQmiCtlResponse, 1,
                             kAwaited[data[1] % (sizeof kAwaited / sizeof kAwaited[0])]};
  connection_status = 1;
  reconfiguration_flag = 0;
  const int verdict = parse_msg(data + 2, &expect, static_cast<int>(size - 2));
  if (verdict < -3 || verdict > 0) __builtin_trap();
  if (link_settings.username[sizeof link_settings.username - 1] != '\0') __builtin_trap();
  return 0;
}
