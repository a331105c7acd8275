// SPDX-License-Identifier: ISC
// A get-runtime-settings response from its message identifier on.
#include <cstddef>
#include <cstdint>

#include "qmi/internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  connection_status = 2;
  const int ret = parse_runtime_rsp(data, static_cast<uint32_t>(size));
  if (ret != 0 && ret != -1) __builtin_trap();
  if (ret == 0 && g_qmi_result != 0) __builtin_trap();
  // The user name is always terminated within its field.
  if (link_settings.username[sizeof link_settings.username - 1] != '\0') __builtin_trap();
  if (connection_status != 2 && !(ret == -1 && g_qmi_error == kQmiErrOutOfCall)) __builtin_trap();
  return 0;
}
