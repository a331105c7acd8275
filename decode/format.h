// SPDX-License-Identifier: ISC
// Text helpers of the decoder.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace wdsdecode {

// Most significant byte first; the caller has checked the bytes are there.
uint16_t be16(std::string_view b, size_t at);
uint32_t be32(std::string_view b, size_t at);

// Lower-case hex without separators.
std::string hex(std::string_view bytes);
// Between double quotes, with \" \\ \r \n \t and \xHH for other bytes
// outside printable ASCII.
std::string quoted(std::string_view bytes);
// Four bytes in wire order as a dotted quad.
std::string dotted_quad(std::string_view four);
// printf into a std::string.
__attribute__((format(printf, 1, 2))) std::string format(const char* fmt, ...);

}  // namespace wdsdecode

namespace wdsdecode {

// Hex digits, two per byte, nothing else; false otherwise.
bool from_hex(std::string_view text, std::string* out);

}  // namespace wdsdecode
