// SPDX-License-Identifier: ISC
#include "sim/text.h"

#include <cctype>
#include <cstdio>

namespace sim {

namespace {
int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }
}  // namespace

std::vector<std::string> split_words(std::string_view line) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
    size_t start = i;
    while (i < line.size() && !std::isspace(static_cast<unsigned char>(line[i]))) ++i;
    if (i > start) words.emplace_back(line.substr(start, i - start));
  }
  return words;
}

std::vector<std::string> split(std::string_view text, char sep) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t pos = text.find(sep, start);
    if (pos == std::string_view::npos) {
      parts.emplace_back(text.substr(start));
      return parts;
    }
    parts.emplace_back(text.substr(start, pos - start));
    start = pos + 1;
  }
}

std::optional<uint64_t> parse_uint(std::string_view text, uint64_t max) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty() || text.size() > 20) return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    int d = hex_digit(c);
    if (d < 0 || d >= base) return std::nullopt;
    if (value > (max - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) return std::nullopt;
    value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
  }
  return value;
}

std::optional<uint32_t> parse_ipv4(std::string_view text) {
  auto parts = split(text, '.');
  if (parts.size() != 4) return std::nullopt;
  uint32_t addr = 0;
  for (const auto& p : parts) {
    if (p.empty() || p.size() > 3 || p.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    auto v = parse_uint(p, 255);
    if (!v) return std::nullopt;
    addr = addr << 8 | static_cast<uint32_t>(*v);
  }
  return addr;
}

std::string format_ipv4(uint32_t addr) {
  char buf[16];
  snprintf(buf, sizeof buf, "%u.%u.%u.%u", addr >> 24, addr >> 16 & 0xff, addr >> 8 & 0xff, addr & 0xff);
  return buf;
}

bool starts_with_nocase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i)
    if (lower(text[i]) != lower(prefix[i])) return false;
  return true;
}

bool equals_nocase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && starts_with_nocase(a, b);
}

std::pair<std::string, std::string> key_value(std::string_view word) {
  size_t eq = word.find('=');
  if (eq == std::string_view::npos) return {std::string(word), std::string()};
  return {std::string(word.substr(0, eq)), std::string(word.substr(eq + 1))};
}

}  // namespace sim
