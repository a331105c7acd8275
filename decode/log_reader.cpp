// SPDX-License-Identifier: ISC
#include "decode/log_reader.h"

#include <algorithm>
#include <cctype>

#include "decode/notation.h"

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

void skip_blanks(std::string_view* s) {
  while (!s->empty() && s->front() == ' ') s->remove_prefix(1);
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
  for (size_t i = 0; i < 4; ++i)
    if (!std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
  s.remove_prefix(4);
  return take_literal(&s, ") buf(") && take_decimal(&s, kMaxDumpLen, len) && take_literal(&s, "bytes)") && s.empty();
}

// "0016: 2d 00 ..." -> offset 16 and its bytes.
bool dump_row(std::string_view s, size_t* offset, std::string* bytes) {
  s = without_cr(s);
  if (!take_decimal(&s, kMaxDumpLen, offset) || !take_literal(&s, ": ")) return false;
  bytes->clear();
  while (!s.empty()) {
    if (s.front() == ' ') {
      s.remove_prefix(1);
      continue;
    }
    auto one = s.size() >= 2 ? notation::from_hex(s.substr(0, 2)) : std::nullopt;
    if (!one) return false;
    *bytes += *one;
    s.remove_prefix(2);
    if (!s.empty() && s.front() != ' ') return false;
  }
  return true;
}

// "[ info][            main: 121:pid=  8] text".
bool record(std::string_view s, LogItem* item) {
  if (take_literal(&s, "[error][")) item->error = true;
  else if (!take_literal(&s, "[ info][")) return false;
  const size_t colon = s.find(':');
  if (colon == std::string_view::npos) return false;
  std::string_view module = s.substr(0, colon);
  skip_blanks(&module);
  s.remove_prefix(colon + 1);
  size_t source_line = 0, pid = 0;
  skip_blanks(&s);
  if (module.empty() || !take_decimal(&s, 1u << 30, &source_line) || !take_literal(&s, ":pid=")) return false;
  skip_blanks(&s);
  if (!take_decimal(&s, 1u << 30, &pid) || !take_literal(&s, "] ")) return false;
  item->kind = LogItem::Kind::kRecord;
  item->module = module;
  item->source_line = static_cast<int>(source_line);
  item->pid = static_cast<int>(pid);
  item->text = s;
  return true;
}

}  // namespace

LogReader::LogReader(Sink sink) : sink_(std::move(sink)) {}

void LogReader::line(std::string_view text) {
  ++line_no_;
  if (in_dump_ && take_dump_row(text)) return;
  if (in_dump_) close_dump();  // the dump was cut: this line is not its row
  size_t len = 0;
  if (dump_header(text, &len)) {
    in_dump_ = true;
    dump_ = LogItem{};
    dump_.kind = LogItem::Kind::kDump;
    dump_.line_no = line_no_;
    dump_.raw = text;
    dump_.announced = len;
    dump_.read = last_was_read_len_;
    last_was_read_len_ = false;
    if (len == 0) close_dump();
    return;
  }
  LogItem item;
  item.line_no = line_no_;
  item.raw = text;
  if (!record(without_cr(text), &item)) item.kind = LogItem::Kind::kOther;
  last_was_read_len_ = item.kind == LogItem::Kind::kRecord && item.text.starts_with("read msg len : ");
  sink_(item);
}

void LogReader::finish() {
  if (in_dump_) close_dump();
}

bool LogReader::take_dump_row(std::string_view text) {
  size_t offset = 0;
  std::string bytes;
  if (!dump_row(text, &offset, &bytes) || offset != dump_.bytes.size()) return false;
  // A row cut short (the end of a copied log) still gives its bytes; the
  // next row's label then no longer fits.
  if (bytes.empty() || bytes.size() > std::min(kRowBytes, dump_.announced - offset)) return false;
  dump_.bytes += bytes;
  if (dump_.bytes.size() == dump_.announced) close_dump();
  return true;
}

void LogReader::close_dump() {
  in_dump_ = false;
  sink_(dump_);
}

void each_line(std::string_view text, const std::function<void(std::string_view)>& fn) {
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    fn(text.substr(0, nl));
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
  }
}

std::vector<LogItem> read_log(std::string_view text) {
  std::vector<LogItem> items;
  LogReader reader([&items](const LogItem& item) { items.push_back(item); });
  each_line(text, [&reader](std::string_view line) { reader.line(line); });
  reader.finish();
  return items;
}

std::string without_error_text(std::string_view text) {
  const size_t at = text.rfind(" errno = ");
  if (at == std::string_view::npos) return std::string(text);
  const size_t open = text.find(" <", at);
  return std::string(text.substr(0, open == std::string_view::npos ? text.size() : open));
}

}  // namespace wdsdecode
