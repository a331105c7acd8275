// SPDX-License-Identifier: ISC
// Text helpers of the decoder.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "decode/notation.h"

namespace wdsdecode {

using notation::hex;

// Most significant byte first; the caller has checked the bytes are there.
uint16_t be16(std::string_view b, size_t at);
uint32_t be32(std::string_view b, size_t at);

// Between double quotes, in the escapes of the notation.
std::string quoted(std::string_view bytes);
// Four bytes in wire order as a dotted quad.
std::string dotted_quad(std::string_view four);
// printf into a std::string.
__attribute__((format(printf, 1, 2))) std::string format(const char* fmt, ...);

}  // namespace wdsdecode
