// SPDX-License-Identifier: ISC
#include "sim/wds_script.h"

#include "decode/decode.h"
#include "decode/notation.h"
#include "sim/text.h"

namespace sim {

namespace {

std::string message_text(uint16_t id) {
  const char* word = wdsdecode::message_word(id);
  char buf[16];
  snprintf(buf, sizeof buf, "0x%04x", id);
  return word ? word : buf;
}

// "after=N" among the words from `from`; the other words go to `rest`.
int take_after(const std::vector<std::string>& words, size_t from, std::vector<std::string>* rest) {
  int after = 0;
  for (size_t i = from; i < words.size(); ++i) {
    auto [k, v] = key_value(words[i]);
    if (k == "after") after = static_cast<int>(need_uint(k, v, 1000000));
    else rest->push_back(words[i]);
  }
  return after;
}

}  // namespace

std::vector<ScriptItem> parse_script(std::string_view text) {
  std::vector<ScriptItem> items;
  size_t line_no = 0;
  for (const auto& line : split(text, '\n')) {
    ++line_no;
    auto words = split_words(line);
    if (words.empty() || words[0].starts_with("#")) continue;
    ScriptItem item;
    std::vector<std::string> rest;
    try {
      if (words[0] == "write") {
        item.kind = ScriptItem::Kind::kWrite;
        auto msg = words.size() > 1 ? wdsdecode::message_by_word(words[1]) : std::nullopt;
        if (!msg) throw CommandError("write: expected a message");
        item.msg = *msg;
        for (size_t i = 2; i < words.size(); ++i) {
          auto [k, v] = key_value(words[i]);
          if (k != "refuse") throw CommandError("unknown word '" + words[i] + "'");
          item.refuse = static_cast<int>(need_uint(k, v, 4095));
        }
      } else if (words[0] == "read") {
        item.kind = ScriptItem::Kind::kRead;
        item.after = take_after(words, 1, &rest);
        std::string hex;
        for (const auto& w : rest) hex += w;
        auto bytes = notation::from_hex(hex);
        if (!bytes || bytes->empty()) throw CommandError("read: expected hex bytes");
        item.bytes = *bytes;
      } else if (words[0] == "gone") {
        item.kind = ScriptItem::Kind::kGone;
        item.after = take_after(words, 1, &rest);
        if (!rest.empty()) throw CommandError("gone: unknown word '" + rest[0] + "'");
      } else {
        throw CommandError("unknown item '" + words[0] + "'");
      }
    } catch (const CommandError& e) {
      throw CommandError("script line " + std::to_string(line_no) + ": " + e.what());
    }
    items.push_back(std::move(item));
  }
  return items;
}

ScriptPlayer::ScriptPlayer(std::vector<ScriptItem> items, const ModemIo* io) : items_(std::move(items)), io_(io) {
  release();  // blocks the daemon reads before it writes anything
}

int ScriptPlayer::on_write(std::string_view bytes, int device_errno) {
  if (parted_) return device_errno;
  if (next_ >= items_.size()) {
    if (!ended_ && io_->recorder) io_->recorder->event("script ended");
    ended_ = true;
    return device_errno;
  }
  const ScriptItem& item = items_[next_];
  wdsdecode::Message m;
  size_t used = 0;
  const bool whole = wdsdecode::take_message(bytes, &m, &used) == wdsdecode::Framing::kWhole;
  if (item.kind != ScriptItem::Kind::kWrite || !whole || m.id != item.msg) {
    part("the daemon wrote " + (whole ? message_text(m.id) : notation::hex(bytes)) + " where the script has " +
         (item.kind == ScriptItem::Kind::kWrite ? "write " + message_text(item.msg) : std::string("a read")));
    return device_errno;
  }
  ++next_;
  interrupts_ = 0;
  const int refuse = device_errno != 0 ? device_errno : item.refuse;
  release();
  return refuse;
}

void ScriptPlayer::on_interrupted_read() {
  if (parted_) return;
  ++interrupts_;
  release();
}

void ScriptPlayer::release() {
  while (next_ < items_.size() && items_[next_].kind != ScriptItem::Kind::kWrite &&
         items_[next_].after <= interrupts_) {
    const ScriptItem& item = items_[next_++];
    interrupts_ = 0;
    if (item.kind == ScriptItem::Kind::kRead) io_->emit({item.bytes});
    else io_->gone();
  }
}

void ScriptPlayer::part(const std::string& why) {
  parted_ = true;
  if (io_->recorder) io_->recorder->event("script parted: " + why);
}

std::string ScriptPlayer::describe() const {
  return "script=" + std::to_string(next_) + "/" + std::to_string(items_.size()) + (parted_ ? " script-parted=1" : "");
}

}  // namespace sim
