// SPDX-License-Identifier: ISC
// Taking bytes apart into messages and TLVs, checking every length before
// reading what it claims.
#include "decode/decode.h"
#include "decode/format.h"

namespace wdsdecode {

const Tlv* Message::find(uint8_t type) const {
  for (const auto& t : tlvs)
    if (t.type == type) return &t;
  return nullptr;
}

Framing take_message(std::string_view bytes, Message* out, size_t* consumed) {
  *out = Message{};
  if (bytes.size() < kHeaderSize) {
    *consumed = bytes.size();
    return Framing::kShortHeader;
  }
  out->ctl = static_cast<uint8_t>(bytes[0]);
  out->tx = be16(bytes, 1);
  out->id = be16(bytes, 3);
  const size_t mlen = be16(bytes, 5);
  const bool short_body = bytes.size() - kHeaderSize < mlen;
  std::string_view area = bytes.substr(kHeaderSize, mlen);
  size_t pos = 0;
  while (pos < area.size()) {
    if (area.size() - pos < kTlvHeaderSize) break;
    const size_t len = be16(area, pos + 1);
    if (area.size() - pos - kTlvHeaderSize < len) break;
    out->tlvs.push_back({static_cast<uint8_t>(area[pos]), std::string(area.substr(pos + kTlvHeaderSize, len))});
    pos += kTlvHeaderSize + len;
  }
  if (short_body) {
    *consumed = bytes.size();
    return Framing::kShortBody;
  }
  *consumed = kHeaderSize + mlen;
  return pos == area.size() ? Framing::kWhole : Framing::kBadTlv;
}

}  // namespace wdsdecode
