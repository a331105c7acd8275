// SPDX-License-Identifier: ISC
#include "sim/wds_model.h"

#include <fstream>
#include <iterator>

#include "decode/decode.h"
#include "decode/format.h"
#include "sim/text.h"

namespace sim {

using namespace qmi;

namespace {

constexpr int kDropReason = 3;  // "Call has ended abnormally"

std::string response(const Message& req, std::string tlvs_after_result, uint16_t result, uint16_t error) {
  Message m;
  m.ctl = kQmiCtlResponse;
  m.tx = req.tx;
  m.id = req.id;
  m.tlvs.push_back({kTlvResult, be16(result) + be16(error)});
  std::string out = encode(m);
  out += tlvs_after_result;
  const uint16_t mlen = static_cast<uint16_t>(out.size() - kHeaderSize);
  out[5] = static_cast<char>(mlen >> 8);
  out[6] = static_cast<char>(mlen & 0xff);
  return out;
}

WdsRule parse_rule(const std::vector<std::string>& words, size_t from) {
  WdsRule r;
  for (size_t i = from; i < words.size(); ++i) {
    auto [k, v] = key_value(words[i]);
    if (k == "silent" && v.empty()) {
      r.silent = true;
    } else if (k == "fail") {
      r.fail = static_cast<uint16_t>(need_uint(k, v, 0xffff));
    } else if (k == "delay") {
      r.delay_ms = static_cast<int>(need_uint(k, v, 3600000));
    } else if (k == "times") {
      r.times = static_cast<int>(need_uint(k, v, 1000000));
      if (r.times == 0) throw CommandError("times: must be at least 1");
    } else {
      throw CommandError("unknown rule token '" + words[i] + "'");
    }
  }
  return r;
}

}  // namespace

WdsModel::WdsModel(ModemIo io) : io_(std::move(io)) {}

int WdsModel::on_write(std::string_view bytes, int device_errno) {
  std::unique_lock lock(mu_);
  if (script_) return script_->on_write(bytes, device_errno);
  lock.unlock();
  if (device_errno != 0) return device_errno;
  size_t pos = 0;
  // A write is one message; a client that packs several gets each answered.
  while (pos < bytes.size()) {
    Message req;
    size_t used = 0;
    if (wdsdecode::take_message(bytes.substr(pos), &req, &used) != wdsdecode::Framing::kWhole) {
      if (io_.recorder) io_.recorder->event("wds bad-request " + wdsdecode::hex(bytes.substr(pos)));
      return 0;
    }
    pos += used;
    if (req.ctl != kQmiCtlRequest) {
      if (io_.recorder) io_.recorder->event("wds not-a-request");
      continue;
    }
    handle_request(req);
  }
  return 0;
}

void WdsModel::on_interrupted_read() {
  std::lock_guard lock(mu_);
  if (script_) script_->on_interrupted_read();
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
    const char* word = wdsdecode::message_word(req.id);
    io_.recorder->event(wdsdecode::format("wds request %s tx=%u", word ? word : "unknown", req.tx));
  }
  if (rule.silent) return;

  std::vector<std::string> follow_up;
  std::string answer;
  if (rule.fail) {
    // A refusal keeps the model true to what it says: out of call means
    // the modem holds no call, so a later start is not refused as a second.
    if (*rule.fail == kErrOutOfCall) end_call();
    answer = response(req, "", 1, *rule.fail);
  } else {
    answer = normal_answer(req, &follow_up);
  }
  std::vector<std::string> blocks = {std::move(answer)};
  blocks.insert(blocks.end(), follow_up.begin(), follow_up.end());
  emit_blocks(io_, mu_, epoch_, std::move(blocks), rule.delay_ms);
}

