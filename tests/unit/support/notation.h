// SPDX-License-Identifier: ISC
// The notation of bytes and texts that the vector files share with the
// simulator, the decoder and the end-to-end tests:
//   bytes as hex, two digits a byte, blanks between bytes allowed
//   ("00 01 02" or "000102");
//   texts with C escapes \r \n \t \0 \\ \" and \xHH for any byte.
// Written once here, for every unit program; the vector files' repetition
// shorthand is a layer above it (unit.cpp).
#pragma once
#include <optional>
#include <string>
#include <string_view>

namespace notation {

// Nothing when a digit is not hex, a byte is not two digits, or a blank
// splits a byte.
std::optional<std::string> from_hex(std::string_view text);
// Nothing on an unknown escape or a \x without two hex digits.
std::optional<std::string> unescape(std::string_view text);

}  // namespace notation
