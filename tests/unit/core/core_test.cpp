// SPDX-License-Identifier: ISC
// The connection manager against the real subsystems: what every module
// starts with, the control files and the profile, and a call brought up and
// ended against the scripted modem (QMI on the tty, or AT in NDIS mode).
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/if_tun.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "at/internal.h"
#include "core/core.h"
#include "link/internal.h"
#include "log/internal.h"
#include "platform/platform.h"
#include "qmi/internal.h"
#include "tests/unit/support/unit.h"

namespace {
uint32_t g_slept_ms, g_pauses;  // the pauses asked for, in ms, and their number
std::string g_commands;        // the command lines run, "; " apart
}  // namespace

extern "C" int __wrap__Z6msleepj(unsigned ms) {
  if (++g_pauses > 1000) abort();  // a retry loop that never ends
  g_slept_ms += ms;
  return 0;
}
extern "C" unsigned __wrap_sleep(unsigned seconds) {
  g_slept_ms += seconds * 1000;
  return 0;
}
extern "C" int __real_ZUN_UTIL_ExecCmdNoHang(const char* cmd);
extern "C" int __wrap_ZUN_UTIL_ExecCmdNoHang(const char* cmd) {
  g_commands += (g_commands.empty() ? "" : "; ") + std::string(cmd);
  return __real_ZUN_UTIL_ExecCmdNoHang(cmd);
}

