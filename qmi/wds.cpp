// SPDX-License-Identifier: ISC
// The six WDS requests: build, send, wait for the response of the same
// identifier, and reduce the outcome to 0, -1 or -2. What a response says is
// left in the connection state below.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "qmi/internal.h"

uint8_t connection_status = QMI_PKT_DISCONNECTED;
uint8_t reconfiguration_flag = 0;
uint8_t g_connection_status_rsp = QMI_PKT_DISCONNECTED;
uint32_t conn_handle = 0;
uint32_t g_connect_ticks = 0;

namespace {

constexpr uint8_t kStartNetworkLimitTicks = 120;

constexpr uint8_t kTlvTechPref = 0x30;
constexpr uint8_t kTechPref3gpp = 1;
constexpr uint8_t kTlvAuthPref = 0x16;
constexpr uint8_t kTlvUsername = 0x17;
constexpr uint8_t kTlvPassword = 0x18;
constexpr uint8_t kTlvApn = 0x14;
constexpr uint8_t kTlvIpv4Pref = 0x15;
constexpr uint8_t kTlvAbortTxId = 0x01;
constexpr uint8_t kTlvPktHandle = 0x01;

constexpr uint32_t kAbortMsgSize = kQmiHeaderSize + 5;
constexpr uint32_t kStopMsgSize = kQmiHeaderSize + 7;

// Waits for the response to tx_id: 0, -2 or -1.
int wait_response(uint16_t tx_id, uint16_t msg_type, uint8_t limit) {
  const qmi_expect expect = {kQmiCtlResponse, tx_id, msg_type};
  return qmi_wait_msg(&expect, limit);
}

int request_without_tlvs(uint16_t msg_type) {
  uint8_t msg[kQmiHeaderSize];
  const uint16_t tx_id = qmi_put_request_header(msg, msg_type, 0);
  if (send_msg(msg, sizeof msg) != 0) return kQmiFail;
  return wait_response(tx_id, msg_type, kWdsRequestLimitTicks);
}

// Fills a string slot from a profile string; returns the bytes it adds to the TLV area.
uint16_t fill_string_tlv(qmi_string_tlv* slot, uint8_t type, const char* text, size_t text_size) {
  const size_t chars = strnlen(text, text_size);
  if (chars == 0) return 0;
  slot->type = type;
  put_word(slot->len, static_cast<uint16_t>(chars));
  snprintf(slot->value, sizeof slot->value, "%.*s", static_cast<int>(chars), text);
  return static_cast<uint16_t>(kQmiTlvHeaderSize + chars);
}

}  // namespace

void wds_client_reset() {
  connection_status = QMI_PKT_DISCONNECTED;
  reconfiguration_flag = 0;
  g_connection_status_rsp = QMI_PKT_DISCONNECTED;
  conn_handle = 0;
  g_connect_ticks = 0;
}

int wds_reset_service() {
  uint8_t msg[kQmiHeaderSize];
  const uint16_t tx_id = qmi_put_request_header(msg, kWdsReset, 0);
  if (send_msg(msg, sizeof msg) != 0) {
    printf("\n===>wds_reset_service : send msg failed");
    fflush(stdout);
    return kQmiFail;
  }
  const int ret = wait_response(tx_id, kWdsReset, kWdsRequestLimitTicks);
  if (ret == kQmiTimeout) {
    printf("\n===>wds_reset_service : read msg timeout");
  } else if (ret != kQmiOk) {
    printf("\n===>wds_reset_service : read msg failed");
  }
  fflush(stdout);
  return ret;
}

int wds_abort(uint16_t tx_id) {
  uint8_t msg[kAbortMsgSize];
  const uint16_t own_tx_id = qmi_put_request_header(msg, kWdsAbort, kAbortMsgSize - kQmiHeaderSize);
  msg[7] = kTlvAbortTxId;
  put_word(msg + 8, 2);
  put_word(msg + 10, tx_id);
  if (send_msg(msg, sizeof msg) != 0) return kQmiFail;
  return wait_response(own_tx_id, kWdsAbort, kWdsRequestLimitTicks);
}

int wds_start_network() {
  uint8_t out[kQmiBufSize] = {};
  start_network_req req = {};

  req.byte_tlv[0].type = kTlvTechPref;
  put_word(req.byte_tlv[0].len, 1);
  req.byte_tlv[0].value = kTechPref3gpp;
  req.byte_tlv[1].type = kTlvAuthPref;
  put_word(req.byte_tlv[1].len, 1);
  req.byte_tlv[1].value = static_cast<uint8_t>(wan_profile.auth);
  uint16_t n = sizeof req.byte_tlv;

  n += fill_string_tlv(&req.string_tlv[0], kTlvUsername, wan_profile.username, sizeof wan_profile.username);
  n += fill_string_tlv(&req.string_tlv[1], kTlvPassword, wan_profile.password, sizeof wan_profile.password);
  n += fill_string_tlv(&req.string_tlv[2], kTlvApn, wan_profile.apn, sizeof wan_profile.apn);
  if (wan_profile.ip[0] != '\0') {
    char text[sizeof wan_profile.ip + 1] = {};
    memcpy(text, wan_profile.ip, sizeof wan_profile.ip);
    in_addr address = {};
    if (inet_aton(text, &address) == 0) address.s_addr = 0;
    req.addr_tlv.type = kTlvIpv4Pref;
    put_word(req.addr_tlv.len, 4);
    memcpy(req.addr_tlv.value, &address.s_addr, 4);
    n += sizeof req.addr_tlv;
  }

  const uint16_t tx_id = qmi_put_request_header(req.header, kWdsStartNetwork, n);
  // An address that converted to 0.0.0.0 is counted but not packed: refused
  // before anything reaches the modem.
  const uint32_t msg_size = kQmiHeaderSize + n;
  if (pack_start_network_msg(out, &req, msg_size) != 0) return kQmiFail;

  dump_msg(out, static_cast<int>(msg_size));
  if (send_msg(out, static_cast<int>(msg_size)) != 0) return kQmiFail;
  const int ret = wait_response(tx_id, kWdsStartNetwork, kStartNetworkLimitTicks);
  if (ret == kQmiTimeout) return wds_abort(tx_id) == kQmiOk ? kQmiTimeout : kQmiFail;
  if (ret == kQmiOk) g_connect_ticks = g_wait_ticks;
  return ret;
}

int wds_stop_network() {
  uint8_t msg[kStopMsgSize];
  const uint16_t tx_id = qmi_put_request_header(msg, kWdsStopNetwork, kStopMsgSize - kQmiHeaderSize);
  msg[7] = kTlvPktHandle;
  put_word(msg + 8, 4);
  put_double_word(msg + 10, conn_handle);
  if (send_msg(msg, sizeof msg) != 0) return kQmiFail;
  const int ret = wait_response(tx_id, kWdsStopNetwork, kWdsRequestLimitTicks);
  // A stop that timed out keeps the handle, so the next stop repeats it.
  if (ret == kQmiOk) conn_handle = 0;
  return ret;
}

int wds_get_srv_state() { return request_without_tlvs(kWdsPktSrvcStatus); }

int wds_get_runtime_settings() { return request_without_tlvs(kWdsRuntimeSettings); }
