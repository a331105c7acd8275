// SPDX-License-Identifier: ISC
// Parsers of the WDS responses and of the packet-service-status indication.
// Each starts at the message identifier (kQmiIdOffset) and keeps within the
// bytes received: a message or TLV that claims more than arrived is refused.
#include <cstring>

#include "qmi/internal.h"

namespace {

constexpr uint8_t kHandleTlvType = 0x01;
constexpr uint16_t kHandleTlvLen = 4;
constexpr uint16_t kConnectRspMlen = 14;   // result TLV + handle TLV
constexpr uint8_t kStatusTlvType = 0x01;
constexpr uint16_t kStatusTlvLen = 1;
constexpr uint16_t kStatusRspMlen = 11;    // result TLV + status TLV

constexpr uint8_t kIndStatusTlv = 0x01;
constexpr uint8_t kIndReasonTlv = 0x10;

constexpr uint32_t kIdAndMlenSize = kQmiHeaderSize - kQmiIdOffset;
constexpr uint32_t kRuntimeFirstTlv = kIdAndMlenSize + kQmiResultTlvSize;
constexpr uint32_t kUsernameMax = sizeof link_settings.username - 1;

enum : uint8_t {
  kRuntimePrimaryDns = 0x15,
  kRuntimeSecondaryDns = 0x16,
  kRuntimeUsername = 0x1B,
  kRuntimeAuthPref = 0x1D,
  kRuntimeIpv4Addr = 0x1E,
  kRuntimeGateway = 0x20,
  kRuntimeSubnetMask = 0x21,
};

int refuse_short(const char* parser, uint32_t need, uint32_t avail) {
  QMI_INFO("%s : msg exceeds recv bytes(need %u, recv %u)\n", parser, need, avail);
  return -1;
}

// A response refused before its result TLV was read counts as a failure
// with no error code, like a malformed result TLV.
int refuse_rsp() {
  g_qmi_result = 1;
  g_qmi_error = 0;
  return -1;
}

// Identifier and mlen, which every message starts with, and the check that
// the mlen bytes they announce arrived. 0, or -1 (logged) when short.
int take_id_and_mlen(const char* parser, const uint8_t* p, uint32_t avail, uint32_t* cursor, uint16_t* mlen) {
  if (!qmi_fits(0, kIdAndMlenSize, avail)) return refuse_short(parser, kIdAndMlenSize, avail);
  get_word(p, cursor);
  *mlen = get_word(p, cursor);
  if (kIdAndMlenSize + *mlen > avail) return refuse_short(parser, kIdAndMlenSize + *mlen, avail);
  return 0;
}

void log_qmi_error() {
  QMI_INFO("g_qmi_error = %d, dscp : %s.\n", g_qmi_error, qmi_error_text(g_qmi_error));
}

// Identifier, mlen and result TLV (type and length not checked), as the
// start-network and status responses share them. 0, or -1 when the result is
// a failure or the bytes are short; *mlen receives the message's mlen.
int parse_rsp_prologue(const char* parser, const char* what, const uint8_t* p, uint32_t avail, uint32_t* cursor,
                       uint16_t* mlen) {
  if (take_id_and_mlen(parser, p, avail, cursor, mlen) != 0) return refuse_rsp();
  if (!qmi_fits(*cursor, kQmiResultTlvSize, avail)) {
    refuse_short(parser, *cursor + kQmiResultTlvSize, avail);
    return refuse_rsp();
  }
  get_byte(p, cursor);   // type and length of the result TLV: not checked here
  get_word(p, cursor);
  g_qmi_result = get_word(p, cursor);
  g_qmi_error = get_word(p, cursor);
  QMI_INFO("%s\n", what);
  if (g_qmi_result != 0) {
    log_qmi_error();
    return -1;
  }
  return 0;
}

// Type and length of the one TLV after the result; the caller has checked
// that mlen, which the bytes received cover, holds it.
int check_tlv(const uint8_t* p, uint32_t* cursor, uint8_t want_type, uint16_t want_len) {
  const uint8_t type = get_byte(p, cursor);
  if (type != want_type) {
    QMI_INFO("TLV type mismatch. Actually is %d, expect %d\n", type, want_type);
    return -1;
  }
  const uint16_t len = get_word(p, cursor);
  if (len != want_len) {
    QMI_INFO("TLV length mismatch. Actually is %d, expect %d\n", len, want_len);
    return -1;
  }
  return 0;
}

}  // namespace

int parse_connect_rsp(const uint8_t* p, uint32_t avail) {
  uint32_t cursor = 0;
  uint16_t mlen = 0;
  if (parse_rsp_prologue("parse_connect_rsp", "parsing connect response", p, avail, &cursor, &mlen) != 0) return -1;
  if (mlen != kConnectRspMlen) return -1;
  if (check_tlv(p, &cursor, kHandleTlvType, kHandleTlvLen) != 0) return -1;
  conn_handle = get_double_word(p, &cursor);
  if (conn_handle == 0) {
    QMI_INFO("parse_connect_rsp : conn_handle is NULL\n");
    return -1;
  }
  return 0;
}

int parse_status_rsp(const uint8_t* p, uint32_t avail) {
  uint32_t cursor = 0;
  uint16_t mlen = 0;
  if (parse_rsp_prologue("parse_status_rsp", "parsing status response", p, avail, &cursor, &mlen) != 0) return -1;
  // Optional TLVs beyond the status are refused here too.
  if (mlen != kStatusRspMlen) return -1;
  if (check_tlv(p, &cursor, kStatusTlvType, kStatusTlvLen) != 0) return -1;
  g_connection_status_rsp = get_byte(p, &cursor);
  return 0;
}

