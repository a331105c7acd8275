// SPDX-License-Identifier: ISC
// The one notation for bytes and texts that the simulator, the decoder, the
// replay tool and the tests read and write:
//   bytes as hex, two digits a byte, lower case on output; blanks (space or
//   tab) between bytes are allowed on input: "00 01 02" or "000102";
//   texts with C escapes \r \n \t \0 \\ \" and \xHH for any byte.
// A library of its own, built in every preset: no FUSE, nothing of the
// workstation tools.
#pragma once
#include <optional>
#include <string>
#include <string_view>

namespace notation {

std::string hex(std::string_view bytes);
// Nothing when a digit is not hex, a byte is not two digits, or a blank
// splits a byte.
std::optional<std::string> from_hex(std::string_view text);

// Printable ASCII as it is (blanks included), but for \ and "; every other
// byte escaped.
std::string escape(std::string_view bytes);
// Nothing on an unknown escape or a \x without two hex digits.
std::optional<std::string> unescape(std::string_view text);

}  // namespace notation
