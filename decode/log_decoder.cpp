// SPDX-License-Identifier: ISC
// Reading the daemon's log and the simulator's device log for a person:
// records as they are, dumps as their messages.
#include <cctype>
#include <cstdint>

#include "decode/decode.h"
#include "decode/format.h"

namespace wdsdecode {

namespace {

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

// "<seq> <µs> " of a device log record: its length, or 0.
size_t device_record_head(std::string_view s) {
  size_t i = 0;
  for (int field = 0; field < 2; ++field) {
    const size_t start = i;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) ++i;
    if (i == start || i >= s.size() || s[i] != ' ') return 0;
    ++i;
  }
  return i;
}

}  // namespace

LogDecoder::LogDecoder(Sink out) : out_(std::move(out)), reader_([this](const LogItem& i) { item(i); }) {}

void LogDecoder::line(std::string_view text) { reader_.line(text); }

void LogDecoder::finish() { reader_.finish(); }

void LogDecoder::item(const LogItem& item) {
  if (item.kind != LogItem::Kind::kDump) {
    if (!device_record(item.raw)) out_(item.raw);
    return;
  }
  if (item.announced == 0) out_("  WDS (no bytes)");
  for (const auto& m : describe_block(item.bytes)) out_("  WDS " + m);
  if (item.cut()) out_(format("  (dump cut after %zu of %zu bytes)", item.bytes.size(), item.announced));
}

// "<seq> <µs> <kind> <rest>" of the simulator's device log: rx and tx hex
// become messages or text; the simulator's own wds and at lines, made from
// those same bytes, are left out.
bool LogDecoder::device_record(std::string_view text) {
  const size_t head_len = device_record_head(text);
  if (head_len == 0) return false;
  const std::string_view head = text.substr(0, head_len), s = text.substr(head_len);
  if (s.starts_with("wds ") || s.starts_with("at ")) return true;
  const bool rx = s.starts_with("rx "), tx = s.starts_with("tx ");
  if (!rx && !tx) return false;
  auto bytes = notation::from_hex(s.substr(3));
  if (!bytes || s.substr(3).find_first_of(" \t") != std::string_view::npos) return false;
  const std::string prefix = std::string(head) + (rx ? "rx " : "tx ");
  if (bytes->empty() || !looks_like_wds(*bytes)) {
    out_(prefix + quoted(*bytes));
    return true;
  }
  for (const auto& m : describe_block(*bytes)) out_(prefix + "WDS " + m);
  return true;
}

std::string decode_log(std::string_view text) {
  std::string out;
  LogDecoder decoder([&out](std::string_view line) {
    out += line;
    out += '\n';
  });
  each_line(text, [&decoder](std::string_view line) { decoder.line(line); });
  decoder.finish();
  return out;
}

}  // namespace wdsdecode
