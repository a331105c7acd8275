// SPDX-License-Identifier: ISC
// Small text helpers shared by the simulator, the sandbox and their tests.
// Bytes and texts are written in the one notation of decode/notation.h.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "decode/notation.h"

namespace sim {

using notation::escape;
using notation::from_hex;
using notation::unescape;

// Splits on runs of white space.
std::vector<std::string> split_words(std::string_view line);
std::vector<std::string> split(std::string_view text, char sep);

// Whole-string unsigned number, decimal or 0x-prefixed hex, at most `max`.
std::optional<uint64_t> parse_uint(std::string_view text, uint64_t max = UINT64_MAX);
// Dotted IPv4 address to its number: "192.168.0.1" -> 0xC0A80001.
std::optional<uint32_t> parse_ipv4(std::string_view text);
std::string format_ipv4(uint32_t addr);

bool starts_with_nocase(std::string_view text, std::string_view prefix);
bool equals_nocase(std::string_view a, std::string_view b);

// "key=value" -> {key, value}; a bare word gives {word, ""}.
std::pair<std::string, std::string> key_value(std::string_view word);

}  // namespace sim
