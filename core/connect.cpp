// SPDX-License-Identifier: ISC
// Bringing a packet-data call up and ending it, in QMI and NDIS mode.
#include <cstring>

#include "at/at.h"
#include "core/core.h"
#include "link/link.h"
#include "qmi/qmi.h"

namespace {

constexpr uint8_t kIndicationWaitTicks = 3;
// Whole-call budget: the start response's wait plus the settings tries, each
// charged the ticks its request may wait.
constexpr int kConnectBudgetTicks = 117;
constexpr int kRuntimeSettingsTries = 3;
constexpr unsigned kRuntimeRetryPauseMs = 1000;
constexpr int kDisconnectAttempts = 3;
constexpr int kDhcpPolls = 10;
constexpr unsigned kDhcpPollPauseMs = 5000;
constexpr int kDhcpModeQuery = 1;

// The modem's hexadecimal text puts the first octet in the top byte.
uint32_t first_octet_first(uint32_t value) {
  const uint8_t octets[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                             static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
  uint32_t in_memory_order;
  memcpy(&in_memory_order, octets, sizeof in_memory_order);
  return in_memory_order;
}

int qmi_connect() {
  if (wds_start_network() != 0) return -1;

  // A time-out is fine when an earlier indication already said connected.
  int waited = wait_srvc_status_ind(kIndicationWaitTicks);
  if ((waited != kQmiOk && waited != kQmiTimeout) || connection_status != QMI_PKT_CONNECTED ||
      reconfiguration_flag != 0) {
    wds_stop_network();  // the attempt has failed either way; a stop not answered keeps the handle
    return -1;
  }

  int budget = kConnectBudgetTicks - static_cast<int>(g_connect_ticks);
  int tries = kRuntimeSettingsTries;
  for (;;) {
    int result = wds_get_runtime_settings();
    if (result == 0 && link_settings.ipv4_addr != 0) break;
    if (result == kQmiFail && connection_status == QMI_PKT_DISCONNECTED) {
      conn_handle = 0;  // the modem ended the call: nothing left to stop
      return -1;
    }
    budget -= kWdsRequestLimitTicks;
    --tries;
    if (budget <= 0) break;
    msleep(kRuntimeRetryPauseMs);
    if (tries == 0) break;
  }
  // An address that came after the budget ran out does not count.
  if (tries == 0 || budget <= 0) {
    wds_stop_network();  // as above
    return -1;
  }
  return 0;
}

}  // namespace

int wds_connect() {
  if (g_ndis_mode) {
    if (_ndis_connect(&ndis_ctx) != 0) return -1;
  } else if (qmi_connect() != 0) {
    return -1;
  }
  wds_link_up();
  g_connected = 1;
  usbnet_private_probe(g_acIfname);  // the driver's answer changes nothing here
  return 0;
}

int wds_disconnect() {
  for (int attempt = 1; attempt <= kDisconnectAttempts; ++attempt) {
    if (wds_stop_network() != 0) continue;
    int waited = wait_srvc_status_ind(kIndicationWaitTicks);
    if (waited != kQmiOk && waited != kQmiTimeout) continue;
    if (connection_status != QMI_PKT_DISCONNECTED) continue;
    MAIN_INFO("wds_disconnect : disconnected successful\n");
    return 0;
  }
  MAIN_ERROR("wds_disconnect : disconnected 3 times failed");
  connection_status = QMI_PKT_DISCONNECTED;
  reconfiguration_flag = 0;
  return -1;
}

int _ndis_connect(ndis_ctx_t* ctx) {
  link_settings_t dhcp = {};
  if (ctx == nullptr) return -1;
  // A modem that echoes ends the echo with a lone CR, so the echo and the
  // final "OK" arrive as one line holding "^NDISDUP": taken for a reply
  // line, the OK would never be seen and every dial would time out. Echo is
  // turned off before each dial (a modem that restarted echoes again); ATE0
  // itself carries no reply prefix, so its OK is found even when echoed.
  // Not checked: the dial is tried whatever ATE0 answered.
  int echo_err;
  at_echo_off(&echo_err);
  if (ndis_at_connect(&wan_profile) != 0) return -1;
  g_connected = 1;

  bool have_address = false;
  for (int poll = 1; poll <= kDhcpPolls && !have_address; ++poll) {
    if (ndis_get_dhcp_result(&dhcp, kDhcpModeQuery) == 0 && dhcp.ipv4_addr != 0) {
      have_address = true;
    } else {
      msleep(kDhcpPollPauseMs);
    }
  }
  if (!have_address) {
    ndis_disconnect();  // the dial failed either way
    g_connected = 0;
    return -1;
  }

  link_settings = {};
  link_settings.primary_dns = first_octet_first(dhcp.primary_dns);
  link_settings.secondary_dns = first_octet_first(dhcp.secondary_dns);
  link_settings.ipv4_addr = first_octet_first(dhcp.ipv4_addr);
  link_settings.subnet_mask = first_octet_first(dhcp.subnet_mask);
  link_settings.gateway = first_octet_first(dhcp.gateway);

  MAIN_INFO("_ndis_connect : connect successful\n");
  ctx->connected = 1;
  ctx->dhcp = dhcp;
  return 0;
}

int ndis_disconnect() { return ndis_at_disconnect() == 0 ? 0 : -1; }
