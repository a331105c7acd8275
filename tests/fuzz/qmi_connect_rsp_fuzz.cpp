// SPDX-License-Identifier: ISC
// A start-network response from its message identifier on.
#include <cstddef>
#include <cstdint>

#include "qmi/internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  conn_handle = 0;
  const int ret = parse_connect_rsp(data, static_cast<uint32_t>(size));
  if (ret != 0 && ret != -1) __builtin_trap();
  // Accepted only with a success result and a handle.
  if (ret == 0 && (g_qmi_result != 0 || conn_handle == 0)) __builtin_trap();
  return 0;
}
