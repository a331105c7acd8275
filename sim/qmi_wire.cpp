// SPDX-License-Identifier: ISC
#include "sim/qmi_wire.h"

namespace sim::qmi {

std::string be16(uint16_t v) {
  return {static_cast<char>(v >> 8), static_cast<char>(v & 0xff)};
}

std::string be32(uint32_t v) { return be16(static_cast<uint16_t>(v >> 16)) + be16(static_cast<uint16_t>(v)); }

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

}  // namespace sim::qmi
