// SPDX-License-Identifier: ISC
// wds-decode's input: any bytes as a wds.log or device log (dumps cut
// anywhere, garbage), and any bytes as a block of the wire. The decoder must
// end without a fault, and what it writes itself stays one line per item.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "decode/decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  wdsdecode::decode_log(bytes);
  for (const auto& line : wdsdecode::describe_block(bytes))
    if (line.find_first_of("\r\n") != std::string_view::npos) abort();
  return 0;
}
