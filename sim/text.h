// SPDX-License-Identifier: ISC
// Small text helpers shared by the simulator, the sandbox and their tests.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// Accepts hex digits with optional blanks, ':' or '-' between byte pairs.
// Returns nullopt on an odd digit count or a non-hex character.
std::optional<std::string> from_hex(std::string_view text);

// Splits on runs of white space.
std::vector<std::string> split_words(std::string_view line);
std::vector<std::string> split(std::string_view text, char sep);

// Whole-string unsigned number, decimal or 0x-prefixed hex, at most `max`.
std::optional<uint64_t> parse_uint(std::string_view text, uint64_t max = UINT64_MAX);
// Dotted IPv4 address to its number: "192.168.0.1" -> 0xC0A80001.
std::optional<uint32_t> parse_ipv4(std::string_view text);
std::string format_ipv4(uint32_t addr);

// C-style escapes \r \n \t \\ \" \xHH, so that a control command can carry
// any byte on one line.
std::optional<std::string> unescape(std::string_view text);
std::string escape(std::string_view bytes);

bool starts_with_nocase(std::string_view text, std::string_view prefix);
bool equals_nocase(std::string_view a, std::string_view b);

// "key=value" -> {key, value}; a bare word gives {word, ""}.
std::pair<std::string, std::string> key_value(std::string_view word);

}  // namespace sim
