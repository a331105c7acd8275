// SPDX-License-Identifier: ISC
#include "sim/at_model.h"

#include <cstdio>

#include "sim/text.h"

namespace sim {

namespace {

constexpr size_t kMaxLine = 4096;

struct AtKey {
  AtCommand cmd;
  const char* name;
};
constexpr AtKey kAtKeys[] = {
    {AtCommand::kDial, "dial"},   {AtCommand::kHangUp, "hangup"}, {AtCommand::kDhcp, "dhcp"},
    {AtCommand::kIpv6Cap, "ipv6cap"}, {AtCommand::kEchoOff, "e0"}, {AtCommand::kEchoOn, "e1"},
    {AtCommand::kCmee, "cmee"},   {AtCommand::kCurc, "curc"},     {AtCommand::kAt, "at"},
    {AtCommand::kOther, "other"},
};

std::string hex8(uint32_t v) {
  char buf[12];
  snprintf(buf, sizeof buf, "%08x", v);
  return buf;
}

std::string framed(const std::string& line) { return "\r\n" + line + "\r\n"; }

std::string rest_of_line(const std::vector<std::string>& words, size_t from) {
  std::string text;
  for (size_t i = from; i < words.size(); ++i) {
    if (i > from) text += ' ';
    text += words[i];
  }
  auto bytes = unescape(text);
  if (!bytes) throw CommandError("bad escape in text");
  return *bytes;
}

}  // namespace

AtCommand classify_at(std::string_view line) {
  if (starts_with_nocase(line, "AT^NDISDUP=")) {
    auto fields = split(line.substr(11), ',');
    return fields.size() >= 2 && fields[1] == "0" ? AtCommand::kHangUp : AtCommand::kDial;
  }
  if (equals_nocase(line, "AT^DHCP?")) return AtCommand::kDhcp;
  if (equals_nocase(line, "AT^IPV6CAP?")) return AtCommand::kIpv6Cap;
  if (equals_nocase(line, "ATE0")) return AtCommand::kEchoOff;
  if (equals_nocase(line, "ATE1") || equals_nocase(line, "ATE")) return AtCommand::kEchoOn;
  if (starts_with_nocase(line, "AT+CMEE=")) return AtCommand::kCmee;
  if (starts_with_nocase(line, "AT^CURC=")) return AtCommand::kCurc;
  if (equals_nocase(line, "AT")) return AtCommand::kAt;
  return AtCommand::kOther;
}

std::optional<AtCommand> parse_at_key(std::string_view key) {
  for (const auto& k : kAtKeys)
    if (key == k.name) return k.cmd;
  return std::nullopt;
}

std::string dhcp_line(const CallAddresses& a) {
  // The DHCP server is the gateway; the last two are the link's rates.
  return "^DHCP: " + hex8(a.addr) + "," + hex8(a.mask) + "," + hex8(a.gw) + "," + hex8(a.gw) + "," + hex8(a.dns1) + "," +
         hex8(a.dns2) + ",150000000,50000000";
}

AtModel::AtModel(ModemIo io) : io_(std::move(io)) {}

int AtModel::on_write(std::string_view bytes, int device_errno) {
  if (device_errno != 0) return device_errno;
  std::vector<std::string> lines;
  {
    std::lock_guard lock(mu_);
    for (char c : bytes) {
      if (c == '\r') {
        lines.push_back(std::move(pending_line_));
        pending_line_.clear();
      } else if (c == '\n' && pending_line_.empty()) {
        // A line feed after the carriage return belongs to no command.
      } else if (pending_line_.size() < kMaxLine) {
        pending_line_.push_back(c);
      }
    }
  }
  for (const auto& line : lines)
    if (!line.empty()) handle_line(line);
  return 0;
}

void AtModel::handle_line(const std::string& line) {
  std::lock_guard lock(mu_);
  ++lines_;
  AtCommand cmd = classify_at(line);
  AtRule rule;
  auto it = rules_.find(cmd);
  if (it != rules_.end() && !it->second.empty()) {
    rule = it->second.front();
    if (it->second.front().times > 0 && --it->second.front().times == 0) it->second.pop_front();
  }
  if (io_.recorder) io_.recorder->event("at line " + escape(line));
  // The modem echoes what it receives as it arrives, before it thinks.
  std::string echo = settings_.echo ? line + "\r" : "";
  send_text(echo + (rule.silent ? "" : answer(cmd, rule)));
}

std::string AtModel::answer(AtCommand cmd, const AtRule& rule) {
  if (rule.raw) return *rule.raw;
  std::vector<std::string> info;
  std::string final_result = "OK";
  switch (cmd) {
    case AtCommand::kDial:
      dialled_ = true;
      dhcp_polls_ = 0;
      break;
    case AtCommand::kHangUp:
      dialled_ = false;
      break;
    case AtCommand::kDhcp:
      if (dialled_ && dhcp_polls_ >= settings_.dhcp_wait) info.push_back(dhcp_line(settings_));
      else final_result = "ERROR";
      ++dhcp_polls_;
      break;
    case AtCommand::kIpv6Cap:
      info.push_back("^IPV6CAP: 1");
      break;
    case AtCommand::kEchoOff:
      settings_.echo = false;
      break;
    case AtCommand::kEchoOn:
      settings_.echo = true;
      break;
    case AtCommand::kCmee:
    case AtCommand::kCurc:
    case AtCommand::kAt:
      break;
    case AtCommand::kOther:
      final_result = "ERROR";
      break;
  }
  std::string text;
  for (const auto& il : interleave_)
    if (il.where == Interleave::Where::kBefore) text += framed(il.text);
  for (const auto& l : info) text += framed(l);
  for (const auto& il : interleave_)
    if (il.where == Interleave::Where::kMiddle) text += framed(il.text);
  text += framed(final_result);
  for (const auto& il : interleave_)
    if (il.where == Interleave::Where::kAfter) text += framed(il.text);
  interleave_.clear();
  return text;
}

void AtModel::send_text(const std::string& text) {
  std::vector<std::string> blocks;
  const size_t step = settings_.split_every > 0 ? settings_.split_every : text.size();
  for (size_t at = 0; at < text.size(); at += step) blocks.push_back(text.substr(at, step));
  io_.emit(std::move(blocks));
}

std::optional<std::string> AtModel::command(const std::vector<std::string>& words) {
  const std::string& verb = words[0];
  if (verb == "on") {
    std::lock_guard lock(mu_);
    auto cmd = rule_target(
        words, rules_,
        [](const std::string& name) {
          auto key = parse_at_key(name);
          if (!key) throw CommandError("unknown AT command key '" + name + "'");
          return *key;
        },
        "usage: on <command|all> <token>... | clear");
    if (!cmd) return "ok";
    AtRule r;
    for (size_t i = 2; i < words.size(); ++i) {
      auto [k, v] = key_value(words[i]);
      if (k == "silent" && v.empty()) {
        r.silent = true;
      } else if (k == "raw") {
        auto text = unescape(v);
        if (!text) throw CommandError("raw: bad escape");
        r.raw = *text;
      } else if (k == "times") {
        r.times = static_cast<int>(need_uint(k, v, 1000000));
        if (r.times == 0) throw CommandError("times: must be at least 1");
      } else {
        throw CommandError("unknown rule token '" + words[i] + "'");
      }
    }
    add_rule(rules_[*cmd], r);
    return "ok";
  }
  if (verb == "urc") {
    if (words.size() < 2) throw CommandError("usage: urc <text>");
    std::string text = framed(rest_of_line(words, 1));
    std::lock_guard lock(mu_);
    send_text(text);
    return "ok";
  }
  if (verb == "interleave") {
    size_t from = 1;
    Interleave il{"", Interleave::Where::kMiddle};
    if (words.size() > 1 && words[1].starts_with("at=")) {
      std::string where = words[1].substr(3);
      if (where == "before") il.where = Interleave::Where::kBefore;
      else if (where == "middle") il.where = Interleave::Where::kMiddle;
      else if (where == "after") il.where = Interleave::Where::kAfter;
      else throw CommandError("at: expected before, middle or after");
      from = 2;
    }
    if (words.size() <= from) throw CommandError("usage: interleave [at=before|middle|after] <text>");
    il.text = rest_of_line(words, from);
    std::lock_guard lock(mu_);
    interleave_.push_back(std::move(il));
    return "ok";
  }
  if (verb == "drop") {
    std::lock_guard lock(mu_);
    dialled_ = false;
    send_text(framed("^NDISSTAT: 0,,,\"IPV4\""));
    return "ok";
  }
  return std::nullopt;
}

bool AtModel::set(const std::string& key, const std::string& value) {
  std::lock_guard lock(mu_);
  AtSettings& s = settings_;
  if (set_call_address(s, key, value)) return true;
  if (key == "echo") s.echo = need_onoff(key, value);
  else if (key == "dhcp-wait") s.dhcp_wait = static_cast<int>(need_uint(key, value, 1000000));
  else if (key == "split-every") s.split_every = need_uint(key, value, 1u << 20);
  else return false;
  return true;
}

std::string AtModel::describe() {
  std::lock_guard lock(mu_);
  return std::string("dialled=") + (dialled_ ? "1" : "0") + " echo=" + (settings_.echo ? "on" : "off") +
         " lines=" + std::to_string(lines_) + " dhcp-polls=" + std::to_string(dhcp_polls_);
}

void AtModel::on_unplug() {
  std::lock_guard lock(mu_);
  dialled_ = false;
  pending_line_.clear();
}

}  // namespace sim
