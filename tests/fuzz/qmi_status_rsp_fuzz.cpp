// SPDX-License-Identifier: ISC
// A packet-service-status response from its message identifier on.
#include <cstddef>
#include <cstdint>

#include "qmi/internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_connection_status_rsp = 1;
  const int ret = parse_status_rsp(data, static_cast<uint32_t>(size));
  if (ret != 0 && ret != -1) __builtin_trap();
  if (ret == 0 && g_qmi_result != 0) __builtin_trap();
  if (ret != 0 && g_connection_status_rsp != 1) __builtin_trap();
  return 0;
}
