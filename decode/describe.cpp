// SPDX-License-Identifier: ISC
// Names of WDS messages and of the fields their TLVs carry. The error and
// call-end texts are the daemon's own tables.
#include <array>

#include "decode/decode.h"
#include "decode/format.h"
#include "qmi/qmi.h"

namespace wdsdecode {

namespace {

enum class Kind {
  kTxId,          // u16, a transaction id
  kHandle,        // u32 in hex
  kDecimal32,     // u32
  kAddress,       // 4 bytes as a dotted quad
  kText,          // any length, quoted
  kSecret,        // any length, masked
  kTechnology,    // u8 bit mask
  kIpFamily,      // u8
  kAuth,          // u8 bit mask
  kResult,        // result u16, error u16
  kStatus,        // u8 packet service status
  kStatusReconf,  // u8 status, u8 reconfiguration flag
  kReason,        // u16 call-end reason
};

// Which messages a field belongs to: a control flag and a message id.
struct Field {
  uint8_t ctl;
  uint16_t id;
  uint8_t type;
  const char* name;
  Kind kind;
};

constexpr uint8_t kReq = kQmiCtlRequest, kRsp = kQmiCtlResponse, kInd = kQmiCtlIndication;
constexpr uint16_t kAnyId = 0xffff;  // the result TLV of every response

constexpr Field kFields[] = {
    {kReq, kWdsAbort, 0x01, "aborted tx", Kind::kTxId},
    {kReq, kWdsStartNetwork, 0x30, "technology preference", Kind::kTechnology},
    {kReq, kWdsStartNetwork, 0x19, "IP family", Kind::kIpFamily},
    {kReq, kWdsStartNetwork, 0x16, "authentication", Kind::kAuth},
    {kReq, kWdsStartNetwork, 0x17, "user name", Kind::kText},
    {kReq, kWdsStartNetwork, 0x18, "password", Kind::kSecret},
    {kReq, kWdsStartNetwork, 0x14, "APN", Kind::kText},
    {kReq, kWdsStartNetwork, 0x15, "preferred IPv4 address", Kind::kAddress},
    {kReq, kWdsStopNetwork, 0x01, "packet data handle", Kind::kHandle},
    {kRsp, kAnyId, 0x02, "result", Kind::kResult},
    {kRsp, kWdsStartNetwork, 0x01, "packet data handle", Kind::kHandle},
    {kRsp, kWdsStartNetwork, 0x10, "call end reason", Kind::kReason},
    {kRsp, kWdsPktSrvcStatus, 0x01, "status", Kind::kStatus},
    {kRsp, kWdsRuntimeSettings, 0x15, "primary DNS", Kind::kAddress},
    {kRsp, kWdsRuntimeSettings, 0x16, "secondary DNS", Kind::kAddress},
    {kRsp, kWdsRuntimeSettings, 0x1B, "user name", Kind::kText},
    {kRsp, kWdsRuntimeSettings, 0x1D, "authentication", Kind::kAuth},
    {kRsp, kWdsRuntimeSettings, 0x1E, "IPv4 address", Kind::kAddress},
    {kRsp, kWdsRuntimeSettings, 0x20, "gateway", Kind::kAddress},
    {kRsp, kWdsRuntimeSettings, 0x21, "subnet mask", Kind::kAddress},
    {kRsp, kWdsRuntimeSettings, 0x29, "MTU", Kind::kDecimal32},
    {kInd, kWdsPktSrvcStatus, 0x01, "status", Kind::kStatusReconf},
    {kInd, kWdsPktSrvcStatus, 0x10, "call end reason", Kind::kReason},
};

struct MessageName {
  uint16_t id;
  const char* name;  // in descriptions
  const char* word;  // in the simulator's commands and the replay's scripts
};
constexpr MessageName kMessageNames[] = {
    {kWdsReset, "reset", "reset"},
    {kWdsAbort, "abort", "abort"},
    {kWdsStartNetwork, "start network", "start"},
    {kWdsStopNetwork, "stop network", "stop"},
    {kWdsPktSrvcStatus, "packet service status", "status"},
    {kWdsRuntimeSettings, "runtime settings", "runtime"},
};

// Indexed by the packet service status value.
constexpr std::array<const char*, 5> kStatusNames = {"invalid", "disconnected", "connected", "suspended",
                                                     "authenticating"};

size_t width_of(Kind kind) {
  switch (kind) {
    case Kind::kTechnology:
    case Kind::kIpFamily:
    case Kind::kAuth:
    case Kind::kStatus:
      return 1;
    case Kind::kTxId:
    case Kind::kReason:
    case Kind::kStatusReconf:
      return 2;
    case Kind::kHandle:
    case Kind::kDecimal32:
    case Kind::kAddress:
    case Kind::kResult:
      return 4;
    case Kind::kText:
    case Kind::kSecret:
      return 0;
  }
  return 0;
}

const char* auth_name(uint8_t v) {
  switch (v) {
    case 0: return "none";
    case 1: return "PAP";
    case 2: return "CHAP";
    case 3: return "PAP or CHAP";
    default: return "unknown";
  }
}

const char* technology_name(uint8_t v) {
  switch (v) {
    case 1: return "3GPP";
    case 2: return "3GPP2";
    case 3: return "3GPP or 3GPP2";
    default: return "unknown";
  }
}

const char* family_name(uint8_t v) {
  switch (v) {
    case 4: return "IPv4";
    case 6: return "IPv6";
    case 8: return "unspecified";
    default: return "unknown";
  }
}

std::string status_text(uint8_t v) {
  return format("%u (%s)", v, v < kStatusNames.size() ? kStatusNames[v] : "invalid");
}

// The value of a field whose length fits its kind.
std::string value_text(Kind kind, std::string_view v) {
  switch (kind) {
    case Kind::kTxId: return format("%u", be16(v, 0));
    case Kind::kHandle: return format("0x%08x", be32(v, 0));
    case Kind::kDecimal32: return format("%u", be32(v, 0));
    case Kind::kAddress: return dotted_quad(v);
    case Kind::kText: return quoted(v);
    case Kind::kSecret: return format("(%zu bytes, masked)", v.size());
    case Kind::kTechnology: return format("%u (%s)", static_cast<uint8_t>(v[0]), technology_name(v[0]));
    case Kind::kIpFamily: return format("%u (%s)", static_cast<uint8_t>(v[0]), family_name(v[0]));
    case Kind::kAuth: return format("%u (%s)", static_cast<uint8_t>(v[0]), auth_name(v[0]));
    case Kind::kStatus: return status_text(v[0]);
    case Kind::kReason: return format("%u (%s)", be16(v, 0), call_end_reason_text(be16(v, 0)));
    case Kind::kResult:
    case Kind::kStatusReconf:
      break;  // two fields, written by field_text
  }
  return hex(v);
}

std::string field_text(const Field& f, std::string_view v) {
  const size_t width = width_of(f.kind);
  if (width != 0 && v.size() != width)
    return format("%s=%s (%zu bytes, expected %zu)", f.name, hex(v).c_str(), v.size(), width);
  if (f.kind == Kind::kResult) {
    const uint16_t result = be16(v, 0), error = be16(v, 2);
    return format("result=%u (%s), error=%u (%s)", result, result == 0 ? "success" : "failure", error,
                  qmi_error_text(error));
  }
  if (f.kind == Kind::kStatusReconf)
    return "status=" + status_text(v[0]) + format(", reconfiguration=%u", static_cast<uint8_t>(v[1]));
  return std::string(f.name) + "=" + value_text(f.kind, v);
}

const Field* field_of(const Message& m, uint8_t type) {
  for (const auto& f : kFields)
    if (f.ctl == m.ctl && (f.id == m.id || f.id == kAnyId) && f.type == type) return &f;
  return nullptr;
}

std::string head_of(const Message& m) {
  std::string direction = m.ctl == kReq   ? "request"
                          : m.ctl == kRsp ? "response"
                          : m.ctl == kInd ? "indication"
                                          : format("ctl 0x%02x", m.ctl);
  const char* known = message_name(m.id);
  std::string name = known ? format("%s (0x%04x)", known, m.id) : format("message 0x%04x", m.id);
  return direction + format(" tx=%u ", m.tx) + name;
}

}  // namespace

const char* message_name(uint16_t id) {
  for (const auto& n : kMessageNames)
    if (n.id == id) return n.name;
  return nullptr;
}

const char* message_word(uint16_t id) {
  for (const auto& n : kMessageNames)
    if (n.id == id) return n.word;
  return nullptr;
}

std::optional<uint16_t> message_by_word(std::string_view word) {
  for (const auto& n : kMessageNames)
    if (word == n.word) return n.id;
  if (word.size() != 6 || !word.starts_with("0x")) return std::nullopt;
  auto bytes = notation::from_hex(word.substr(2));
  if (!bytes) return std::nullopt;
  return be16(*bytes, 0);
}

std::string describe(const Message& m) {
  std::string out = head_of(m);
  const char* sep = ": ";
  for (const auto& t : m.tlvs) {
    const Field* f = field_of(m, t.type);
    out += sep;
    out += f ? field_text(*f, t.value) : format("tlv 0x%02x=", t.type) + hex(t.value);
    sep = ", ";
  }
  return out;
}

std::vector<std::string> describe_block(std::string_view bytes) {
  std::vector<std::string> lines;
  while (!bytes.empty()) {
    Message m;
    size_t used = 0;
    const Framing framing = take_message(bytes, &m, &used);
    switch (framing) {
      case Framing::kWhole:
        lines.push_back(describe(m));
        break;
      case Framing::kShortHeader:
        lines.push_back(format("cut message of %zu bytes: ", bytes.size()) + hex(bytes));
        break;
      case Framing::kShortBody: {
        const size_t mlen = be16(bytes, 5);
        lines.push_back(describe(m) + format(" [cut short: %zu of %zu TLV bytes]", bytes.size() - kHeaderSize, mlen));
        break;
      }
      case Framing::kBadTlv: {
        size_t tiled = 0;
        for (const auto& t : m.tlvs) tiled += kTlvHeaderSize + t.value.size();
        lines.push_back(describe(m) + " [TLV area ends inside a TLV: " +
                        hex(bytes.substr(kHeaderSize + tiled, used - kHeaderSize - tiled)) + "]");
        break;
      }
    }
    bytes.remove_prefix(used);
  }
  return lines;
}

}  // namespace wdsdecode