int parse_srvc_status_ind(const uint8_t* p, uint32_t avail) {
  constexpr char kParser[] = "parse_srvc_status_ind";
  uint32_t cursor = 0;
  uint16_t mlen = 0;
  if (take_id_and_mlen(kParser, p, avail, &cursor, &mlen) != 0) return -1;
  const uint32_t end = kIdAndMlenSize + mlen;

  // Every pass moves the cursor by at least a TLV header, so the loop ends.
  while (cursor < end) {
    if (!qmi_fits(cursor, kQmiTlvHeaderSize, avail)) return refuse_short(kParser, cursor + kQmiTlvHeaderSize, avail);
    const uint8_t type = get_byte(p, &cursor);
    const uint16_t len = get_word(p, &cursor);
    // Status and reason are read with their fixed widths, whatever len says.
    if (type == kIndStatusTlv) {
      if (!qmi_fits(cursor, 2, avail)) return refuse_short(kParser, cursor + 2, avail);
      connection_status = get_byte(p, &cursor);
      reconfiguration_flag = get_byte(p, &cursor);
      if (connection_status < QMI_PKT_DISCONNECTED || connection_status > QMI_PKT_AUTHENTICATING) {
        QMI_INFO("invalid connection_status(0x%02x)\n", connection_status);
        return -1;
      }
      if (reconfiguration_flag > 1) {
        QMI_INFO("invalid reconfiguration_flag(0x%02x)\n", reconfiguration_flag);
        return -1;
      }
    } else if (type == kIndReasonTlv) {
      if (!qmi_fits(cursor, 2, avail)) return refuse_short(kParser, cursor + 2, avail);
      const uint16_t reason = get_word(p, &cursor);
      QMI_INFO("reason = %s\n", call_end_reason_text(reason));
    } else {
      QMI_INFO("unkown TLV type 0x%02x\n", type);
      cursor += len;
    }
  }
  if (cursor == end) {
    QMI_INFO("parse_srvc_status_ind successful\n");
    return 0;
  }
  QMI_INFO("parse_srvc_status_ind fail\n");
  return -1;
}

int parse_runtime_rsp(const uint8_t* p, uint32_t avail) {
  constexpr char kParser[] = "parse_runtime_rsp";
  uint32_t cursor = 0;
  uint16_t mlen = 0;
  if (take_id_and_mlen(kParser, p, avail, &cursor, &mlen) != 0) return refuse_rsp();
  QMI_INFO("parsing runtime response\n");

  // A malformed result TLV leaves the result at failure; its own verdict adds nothing.
  unpack_result_code(p + kIdAndMlenSize, avail - kIdAndMlenSize);
  cursor = kRuntimeFirstTlv;
  uint16_t remaining = mlen > kQmiResultTlvSize ? static_cast<uint16_t>(mlen - kQmiResultTlvSize) : 0;
  if (g_qmi_result != 0) {
    log_qmi_error();
    // The modem says there is no call any more.
    if (g_qmi_error == kQmiErrOutOfCall) connection_status = QMI_PKT_DISCONNECTED;
    return -1;
  }

  memset(&link_settings, 0, sizeof link_settings);
  // The remaining count wraps when a TLV claims more than the area holds,
  // which ends the loop; the cursor check bounds it by the bytes received.
  while (remaining != 0 && remaining < mlen) {
    if (!qmi_fits(cursor, kQmiTlvHeaderSize, avail)) return refuse_short(kParser, cursor + kQmiTlvHeaderSize, avail);
    const uint8_t type = get_byte(p, &cursor);
    const uint16_t len = get_word(p, &cursor);
    uint32_t* address = nullptr;
    switch (type) {
      case kRuntimePrimaryDns: address = &link_settings.primary_dns; break;
      case kRuntimeSecondaryDns: address = &link_settings.secondary_dns; break;
      case kRuntimeIpv4Addr: address = &link_settings.ipv4_addr; break;
      case kRuntimeGateway: address = &link_settings.gateway; break;
      case kRuntimeSubnetMask: address = &link_settings.subnet_mask; break;
      case kRuntimeUsername: {
        const uint32_t kept = len > kUsernameMax ? kUsernameMax : len;
        if (len > kUsernameMax) QMI_INFO("username is too long, cut it.\n");
        if (!qmi_fits(cursor, kept, avail)) return refuse_short(kParser, cursor + kept, avail);
        get_bytes(link_settings.username, p, kept, &cursor);
        link_settings.username[kept] = '\0';
        cursor += len - kept;
        break;
      }
      case kRuntimeAuthPref:
        if (!qmi_fits(cursor, 1, avail)) return refuse_short(kParser, cursor + 1, avail);
        link_settings.auth_pref = get_byte(p, &cursor);
        break;
      default:
        QMI_INFO("Runtime Setting : Unknown TLV type %d\n", type);
        cursor += len;
        break;
    }
    if (address != nullptr) {
      // Four bytes in wire order are the address in network byte order.
      if (!qmi_fits(cursor, 4, avail)) return refuse_short(kParser, cursor + 4, avail);
      get_bytes(address, p, 4, &cursor);
    }
    remaining = static_cast<uint16_t>(remaining - (kQmiTlvHeaderSize + len));
  }
  if (remaining == 0) return 0;
  QMI_INFO("parse_runtime_rsp : cnt = %d\n", remaining);
  return -1;
}
