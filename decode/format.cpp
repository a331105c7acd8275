// SPDX-License-Identifier: ISC
#include "decode/format.h"

#include <cstdarg>
#include <cstdio>

namespace wdsdecode {

uint16_t be16(std::string_view b, size_t at) {
  return static_cast<uint16_t>(static_cast<uint8_t>(b[at]) << 8 | static_cast<uint8_t>(b[at + 1]));
}

uint32_t be32(std::string_view b, size_t at) { return static_cast<uint32_t>(be16(b, at)) << 16 | be16(b, at + 2); }

std::string quoted(std::string_view bytes) { return "\"" + notation::escape(bytes) + "\""; }

std::string dotted_quad(std::string_view four) {
  return format("%u.%u.%u.%u", static_cast<uint8_t>(four[0]), static_cast<uint8_t>(four[1]),
                static_cast<uint8_t>(four[2]), static_cast<uint8_t>(four[3]));
}

std::string format(const char* fmt, ...) {
  va_list ap, again;
  va_start(ap, fmt);
  va_copy(again, ap);
  int n = vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) vsnprintf(out.data(), out.size() + 1, fmt, again);
  va_end(again);
  return out;
}

}  // namespace wdsdecode
