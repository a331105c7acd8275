// Datacard bring-up: signals, mode, interface, pid file, driver probe,
// control channel, tick, profile, status, WDS reset.
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "at/at.h"
#include "core/core.h"
#include "core/paths.h"
#include "log/log.h"
#include "platform/platform.h"
#include "qmi/qmi.h"

namespace {

constexpr unsigned kSettleSeconds = 3;
constexpr int kProbeAttempts = 5;
constexpr int kTtyOpenAttempts = 5;
constexpr int kClientIdAttempts = 5;
constexpr unsigned kRetryPauseMs = 1000;
constexpr unsigned kDatacardResetPauseMs = 2000;
constexpr int kSigManualConnect = 37;
constexpr int kSigConnectedMark = 36;
constexpr int kSigReinit = 38;

constexpr char kIfnameNdis[] = "rmnet_tarvek0";
constexpr char kIfnameQmi[] = "rmnet0";

struct handler_entry {
  int sig;
  void (*handler)(int);
};

// Installation order matters only for which failure is reported first.
constexpr handler_entry kHandlers[] = {
    {SIGHUP, wds_term_handle},     {SIGINT, wds_term_handle},    {SIGTERM, wds_term_handle},
    {SIGCHLD, wds_chld_handle},    {SIGUSR1, wds_term_handle2},  {SIGUSR2, wds_term_handle2},
    {SIGABRT, wds_term_handle2},   {SIGFPE, wds_term_handle2},   {SIGILL, wds_term_handle2},
    {SIGPIPE, wds_term_handle2},   {SIGQUIT, wds_term_handle2},  {SIGSEGV, wds_term_handle2},
    {SIGBUS, wds_term_handle2},    {SIGIO, wds_term_handle2},    {SIGPROF, wds_term_handle2},
    {SIGSYS, wds_term_handle2},    {SIGTRAP, wds_term_handle2},  {SIGVTALRM, wds_term_handle2},
    {SIGXCPU, wds_term_handle2},   {SIGXFSZ, wds_term_handle2},
};

constexpr handler_entry kRealtimeHandlers[] = {
    {kSigManualConnect, wds_manual_connect_handle},
    {kSigConnectedMark, wds_connected_mark_handle},
    {kSigReinit, wds_reinit_handle},
};

void install_handler(const handler_entry& entry) {
  struct sigaction action = {};
  action.sa_handler = entry.handler;
  sigfillset(&action.sa_mask);
  action.sa_flags = 0;  // no restart: every signal must end a blocking call
  if (sigaction(entry.sig, &action, nullptr) != 0) {
    MAIN_ERROR("Couldn't establish signal handl (%d)", entry.sig);
    wds_exit();
  }
}

void install_signal_handlers() {
  for (const auto& entry : kHandlers) install_handler(entry);
  signal(SIGPIPE, SIG_IGN);
  for (const auto& entry : kRealtimeHandlers) install_handler(entry);
}

int datacard_is_ndis() {
  FILE* chip = fopen(wds_paths::kDatacardChip, "r");
  if (chip == nullptr) return 0;
  int first = fgetc(chip);
  fclose(chip);
  return first == '1' ? 1 : 0;
}

// Asks the interface's driver for its information block: proves that the
// datacard's network interface exists and its driver answers.
bool probe_usbnet_driver() {
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

int probe_usbnet_with_retries() {
  for (int attempt = 1; attempt <= kProbeAttempts; ++attempt) {
    if (probe_usbnet_driver()) return 0;
    msleep(kRetryPauseMs);
  }
  return -1;
}

void reset_datacard() {
  ZUN_UTIL_ExecCmdNoHang("atcmd cfun set 4");
  msleep(kDatacardResetPauseMs);
  ZUN_UTIL_ExecCmdNoHang("atcmd cfun set 7");
  msleep(kDatacardResetPauseMs);
  ZUN_UTIL_ExecCmdNoHang("atcmd cfun set 6");
}

int open_qmitty_with_retries() {
  for (int attempt = 1; attempt <= kTtyOpenAttempts; ++attempt) {
    if (qmitty_fd > 0) {
      close(qmitty_fd);
      qmitty_fd = -1;
    }
    qmitty_fd = open(wds_paths::kQmiTty, O_RDWR);
    if (qmitty_fd >= 0) {
      printf("\n===>QMITTY can be opened fd = %d\n", qmitty_fd);
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

int open_qmi_channel() {
  if (open_qmitty_with_retries() != 0 || qmitty_fd < 0) return -1;
  return query_client_id_with_retries();
}

}  // namespace

int wds_bring_up() {
  wds_state_print(WDS_STATE_INIT);
  sleep(kSettleSeconds);
  install_signal_handlers();

  g_ndis_mode = datacard_is_ndis();
  snprintf(g_acIfname, sizeof g_acIfname, "%s", g_ndis_mode ? kIfnameNdis : kIfnameQmi);

  if (wds_pid_file_create() != 0) return -1;
  memset(&wan_profile, 0, sizeof wan_profile);
  qmi_event_ring_reset();

  if (probe_usbnet_with_retries() != 0) return -1;

  if (g_ndis_mode) {
    if (wait_wm_ready() == -1) return -1;
  } else if (open_qmi_channel() != 0) {
    return -1;
  }

  // The WDS reset below counts its time-out in ticks: the tick must run first.
  wds_timer_start();
  if (get_curr_profile() == -1) return -1;
  wds_status_write(WDS_STATUS_READY);
  if (!g_ndis_mode && wds_reset_service() != 0) return -1;

  g_reinit_req = 0;
  wds_state_print(WDS_STATE_READY);
  return 0;
}
