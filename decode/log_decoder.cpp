// SPDX-License-Identifier: ISC
// Reading the daemon's log and the simulator's device log. A dump in the
// log is a header line "message(0x%04x) buf(%dbytes)" (the id's two bytes
// show swapped) and one row per 16 bytes, "%04d: " and "%02x " per byte with
// three more blanks after the eighth. The log restarts at 64 KiB, and copies
// of it are cut anywhere, so a dump may lack its start or its end.
#include <algorithm>
#include <cctype>
#include <cstdint>

#include "decode/decode.h"
#include "decode/format.h"

namespace wdsdecode {

namespace {

// No dump of the daemon comes near this; a header claiming more is text.
constexpr size_t kMaxDumpLen = 1 << 20;
constexpr size_t kRowBytes = 16;

std::string_view without_cr(std::string_view s) {
  if (!s.empty() && s.back() == '\r') s.remove_suffix(1);
  return s;
}

bool take_literal(std::string_view* s, std::string_view literal) {
  if (!s->starts_with(literal)) return false;
  s->remove_prefix(literal.size());
  return true;
}

// Leading decimal digits (at least one, value at most `max`).
bool take_decimal(std::string_view* s, size_t max, size_t* value) {
  size_t i = 0, v = 0;
  while (i < s->size() && std::isdigit(static_cast<unsigned char>((*s)[i]))) {
    const size_t digit = static_cast<size_t>((*s)[i] - '0');
    if (v > (max - digit) / 10) return false;
    v = v * 10 + digit;
    ++i;
  }
  if (i == 0) return false;
  s->remove_prefix(i);
  *value = v;
  return true;
}

// "message(0x2000) buf(41bytes)" -> 41.
bool dump_header(std::string_view s, size_t* len) {
  s = without_cr(s);
  if (!take_literal(&s, "message(0x") || s.size() < 4) return false;
  for (int i = 0; i < 4; ++i)
    if (!std::isxdigit(static_cast<unsigned char>(s[static_cast<size_t>(i)]))) return false;
  s.remove_prefix(4);
  return take_literal(&s, ") buf(") && take_decimal(&s, kMaxDumpLen, len) && take_literal(&s, "bytes)") && s.empty();
}

// "0016: 2d 00 ..." -> offset 16 and its bytes.
bool dump_row(std::string_view s, size_t* offset, std::string* bytes) {
  s = without_cr(s);
  if (!take_decimal(&s, kMaxDumpLen, offset) || !take_literal(&s, ": ")) return false;
  bytes->clear();
  std::string one;
  while (!s.empty()) {
    if (s.front() == ' ') {
      s.remove_prefix(1);
      continue;
    }
    if (s.size() < 2 || !from_hex(s.substr(0, 2), &one)) return false;
    *bytes += one;
    s.remove_prefix(2);
    if (!s.empty() && s.front() != ' ') return false;
  }
  return true;
}

// A WDS block frames into whole messages of known control flags; AT text
// does not.
bool looks_like_wds(std::string_view bytes) {
  while (!bytes.empty()) {
    Message m;
    size_t used = 0;
    if (take_message(bytes, &m, &used) != Framing::kWhole) return false;
    if (m.ctl != 0x00 && m.ctl != 0x02 && m.ctl != 0x04) return false;
    bytes.remove_prefix(used);
  }
  return true;
}

}  // namespace

LogDecoder::LogDecoder(Sink out) : out_(std::move(out)) {}

void LogDecoder::line(std::string_view text) {
  if (in_dump_ && take_dump_row(text)) return;
  if (in_dump_) close_dump();  // the dump was cut: this line is not its row
  size_t len = 0;
  if (dump_header(text, &len)) {
    in_dump_ = true;
    dump_len_ = len;
    dump_bytes_.clear();
    if (len == 0) close_dump();
    return;
  }
  if (device_record(text)) return;
  out_(text);
}

void LogDecoder::finish() {
  if (in_dump_) close_dump();
}

bool LogDecoder::take_dump_row(std::string_view text) {
  size_t offset = 0;
  std::string bytes;
  if (!dump_row(text, &offset, &bytes) || offset != dump_bytes_.size()) return false;
  // A row cut short (the end of a copied log) still gives its bytes; the
  // next row's label then no longer fits.
  if (bytes.empty() || bytes.size() > std::min(kRowBytes, dump_len_ - offset)) return false;
  dump_bytes_ += bytes;
  if (dump_bytes_.size() == dump_len_) close_dump();
  return true;
}

void LogDecoder::close_dump() {
  in_dump_ = false;
  if (dump_len_ == 0) out_("  WDS (no bytes)");
  for (const auto& m : describe_block(dump_bytes_)) out_("  WDS " + m);
  if (dump_bytes_.size() < dump_len_)
    out_(format("  (dump cut after %zu of %zu bytes)", dump_bytes_.size(), dump_len_));
  dump_bytes_.clear();
}

// "<seq> <µs> <kind> <rest>" of the simulator's device log: rx and tx hex
// become messages or text; the simulator's own wds and at lines, made from
// those same bytes, are left out.
bool LogDecoder::device_record(std::string_view text) {
  std::string_view s = text;
  size_t seq = 0, t = 0;
  if (!take_decimal(&s, SIZE_MAX, &seq) || !take_literal(&s, " ") ||
      !take_decimal(&s, SIZE_MAX, &t) || !take_literal(&s, " "))
    return false;
  const std::string_view head = text.substr(0, text.size() - s.size());
  if (s.starts_with("wds ") || s.starts_with("at ")) return true;
  const bool rx = s.starts_with("rx "), tx = s.starts_with("tx ");
  if (!rx && !tx) return false;
  std::string bytes;
  if (!from_hex(s.substr(3), &bytes)) return false;
  const std::string prefix = std::string(head) + (rx ? "rx " : "tx ");
  if (bytes.empty() || !looks_like_wds(bytes)) {
    out_(prefix + quoted(bytes));
    return true;
  }
  for (const auto& m : describe_block(bytes)) out_(prefix + "WDS " + m);
  return true;
}

std::string decode_log(std::string_view text) {
  std::string out;
  LogDecoder decoder([&out](std::string_view line) {
    out += line;
    out += '\n';
  });
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    decoder.line(text.substr(0, nl));
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
  }
  decoder.finish();
  return out;
}

}  // namespace wdsdecode
