// SPDX-License-Identifier: ISC
// The result TLV, as the reset, abort and stop responses are parsed.
#include <cstddef>
#include <cstdint>

#include "qmi/internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_qmi_result = 0;
  g_qmi_error = 7;
  const int ret = unpack_result_code(data, static_cast<uint32_t>(size));
  if (ret != 0 && ret != -1) __builtin_trap();
  // A malformed TLV always reads as failure with no error code.
  if (ret == -1 && (g_qmi_result != 1 || g_qmi_error != 0)) __builtin_trap();
  return 0;
}