// The answer to a request the model acts on; indications that follow it
// go to `follow_up`.
std::string WdsModel::normal_answer(const Message& req, std::vector<std::string>* follow_up) {
  switch (req.id) {
    case kWdsReset:
      // A reset ends the client's call without an indication.
      end_call();
      return response(req, "", 0, 0);
    case kWdsAbort:
      return response(req, "", 0, 0);
    case kWdsStartNetwork:
      // A start while a call is up is answered "No Effect", as a modem does.
      if (call_status_ == kStatusConnected && live_handle_ != 0) return response(req, "", 1, kErrNoEffect);
      live_handle_ = settings_.handle;
      call_status_ = kStatusConnected;
      if (settings_.start_ind) follow_up->push_back(indication(kStatusConnected, settings_.start_ind_reconf, -1));
      return response(req, encode_tlv(0x01, be32(settings_.handle)), 0, 0);
    case kWdsStopNetwork: {
      const Tlv* h = req.find(0x01);
      if (h == nullptr || h->value.size() != 4 || live_handle_ == 0 || wdsdecode::be32(h->value, 0) != live_handle_)
        return response(req, "", 1, kErrInvalidHandle);
      end_call();
      follow_up->push_back(indication(kStatusDisconnected, 0, 1));
      return response(req, "", 0, 0);
    }
    case kWdsPktSrvcStatus:
      return response(req, encode_tlv(0x01, std::string(1, static_cast<char>(call_status_))), 0, 0);
    case kWdsRuntimeSettings: {
      if (call_status_ != kStatusConnected) return response(req, "", 1, kErrOutOfCall);
      const WdsSettings& s = settings_;
      std::string tlvs;
      if (s.dns1) tlvs += encode_tlv(0x15, be32(s.dns1));
      if (s.dns2) tlvs += encode_tlv(0x16, be32(s.dns2));
      tlvs += encode_tlv(0x1B, "wds");
      tlvs += encode_tlv(0x1D, std::string(1, '\0'));
      if (s.addr) tlvs += encode_tlv(0x1E, be32(s.addr));
      if (s.gw) tlvs += encode_tlv(0x20, be32(s.gw));
      if (s.mask) tlvs += encode_tlv(0x21, be32(s.mask));
      return response(req, tlvs, 0, 0);
    }
    default:
      return response(req, "", 1, kErrNotSupported);
  }
}

void WdsModel::end_call() {
  call_status_ = kStatusDisconnected;
  live_handle_ = 0;
}

std::string WdsModel::indication(uint8_t status, uint8_t reconf, int reason) const {
  Message m;
  m.ctl = kQmiCtlIndication;
  m.tx = 0;
  m.id = kWdsPktSrvcStatus;
  m.tlvs.push_back({0x01, std::string{static_cast<char>(status), static_cast<char>(reconf)}});
  if (reason >= 0) m.tlvs.push_back({0x10, be16(static_cast<uint16_t>(reason))});
  return encode(m);
}

std::optional<std::string> WdsModel::command(const std::vector<std::string>& words) {
  const std::string& verb = words[0];
  if (verb == "on") {
    std::lock_guard lock(mu_);
    auto id = rule_target(
        words, rules_,
        [](const std::string& name) {
          auto key = wdsdecode::message_by_word(name);
          if (!key) throw CommandError("unknown message '" + name + "'");
          return *key;
        },
        "usage: on <msg|all> <token>... | clear");
    if (id) add_rule(rules_[*id], parse_rule(words, 2));
    return "ok";
  }
  if (verb == "drop") {
    int reason = kDropReason;
    for (size_t i = 1; i < words.size(); ++i) {
      auto [k, v] = key_value(words[i]);
      if (k != "reason") throw CommandError("unknown argument '" + words[i] + "'");
      reason = static_cast<int>(need_uint(k, v, 0xffff));
    }
    std::lock_guard lock(mu_);
    // Later polls report the call gone; the daemon's stop still names it.
    call_status_ = kStatusDisconnected;
    io_.emit({indication(kStatusDisconnected, 0, reason)});
    return "ok";
  }
  if (verb == "script") {
    if (words.size() != 2) throw CommandError("usage: script FILE");
    std::ifstream in(words[1], std::ios::binary);
    if (!in) throw CommandError("cannot read " + words[1]);
    auto items = parse_script(std::string{std::istreambuf_iterator<char>(in), {}});
    std::lock_guard lock(mu_);
    script_.emplace(std::move(items), &io_);
    return "ok";
  }
  return std::nullopt;
}

bool WdsModel::set(const std::string& key, const std::string& value) {
  std::lock_guard lock(mu_);
  WdsSettings& s = settings_;
  if (set_call_address(s, key, value)) return true;
  if (key == "handle") {
    s.handle = need_uint(key, value, 0xffffffff);
  } else if (key == "ind") {
    if (value != "separate" && value != "none") throw CommandError("ind: expected separate or none");
    s.start_ind = value == "separate";
  } else if (key == "ind-reconf") {
    s.start_ind_reconf = static_cast<uint8_t>(need_uint(key, value, 255));
  } else if (key == "call") {
    call_status_ = static_cast<uint8_t>(need_uint(key, value, 255));
  } else {
    return false;
  }
  return true;
}

std::string WdsModel::describe() {
  std::lock_guard lock(mu_);
  size_t rules = 0;
  for (const auto& [id, q] : rules_) rules += q.size();
  std::string out = "call=" + std::to_string(call_status_) + wdsdecode::format(" handle=0x%08x", live_handle_) +
                    " requests=" + std::to_string(requests_) + " rules=" + std::to_string(rules) +
                    " addr=" + format_ipv4(settings_.addr);
  if (script_) out += " " + script_->describe();
  return out;
}

void WdsModel::on_unplug() {
  std::lock_guard lock(mu_);
  ++epoch_;
  end_call();
}

}  // namespace sim
