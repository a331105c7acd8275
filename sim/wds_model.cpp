// SPDX-License-Identifier: ISC
#include "sim/wds_model.h"

#include <algorithm>
#include <cstdio>

#include "decode/format.h"
#include "sim/text.h"

namespace sim {

using namespace qmi;

namespace {

std::string response(const Message& req, std::string tlvs_after_result, uint16_t result, uint16_t error) {
  Message m;
  m.ctl = kCtlResponse;
  m.tx = req.tx;
  m.id = req.id;
  std::string out = encode(m);  // header with mlen 0, patched below
  out += result_tlv(result, error);
  out += tlvs_after_result;
  uint16_t mlen = static_cast<uint16_t>(out.size() - kHeaderSize);
  out[5] = static_cast<char>(mlen >> 8);
  out[6] = static_cast<char>(mlen & 0xff);
  return out;
}

void set_mlen(std::string* msg, uint16_t mlen) {
  if (msg->size() < kHeaderSize) return;
  (*msg)[5] = static_cast<char>(mlen >> 8);
  (*msg)[6] = static_cast<char>(mlen & 0xff);
}

std::string hex32(uint32_t v) {
  char buf[16];
  snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

}  // namespace

WdsModel::WdsModel(ModemIo io) : io_(std::move(io)) {}

WdsRule WdsModel::parse_rule(const std::vector<std::string>& tokens, size_t from) {
  WdsRule r;
  for (size_t i = from; i < tokens.size(); ++i) {
    auto [k, v] = key_value(tokens[i]);
    if (k == "ok" && v.empty()) {
    } else if (k == "silent" && v.empty()) {
      r.silent = true;
    } else if (k == "fail") {
      r.fail = static_cast<uint16_t>(need_uint(k, v, 0xffff));
    } else if (k == "delay") {
      r.delay_ms = static_cast<int>(need_uint(k, v, 3600000));
    } else if (k == "truncate") {
      r.truncate = need_uint(k, v, 65535);
    } else if (k == "mlen") {
      r.mlen = static_cast<uint16_t>(need_uint(k, v, 0xffff));
    } else if (k == "badresult" && v.empty()) {
      r.bad_result = true;
    } else if (k == "extra" && v.empty()) {
      r.extra_tlv = true;
    } else if (k == "other") {
      auto id = parse_message_name(v);
      if (!id) throw CommandError("other: expected a message name or id");
      r.other = *id;
    } else if (k == "raw") {
      auto bytes = from_hex(v);
      if (!bytes) throw CommandError("raw: expected hex bytes");
      r.raw = *bytes;
    } else if (k == "dup" && v.empty()) {
      r.dup = true;
    } else if (k == "times") {
      r.times = static_cast<int>(need_uint(k, v, 1000000));
      if (r.times == 0) throw CommandError("times: must be at least 1");
    } else {
      throw CommandError("unknown rule token '" + tokens[i] + "'");
    }
  }
  return r;
}

void WdsModel::on_write(std::string_view bytes) {
  size_t pos = 0;
  // A write is one message; a client that packs several gets each answered.
  while (pos < bytes.size()) {
    Message req;
    size_t used = 0;
    if (wdsdecode::take_message(bytes.substr(pos), &req, &used) != wdsdecode::Framing::kWhole) {
      if (io_.recorder) io_.recorder->event("wds bad-request " + wdsdecode::hex(bytes.substr(pos)));
      return;
    }
    pos += used;
    if (req.ctl != kCtlRequest) {
      if (io_.recorder) io_.recorder->event("wds not-a-request");
      continue;
    }
    handle_request(req);
  }
}

void WdsModel::handle_request(const Message& req) {
  std::lock_guard lock(mu_);
  ++requests_;
  WdsRule rule;
  auto it = rules_.find(req.id);
  if (it != rules_.end() && !it->second.empty()) {
    rule = it->second.front();
    if (it->second.front().times > 0 && --it->second.front().times == 0) it->second.pop_front();
  }
  if (io_.recorder) {
    char buf[64];
    snprintf(buf, sizeof buf, "wds request %s tx=%u", message_name(req.id), req.tx);
    io_.recorder->event(buf);
  }
  if (rule.silent) return;

  std::vector<std::string> follow_up;
  std::string answer;
  if (rule.raw) {
    answer = *rule.raw;
  } else if (rule.fail) {
    answer = response(req, "", 1, *rule.fail);
  } else {
    answer = normal_answer(req, &follow_up);
  }
  if (!rule.raw) {
    if (rule.bad_result && answer.size() >= kHeaderSize + 7) {
      // Result TLV claims 5 bytes and carries one more: every later TLV shifts.
      answer[kHeaderSize + 2] = 5;
      answer.insert(kHeaderSize + 7, 1, '\0');
      set_mlen(&answer, static_cast<uint16_t>(answer.size() - kHeaderSize));
    }
    if (rule.extra_tlv) {
      answer += encode_tlv(0x10, std::string(1, '\0'));
      set_mlen(&answer, static_cast<uint16_t>(answer.size() - kHeaderSize));
    }
    if (rule.mlen) set_mlen(&answer, *rule.mlen);
  }
  if (rule.truncate && *rule.truncate < answer.size()) answer.resize(*rule.truncate);

  std::vector<std::string> blocks;
  if (rule.other) {
    Message wrong = req;
    wrong.id = *rule.other;
    blocks.push_back(response(wrong, "", 0, 0));
  }
  blocks.push_back(answer);
  if (rule.dup) blocks.push_back(answer);

  std::vector<std::string> later_blocks;
  for (auto& ind : follow_up) {
    if (settings_.ind_delay_ms > 0)
      later_blocks.push_back(std::move(ind));
    else if (settings_.ind == WdsSettings::Ind::kSame)
      blocks.back() += ind;
    else
      blocks.push_back(std::move(ind));
  }
  send(std::move(blocks), rule.delay_ms);
  if (!later_blocks.empty()) send(std::move(later_blocks), rule.delay_ms + settings_.ind_delay_ms);
}

std::string WdsModel::normal_answer(const Message& req, std::vector<std::string>* follow_up) {
  switch (req.id) {
    case kMsgReset:
      // A reset ends the client's call without an indication.
      call_status_ = kStatusDisconnected;
      live_handle_ = 0;
      return response(req, "", 0, 0);
    case kMsgAbort:
      return response(req, "", 0, 0);
    case kMsgStartNetwork: {
      if (settings_.refuse_second_start && call_status_ == kStatusConnected && live_handle_ != 0)
        return response(req, "", 1, kErrNoEffect);
      live_handle_ = settings_.handle;
      call_status_ = settings_.ind_status;
      if (settings_.ind != WdsSettings::Ind::kNone)
        follow_up->push_back(indication(settings_.ind_status, settings_.ind_reconf, -1));
      return response(req, encode_tlv(0x01, be32(settings_.handle)), 0, 0);
    }
    case kMsgStopNetwork: {
      const Tlv* h = req.find(0x01);
      if (h == nullptr || h->value.size() != 4 || live_handle_ == 0 || wdsdecode::be32(h->value, 0) != live_handle_)
        return response(req, "", 1, kErrInvalidHandle);
      live_handle_ = 0;
      call_status_ = kStatusDisconnected;
      if (settings_.stop_ind) follow_up->push_back(indication(kStatusDisconnected, 0, settings_.stop_reason));
      return response(req, "", 0, 0);
    }
    case kMsgPacketStatus:
      return response(req, encode_tlv(0x01, std::string(1, static_cast<char>(call_status_))), 0, 0);
    case kMsgRuntimeSettings: {
      if (call_status_ != kStatusConnected) return response(req, "", 1, kErrOutOfCall);
      std::string tlvs;
      if (settings_.dns1) tlvs += encode_tlv(0x15, be32(settings_.dns1));
      if (settings_.dns2) tlvs += encode_tlv(0x16, be32(settings_.dns2));
      if (!settings_.user.empty()) tlvs += encode_tlv(0x1B, settings_.user);
      tlvs += encode_tlv(0x1D, std::string(1, static_cast<char>(settings_.auth)));
      if (settings_.addr) tlvs += encode_tlv(0x1E, be32(settings_.addr));
      if (settings_.gw) tlvs += encode_tlv(0x20, be32(settings_.gw));
      if (settings_.mask) tlvs += encode_tlv(0x21, be32(settings_.mask));
      return response(req, tlvs, 0, 0);
    }
    default:
      return response(req, "", 1, kErrNotSupported);
  }
}

std::string WdsModel::indication(uint8_t status, uint8_t reconf, int reason) const {
  Message m;
  m.ctl = kCtlIndication;
  m.tx = 0;
  m.id = kMsgPacketStatus;
  m.tlvs.push_back({0x01, std::string{static_cast<char>(status), static_cast<char>(reconf)}});
  if (reason >= 0) m.tlvs.push_back({0x10, be16(static_cast<uint16_t>(reason))});
  return encode(m);
}

void WdsModel::send(std::vector<std::string> blocks, int delay_ms) {
  emit_blocks(io_, mu_, epoch_, std::move(blocks), delay_ms);
}

std::optional<std::string> WdsModel::command(const std::vector<std::string>& words) {
  const std::string& verb = words[0];
  if (verb == "on") {
    std::lock_guard lock(mu_);
    auto id = rule_target(
        words, rules_,
        [](const std::string& name) {
          auto key = parse_message_name(name);
          if (!key) throw CommandError("unknown message '" + name + "'");
          return *key;
        },
        "usage: on <msg|all> <token>... | clear");
    if (!id) return "ok";
    add_rule(rules_[*id], parse_rule(words, 2));
    return "ok";
  }
  if (verb == "drop" || verb == "indicate") {
    int status = verb == "drop" ? kStatusDisconnected : kStatusConnected;
    int reconf = 0;
    int reason = verb == "drop" ? 3 : -1;
    uint16_t tx = 0;
    for (size_t i = 1; i < words.size(); ++i) {
      auto [k, v] = key_value(words[i]);
      if (k == "status")
        status = static_cast<int>(need_uint(k, v, 255));
      else if (k == "reconf")
        reconf = static_cast<int>(need_uint(k, v, 255));
      else if (k == "reason")
        reason = v == "none" ? -1 : static_cast<int>(need_uint(k, v, 0xffff));
      else if (k == "tx")
        tx = static_cast<uint16_t>(need_uint(k, v, 0xffff));
      else
        throw CommandError("unknown argument '" + words[i] + "'");
    }
    std::lock_guard lock(mu_);
    // A drop changes what later polls report; a bare indication does not.
    if (verb == "drop") call_status_ = static_cast<uint8_t>(status);
    std::string ind = indication(static_cast<uint8_t>(status), static_cast<uint8_t>(reconf), reason);
    ind[1] = static_cast<char>(tx >> 8);
    ind[2] = static_cast<char>(tx & 0xff);
    io_.emit({ind});
    return "ok";
  }
  if (verb == "out-of-call") {
    std::lock_guard lock(mu_);
    rules_[kMsgRuntimeSettings].push_back(parse_rule({"fail=15"}, 0));
    return "ok";
  }
  return std::nullopt;
}

bool WdsModel::set(const std::string& key, const std::string& value) {
  std::lock_guard lock(mu_);
  WdsSettings& s = settings_;
  if (set_call_address(s, key, value)) return true;
  if (key == "user") {
    auto text = unescape(value);
    if (!text) throw CommandError("user: bad escape");
    s.user = *text;
  } else if (key == "auth") s.auth = static_cast<uint8_t>(need_uint(key, value, 255));
  else if (key == "handle") s.handle = need_uint(key, value, 0xffffffff);
  else if (key == "ind") {
    if (value == "same") s.ind = WdsSettings::Ind::kSame;
    else if (value == "separate") s.ind = WdsSettings::Ind::kSeparate;
    else if (value == "none") s.ind = WdsSettings::Ind::kNone;
    else throw CommandError("ind: expected same, separate or none");
  } else if (key == "ind-delay") s.ind_delay_ms = static_cast<int>(need_uint(key, value, 3600000));
  else if (key == "ind-status") s.ind_status = static_cast<uint8_t>(need_uint(key, value, 255));
  else if (key == "ind-reconf") s.ind_reconf = static_cast<uint8_t>(need_uint(key, value, 255));
  else if (key == "stop-ind") s.stop_ind = need_onoff(key, value);
  else if (key == "stop-reason") s.stop_reason = value == "none" ? -1 : static_cast<int>(need_uint(key, value, 0xffff));
  else if (key == "second-start") {
    if (value == "refuse") s.refuse_second_start = true;
    else if (value == "accept") s.refuse_second_start = false;
    else throw CommandError("second-start: expected refuse or accept");
  } else if (key == "call") call_status_ = static_cast<uint8_t>(need_uint(key, value, 255));
  else return false;
  return true;
}

std::string WdsModel::describe() {
  std::lock_guard lock(mu_);
  size_t rules = 0;
  for (const auto& [id, q] : rules_) rules += q.size();
  return "call=" + std::to_string(call_status_) + " handle=" + hex32(live_handle_) +
         " requests=" + std::to_string(requests_) + " rules=" + std::to_string(rules) +
         " addr=" + format_ipv4(settings_.addr);
}

void WdsModel::on_unplug() {
  std::lock_guard lock(mu_);
  ++epoch_;
  call_status_ = kStatusDisconnected;
  live_handle_ = 0;
}

void WdsModel::reset() {
  std::lock_guard lock(mu_);
  ++epoch_;
  settings_ = WdsSettings{};
  rules_.clear();
}

}  // namespace sim
