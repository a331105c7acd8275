// SPDX-License-Identifier: ISC
// A packet-service-status indication from its message identifier on.
#include <cstddef>
#include <cstdint>

#include "qmi/internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  connection_status = 1;
  reconfiguration_flag = 0;
  const int ret = parse_srvc_status_ind(data, static_cast<uint32_t>(size));
  if (ret != 0 && ret != -1) __builtin_trap();
  // An accepted indication leaves only valid values behind.
  if (ret == 0 && (connection_status < 1 || connection_status > 4 || reconfiguration_flag > 1)) __builtin_trap();
  return 0;
}
