// SPDX-License-Identifier: ISC
#include "sim/qmi_wire.h"

#include "sim/text.h"

namespace sim::qmi {

std::string be16(uint16_t v) {
  return {static_cast<char>(v >> 8), static_cast<char>(v & 0xff)};
}

std::string be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16 & 0xff), static_cast<char>(v >> 8 & 0xff),
          static_cast<char>(v & 0xff)};
}

std::string encode_tlv(uint8_t type, std::string_view value) {
  std::string out(1, static_cast<char>(type));
  out += be16(static_cast<uint16_t>(value.size()));
  out += value;
  return out;
}

std::string encode(const Message& m) {
  std::string body;
  for (const auto& t : m.tlvs) body += encode_tlv(t.type, t.value);
  std::string out(1, static_cast<char>(m.ctl));
  out += be16(m.tx);
  out += be16(m.id);
  out += be16(static_cast<uint16_t>(body.size()));
  out += body;
  return out;
}

std::string result_tlv(uint16_t result, uint16_t error) {
  return encode_tlv(kTlvResult, be16(result) + be16(error));
}

namespace {
struct NamedMessage {
  uint16_t id;
  const char* name;
};
constexpr NamedMessage kNames[] = {
    {kMsgReset, "reset"},         {kMsgAbort, "abort"},   {kMsgStartNetwork, "start"},
    {kMsgStopNetwork, "stop"},    {kMsgPacketStatus, "status"}, {kMsgRuntimeSettings, "runtime"},
};
}  // namespace

const char* message_name(uint16_t id) {
  for (const auto& n : kNames)
    if (n.id == id) return n.name;
  return "unknown";
}

std::optional<uint16_t> parse_message_name(std::string_view name) {
  for (const auto& n : kNames)
    if (name == n.name) return n.id;
  auto v = parse_uint(name, 0xffff);
  if (!v) return std::nullopt;
  return static_cast<uint16_t>(*v);
}

}  // namespace sim::qmi
