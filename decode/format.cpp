// SPDX-License-Identifier: ISC
#include "decode/format.h"

#include <cstdarg>
#include <cstdio>

namespace wdsdecode {

uint16_t be16(std::string_view b, size_t at) {
  return static_cast<uint16_t>(static_cast<uint8_t>(b[at]) << 8 | static_cast<uint8_t>(b[at + 1]));
}

uint32_t be32(std::string_view b, size_t at) { return static_cast<uint32_t>(be16(b, at)) << 16 | be16(b, at + 2); }

std::string hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0x0f]);
  }
  return out;
}

std::string quoted(std::string_view bytes) {
  std::string out = "\"";
  for (unsigned char c : bytes) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\r': out += "\\r"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c >= 0x20 && c < 0x7f) out.push_back(static_cast<char>(c));
        else out += format("\\x%02x", c);
    }
  }
  return out + "\"";
}

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

namespace wdsdecode {

bool from_hex(std::string_view text, std::string* out) {
  auto digit = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (text.size() % 2 != 0) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = digit(text[i]), low = digit(text[i + 1]);
    if (high < 0 || low < 0) return false;
    out->push_back(static_cast<char>(high << 4 | low));
  }
  return true;
}

}  // namespace wdsdecode
