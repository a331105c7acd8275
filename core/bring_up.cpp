// SPDX-License-Identifier: ISC
// Datacard bring-up: signals, mode, interface, pid file, driver probe,
// control channel, tick, profile, status, WDS reset.
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "at/at.h"
#include "core/core.h"
#include "platform/platform.h"
#include "qmi/qmi.h"

namespace {

constexpr unsigned kSettleSeconds = 3;
constexpr int kProbeAttempts = 5;
constexpr int kTtyOpenAttempts = 5;
constexpr int kClientIdAttempts = 5;
constexpr unsigned kRetryPauseMs = 1000;
constexpr unsigned kDatacardResetPauseMs = 2000;
constexpr char kIfnameNdis[] = "rmnet_tarvek0";
constexpr char kIfnameQmi[] = "rmnet0";

// The datacard's own AT tool restarts it; its outcome shows in the next bring-up.
void reset_datacard() {
  ZUN_UTIL_ExecCmdNoHang("atcmd cfun set 4");
  msleep(kDatacardResetPauseMs);
  ZUN_UTIL_ExecCmdNoHang("atcmd cfun set 7");
  msleep(kDatacardResetPauseMs);
  ZUN_UTIL_ExecCmdNoHang("atcmd cfun set 6");
}

int open_qmitty_with_retries() {
  for (int attempt = 1; attempt <= kTtyOpenAttempts; ++attempt) {
    const int fd = qmi_tty_open();
    if (fd >= 0) {
      printf("\n===>QMITTY can be opened fd = %d\n", fd);
      return 0;
    }
    printf("\n===>QMITTY can't be open,Reboot datacard\n");
    // Only after five failed opens in a row is the datacard restarted.
    if (attempt == kTtyOpenAttempts) reset_datacard();
    msleep(kRetryPauseMs);
  }
  return -1;
}

int query_client_id_with_retries() {
  for (int attempt = 1; attempt <= kClientIdAttempts; ++attempt) {
    int id = get_wds_client_id();
    if (id >= 0) {
      printf("\n===>Query WDS Client id succeed, id=%d.", id);
      return id > 0 ? 0 : -1;
    }
    printf("\n===>Query WDS Client id failed.");
    msleep(kRetryPauseMs);
  }
  return -1;
}

}  // namespace

int wds_probe_usbnet_with_retries() {
  for (int attempt = 1; attempt <= kProbeAttempts; ++attempt) {
    if (wds_probe_usbnet_driver()) return 0;
    msleep(kRetryPauseMs);
  }
  return -1;
}

int wds_open_qmi_channel() {
  if (open_qmitty_with_retries() != 0) return -1;
  return query_client_id_with_retries();
}

int wds_datacard_is_ndis() {
  FILE* chip = fopen(wds_paths::kDatacardChip, "r");
  if (chip == nullptr) return 0;
  int first = fgetc(chip);
  fclose(chip);
  return first == '1' ? 1 : 0;
}

// Asks the interface's driver for its information block: proves that the
// datacard's network interface exists and its driver answers.
bool wds_probe_usbnet_driver() {
  int sock = socket(AF_INET, SOCK_DGRAM, 0);
  if (sock < 0) {
    printf("\nget usbnet state : create socket error.\n");
    return false;
  }
  ethtool_drvinfo drvinfo = {};
  drvinfo.cmd = ETHTOOL_GDRVINFO;
  ifreq request = {};
  snprintf(request.ifr_name, IFNAMSIZ, "%.15s", g_acIfname);
  request.ifr_data = reinterpret_cast<char*>(&drvinfo);
  if (ioctl(sock, SIOCETHTOOL, &request) < 0) {
    printf("get usbnet state : ioctl error.");
    close(sock);
    return false;
  }
  printf("\nusbnet info :");
  printf("\ncmd\t = %d", static_cast<int>(drvinfo.cmd));
  printf("\ndrv\t = %s", drvinfo.driver);
  printf("\nver\t = %s", drvinfo.version);
  printf("\nfm ver\t = %s", drvinfo.fw_version);
  printf("\nbus info = %s\n", drvinfo.bus_info);
  close(sock);
  printf("\n===>ioctl socket %s ok", g_acIfname);
  return true;
}

int wds_bring_up() {
  wds_state_print(WDS_STATE_INIT);
  sleep(kSettleSeconds);
  wds_install_signal_handlers();

  g_ndis_mode = wds_datacard_is_ndis();
  snprintf(g_acIfname, sizeof g_acIfname, "%s", g_ndis_mode ? kIfnameNdis : kIfnameQmi);

  if (wds_pid_file_create() != 0) return -1;
  wan_profile = {};
  qmi_event_ring_reset();

  if (wds_probe_usbnet_with_retries() != 0) return -1;

  if (g_ndis_mode) {
    if (wait_wm_ready() == -1) return -1;
  } else if (wds_open_qmi_channel() != 0) {
    return -1;
  }

  // The WDS reset below counts its time-out in ticks: the tick must run first.
  wds_timer_start();
  if (get_curr_profile() == -1) return -1;
  wds_status_write(WDS_STATUS_READY);  // a status file that cannot be written is logged there
  if (!g_ndis_mode && wds_reset_service() != 0) return -1;

  g_reinit_req = 0;
  wds_state_print(WDS_STATE_READY);
  return 0;
}