namespace {

int g_ret, g_armed;

const Vars kVars = {
    NUM_VAR("ret", g_ret), NUM_VAR("slept", g_slept_ms), NUM_VAR("armed", g_armed), Var{"commands", [] { return g_commands; }, nullptr}, NUM_VAR("connected", g_connected), NUM_VAR("ndis", g_ndis_mode),
    NUM_VAR("marked", ndis_ctx.connected), NUM_VAR("status", connection_status), NUM_VAR("reconf", reconfiguration_flag),
    NUM_VAR("handle", conn_handle), NUM_VAR("connect_ticks", g_connect_ticks), TEXT_VAR("pidpath", g_acPidpath),
    TEXT_VAR("profilepath", g_acProfilepath), TEXT_VAR("dialnumber", wan_profile.dialnumber),
    TEXT_VAR("user", wan_profile.username), TEXT_VAR("pass", wan_profile.password), TEXT_VAR("apn", wan_profile.apn),
    TEXT_VAR("setip", wan_profile.ip), NUM_VAR("auth", wan_profile.auth), TEXT_VAR("dial_mode", wan_profile.dial_mode),
    NUM_VAR("idletime", wan_profile.idletime), NUM_VAR("mru", wan_profile.mru),
    ADDR_VAR("ip", link_settings.ipv4_addr), ADDR_VAR("dns2", link_settings.secondary_dns),
    Var{"ifname", [] { return std::string(g_acIfname); }, [](const std::string& v) {
          memset(g_acIfname, 'x', sizeof g_acIfname);  // nothing behind the terminator may leak
          snprintf(g_acIfname, sizeof g_acIfname, "%s", v.c_str());
        }},
    Var{"pid_is_mine", [] { return std::to_string(read_file(g_acPidpath) == std::to_string(getpid())); }, nullptr},
};

// Every module's variables, which the resets put back to what the process started with.
const Vars kModuleVars = {
    NUM_VAR("tick", g_tick), NUM_VAR("reinit", g_reinit_req), NUM_VAR("lost", g_link_lost),
    NUM_VAR("idle_timeout", g_idle_timeout), NUM_VAR("idle_started", g_idle_started),
    NUM_VAR("idle_last", g_idle_last_tx), NUM_VAR("idle_secs", g_idle_secs), NUM_VAR("manual", g_manual_connect),
    NUM_VAR("mark", g_connected_mark), NUM_VAR("busy", g_manual_connect_busy), NUM_VAR("armed", g_timer_armed),
    NUM_VAR("head", qmi_event_queue.head), NUM_VAR("tail", qmi_event_queue.tail), NUM_VAR("dial", g_dial),
    NUM_VAR("demand", g_demand_dial), NUM_VAR("demand_started", g_demand_started), NUM_VAR("hits", g_demand_hits),
    NUM_VAR("demand_last", g_demand_last_tx), NUM_VAR("tx", g_tx_id), NUM_VAR("result", g_qmi_result),
    NUM_VAR("error", g_qmi_error), NUM_VAR("tty", qmitty_fd), NUM_VAR("wait_ticks", g_wait_ticks),
    NUM_VAR("rsp", g_connection_status_rsp), NUM_VAR("at_ticks", g_at_ticks), NUM_VAR("seq", g_at_seq),
    NUM_VAR("wait_state", g_at_wait_state), NUM_VAR("pending_cr", g_at_cr), NUM_VAR("port", g_at_fd),
    NUM_VAR("set_up", at_rx_ring.set_up), NUM_VAR("log", log_fd), NUM_VAR("log_bytes", log_bytes),
};
const std::string kStartValues = all_vars(kVars) + all_vars(kModuleVars);  // taken before main

void fresh(const std::string& values) {
  wan_reset();
  wds_core_reset();
  qmi_event_ring_reset();
  qmi_codec_reset();
  qmi_transport_reset();
  wds_client_reset();
  at_port_reset();
  at_response_reset();
  demand_traffic_reset();
  log_reset();
  g_ret = g_armed = 0;
  g_slept_ms = g_pauses = 0;
  g_commands.clear();
  reset_var("rmnet0");
  reset_var("rmnet_tarvek0");
  snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
  ZUN_MSG_Init("qmi");  // as the daemon does at start
  set_vars(kVars, values);
}

TEST(Core, ModulesStartAsTheirResetsLeaveThem) {
  fresh("ifname=");
  EXPECT_EQ(all_vars(kVars) + all_vars(kModuleVars), kStartValues);
}

void tick() { qmi_timer_handle(SIGALRM); }


// `call` with a /proc of its own that holds the chip file (none for nullptr).
int with_proc(const char* chip, int (*call)()) {
  if (mount("wds-test-proc", "/proc", "tmpfs", 0, "size=64k") != 0) return ADD_FAILURE() << "no /proc", -9;
  if (chip != nullptr) write_file("/proc/proc_user_datacardchip", chip);
  const int ret = call();
  umount2("/proc", MNT_DETACH);
  return ret;
}

// A tun interface of that name in the program's own network namespace, for
// as long as the descriptor is open; -1 when none can be made.
int make_tun(const char* name) {
  const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  ifreq request = {};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  snprintf(request.ifr_name, sizeof request.ifr_name, "%.15s", name);
  if (fd >= 0 && ioctl(fd, TUNSETIFF, &request) == 0) return fd;
  ADD_FAILURE() << "no tun";
  if (fd >= 0) close(fd);
  return -1;
}

// `call` while a tun interface of that name exists.
int with_tun(const char* name, int (*call)()) {
  const int fd = make_tun(name);
  const int ret = call();
  close(fd);
  return ret;
}

// `call` with a /dev of its own, in which /dev/qmitty0 is a plain file or absent.
int with_dev(bool tty_file, int (*call)()) {
  if (mount("wds-test-dev", "/dev", "tmpfs", 0, "size=64k") != 0) return ADD_FAILURE() << "no /dev", -9;
  if (tty_file) write_file("/dev/qmitty0", "");
  const int ret = call();
  umount2("/dev", MNT_DETACH);
  return ret;
}

// Bring-up with what `how` names: "chip=TEXT" the chip file (none without
// it), "tun" the mode's interface, "tty" /dev/qmitty0 as a plain file. Its
// tick is stopped and its channel closed after; g_armed tells whether the
// tick was running.
int bring_up(const std::string& how) {
  const Strings words = split(how, " ");
  const auto has = [&](const char* word) { return std::find(words.begin(), words.end(), word) != words.end(); };
  const auto chip = std::find_if(words.begin(), words.end(), [](const std::string& w) { return w.starts_with("chip="); });
  const std::string chip_text = chip != words.end() ? unescape(chip->substr(5)) : "";
  const int tun = has("tun") ? make_tun(chip_text.starts_with('1') ? "rmnet_tarvek0" : "rmnet0") : -1;
  int ret = -9;
  if (mount("wds-test-proc", "/proc", "tmpfs", 0, "size=64k") == 0 &&
      mount("wds-test-dev", "/dev", "tmpfs", 0, "size=64k") == 0) {
    if (chip != words.end()) write_file("/proc/proc_user_datacardchip", chip_text);
    if (has("tty")) write_file("/dev/qmitty0", "");
    ret = wds_bring_up();
  }
  g_armed = g_timer_armed;
  wds_timer_stop();
  at_port_close();
  qmi_tty_close();
  umount2("/dev", MNT_DETACH);
  umount2("/proc", MNT_DETACH);
  if (tun >= 0) close(tun);
  return ret;
}

// Whether this machine passes the driver-information request on to a tun
// device: qemu-user does not.
bool tun_answers_drvinfo() {
  return with_tun("wds-drvinfo", [] {
           ethtool_drvinfo info = {};
           info.cmd = ETHTOOL_GDRVINFO;
           ifreq request = {};
           snprintf(request.ifr_name, sizeof request.ifr_name, "wds-drvinfo");
           request.ifr_data = reinterpret_cast<char*>(&info);
           const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
           const int ret = ioctl(sock, SIOCETHTOOL, &request);
           close(sock);
           return ret;
         }) == 0;
}

// The operation against the scripted modem, QMI in hex or AT as text; what
// the daemon wrote, QMI as the messages' identifiers. No operation leaves a
// descriptor open.
void run_row(const Row& row) {
  fresh(row["before"]);
  ASSERT_GE(log_open(), 0);
  const std::string op = row["operation"];
  const std::string name = op.substr(0, op.find(' '));
  const std::string arg = name.size() < op.size() ? unescape(op.substr(name.size() + 1)) : "";
  if (op.find("tun") != std::string::npos && !tun_answers_drvinfo()) GTEST_SKIP() << "no driver-information request on this machine";
  const std::string wan = std::string("/var/wan/") + g_acIfname + "/";
  const std::map<std::string, std::function<int()>> ops = {
      {"dial", [&] { write_file(wan + "dial", arg); return wds_dial_read(); }},
      {"profile", [&] { write_file(wan + "config", arg); return get_curr_profile(); }},
      {"no_profile", get_curr_profile},  {"take", [] { wds_dial_take_request(); return 0; }},
      {"status", [&] { return wds_status_write(std::stoi(arg)); }},
      {"write", [&] { return WriteToFile(arg.c_str(), ""); }},      {"dial_read", wds_dial_read},
      {"pid_create", wds_pid_file_create}, {"pid_remove", [] { wds_pid_file_remove(); return 0; }},
      {"connect", wds_connect},          {"disconnect", wds_disconnect},
      {"chip", [&] { return with_proc(arg.c_str(), wds_datacard_is_ndis); }},
      {"no_chip", [&] { return with_proc(nullptr, wds_datacard_is_ndis); }},
      {"probe", [] { return static_cast<int>(wds_probe_usbnet_driver()); }},
      {"probe_retries", wds_probe_usbnet_with_retries},
      {"probe_retries_tun", [] { return with_tun(g_acIfname, wds_probe_usbnet_with_retries); }},
      {"qmi_channel", [&] { return with_dev(arg == "file", [] { const int ret = wds_open_qmi_channel(); qmi_tty_close(); return ret; }); }},
      {"bring_up", [&] { return bring_up(arg); }},
      {"client_id", [] { return with_dev(true, [] { qmi_tty_open(); const int id = get_wds_client_id(); qmi_tty_close(); return id; }); }},
      {"probe_tun", [] { return with_tun(g_acIfname, [] { return static_cast<int>(wds_probe_usbnet_driver()); }); }}};
  Modem modem(g_ndis_mode ? &g_at_fd : &qmitty_fd, tick);
  const int fds = open_fds();
  free_fd0();
  g_ret = modem.run(ops.at(name), Modem::script(row["script"], g_ndis_mode ? unescape : hex));
  fill_fd0();
  EXPECT_LE(open_fds(), fds) << "descriptors left open";
  check_vars(kVars, row["after"]);
  std::string written;
  for (const std::string& w : g_ndis_mode ? Strings{} : modem.written) {
    char id[12];
    snprintf(id, sizeof id, "%s%02X%02X", written.empty() ? "" : " / ", uint8_t(w[3]), uint8_t(w.at(4)));
    written += id;
  }
  for (const std::string& w : g_ndis_mode ? modem.written : Strings{}) written += w;
  EXPECT_EQ(written, g_ndis_mode ? unescape(row["written"]) : row["written"]);
  expect_logged(row.from("log"));
}
VECTOR_TESTS("Core", "core/files.vec", run_row);
VECTOR_TESTS("Core", "core/calls.vec", run_row);

}  // namespace
