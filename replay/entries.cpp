// SPDX-License-Identifier: ISC
#include "replay/entries.h"

#include "decode/decode.h"
#include "decode/format.h"

namespace replay {

namespace {

constexpr char kInterrupted[] = "read msg : get signal, continue";
constexpr char kConnected[] = "wds state : connected";

// Each message of a block with its transaction id zeroed.
std::string without_tx(std::string bytes) {
  for (size_t at = 0; at + wdsdecode::kHeaderSize <= bytes.size();) {
    bytes[at + 1] = bytes[at + 2] = 0;
    at += wdsdecode::kHeaderSize + wdsdecode::be16(bytes, at + 5);
  }
  return bytes;
}

}  // namespace

bool is_record(const Entry& e, const char* prefix) {
  return e.what == Entry::What::kRecord && e.text.starts_with(prefix);
}

bool is_state(const Entry& e, const char* name) {
  return is_record(e, (std::string("wds state : ") + name).c_str());
}

std::vector<Entry> entries_of(const std::vector<wdsdecode::LogItem>& items, bool tx_aside) {
  std::vector<Entry> out;
  int pid = 0;
  for (const auto& item : items) {
    Entry e;
    e.line_no = item.line_no;
    if (item.kind == wdsdecode::LogItem::Kind::kRecord) {
      pid = item.pid;
      e.text = wdsdecode::without_error_text(item.text);
      while (!e.text.empty() && (e.text.back() == ' ' || e.text.back() == '\r')) e.text.pop_back();
      e.shown = {wdsdecode::format("[%s][%s] %s", item.error ? "error" : " info", item.module.c_str(), e.text.c_str())};
      e.key = e.shown[0];
      if (e.text == kInterrupted) e.key.clear();
    } else if (item.kind == wdsdecode::LogItem::Kind::kDump) {
      e.what = item.read ? Entry::What::kRead : Entry::What::kWrite;
      e.bytes = item.bytes;
      if (e.bytes.size() >= 5) e.msg = wdsdecode::be16(e.bytes, 3);
      const char* arrow = item.read ? "<-" : "->";
      for (const auto& m : wdsdecode::describe_block(e.bytes)) {
        e.shown.push_back(std::string(e.shown.empty() ? arrow : "  ") + " WDS " + m);
      }
      if (item.announced == 0) e.shown.push_back(std::string(arrow) + " WDS (no bytes)");
      if (item.cut()) e.shown.back() += wdsdecode::format(" (dump cut after %zu of %zu bytes)", item.bytes.size(), item.announced);
      e.key = std::string(arrow) + " " + notation::hex(tx_aside ? without_tx(e.bytes) : e.bytes);
    } else {
      continue;  // an empty line, rows without their header, garbage
    }
    e.pid = pid;
    out.push_back(std::move(e));
  }
  return out;
}

Keys keys_of(const std::vector<Entry>& entries) {
  Keys k;
  for (size_t i = 0; i < entries.size(); ++i) {
    const Entry& e = entries[i];
    if (e.key.empty()) continue;
    // One "connected" a wake-up: how many there are depends on when the
    // signals came, which the log does not hold.
    if (e.text == kConnected && !k.entry.empty() && entries[k.entry.back()].text == kConnected) continue;
    k.keys.push_back(e.key);
    k.entry.push_back(i);
  }
  return k;
}

}  // namespace replay
