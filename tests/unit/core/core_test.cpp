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
#include <sys/resource.h>
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

// `call` with a /proc and a /dev of their own, holding the files given as
// "path=content" (the chip file, /dev/qmitty0 as a plain file).
int with_files(const Strings& files, int (*call)()) {
  if (mount("wds-test-proc", "/proc", "tmpfs", 0, "size=64k") != 0 ||
      mount("wds-test-dev", "/dev", "tmpfs", 0, "size=64k") != 0) {
    return ADD_FAILURE() << "no /proc or /dev of its own", -9;
  }
  for (const std::string& f : files) write_file(f.substr(0, f.find('=')), f.substr(f.find('=') + 1));
  const int ret = call();
  umount2("/dev", MNT_DETACH);
  umount2("/proc", MNT_DETACH);
  return ret;
}

// A tun interface of that name in the program's own network namespace, for
// as long as the descriptor is open.
int make_tun(const char* name) {
  const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  ifreq request = {};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  snprintf(request.ifr_name, sizeof request.ifr_name, "%.15s", name);
  EXPECT_EQ(ioctl(fd, TUNSETIFF, &request), 0) << "no tun";
  return fd;
}

int with_tun(const char* name, int (*call)()) {
  const int fd = make_tun(name);
  const int ret = call();
  close(fd);
  return ret;
}

// Bring-up with what `how` names: "chip=TEXT" the chip file, "tun" the
// mode's interface, "tty" /dev/qmitty0 as a plain file. Its tick is stopped
// and its channel closed after; g_armed tells whether the tick was running.
int bring_up(const std::string& how) {
  Strings files;
  bool tun = false, ndis = false;
  for (const std::string& word : split(how, " ")) {
    if (word.starts_with("chip=")) files.push_back("/proc/proc_user_datacardchip=" + unescape(word.substr(5)));
    ndis = ndis || word.starts_with("chip=1");
    tun = tun || word == "tun";
    if (word == "tty") files.push_back("/dev/qmitty0=");
  }
  const int fd = tun ? make_tun(ndis ? "rmnet_tarvek0" : "rmnet0") : -1;
  const int ret = with_files(files, [] {
    const int up = wds_bring_up();
    g_armed = g_timer_armed;
    wds_timer_stop();
    at_port_close();
    qmi_tty_close();
    return up;
  });
  if (fd >= 0) close(fd);
  return ret;
}

// The QMI channel opened, and closed again.
int qmi_channel_once() {
  const int ret = wds_open_qmi_channel();
  qmi_tty_close();
  return ret;
}

// Whether this machine passes the driver-information request on to a tun
// device: qemu-user does not.
bool tun_answers_drvinfo() {
  const int tun = make_tun("wds-drvinfo"), sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ethtool_drvinfo info = {};
  info.cmd = ETHTOOL_GDRVINFO;
  ifreq request = {};
  snprintf(request.ifr_name, sizeof request.ifr_name, "wds-drvinfo");
  request.ifr_data = reinterpret_cast<char*>(&info);
  const bool answered = ioctl(sock, SIOCETHTOOL, &request) == 0;
  close(sock);
  close(tun);
  return answered;
}

// Digits left on the stack below the caller, where the reader's buffer will
// be: a byte it reads beyond what the file gave shows as a request.
[[gnu::noinline]] void paint_stack() {
  volatile char area[4096];
  for (auto& byte : area) byte = '7';
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
      {"dial", [&] { write_file(wan + "dial", arg); paint_stack(); return wds_dial_read(); }},
      {"profile", [&] { write_file(wan + "config", arg); return get_curr_profile(); }},
      {"no_profile", get_curr_profile},  {"take", [] { wds_dial_take_request(); return 0; }},
      {"status", [&] { return wds_status_write(std::stoi(arg)); }},
      {"write", [&] { return WriteToFile(arg.c_str(), ""); }},      {"dial_read", wds_dial_read},
      {"pid_create", wds_pid_file_create}, {"pid_remove", [] { wds_pid_file_remove(); return 0; }},
      {"connect", wds_connect},          {"disconnect", wds_disconnect},
      {"chip", [&] { return with_files({"/proc/proc_user_datacardchip=" + arg}, wds_datacard_is_ndis); }},
      {"no_chip", [] { return with_files({}, wds_datacard_is_ndis); }},
      {"probe", [] { return static_cast<int>(wds_probe_usbnet_driver()); }},
      {"probe_retries", wds_probe_usbnet_with_retries},
      {"probe_retries_tun", [] { return with_tun(g_acIfname, wds_probe_usbnet_with_retries); }},
      {"qmi_channel", [&] { return with_files(arg == "file" ? Strings{"/dev/qmitty0="} : Strings{}, qmi_channel_once); }},
      {"bring_up", [&] { return bring_up(arg); }},
      {"client_id", [] { return with_files({"/dev/qmitty0="}, [] { qmi_tty_open(); const int id = get_wds_client_id(); return qmi_tty_close(), id; }); }},
      {"probe_tun", [] { return with_tun(g_acIfname, [] { return static_cast<int>(wds_probe_usbnet_driver()); }); }}};
  Modem modem(g_ndis_mode ? &g_at_fd : &qmitty_fd, tick);
  fill_fd0();
  const int fds = open_fds();
  free_fd0();
  g_ret = modem.run(ops.at(name), Modem::script(row["script"], g_ndis_mode ? unescape : hex));
  EXPECT_LT(open_fds(), fds) << "descriptors left open, 0 among them";
  fill_fd0();
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

// Without a free descriptor the probe cannot ask, and says so.
TEST(Core, TheDriverProbeWithoutAFreeDescriptorSaysSo) {
  fresh("");
  rlimit saved = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  testing::internal::CaptureStdout();
  rlimit none = saved;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool answered = wds_probe_usbnet_driver();
  setrlimit(RLIMIT_NOFILE, &saved);
  fflush(stdout);
  EXPECT_FALSE(answered);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nget usbnet state : create socket error.\n");
}

// What the driver says of itself, on standard output as the supervisor's log
// shows it: tun answers as driver "tun" 1.6 on bus "tun".
TEST(Core, TheDriverProbeReportsTheDriverOnStandardOutput) {
  if (!tun_answers_drvinfo()) GTEST_SKIP() << "no driver-information request on this machine";
  fresh("");
  testing::internal::CaptureStdout();
  EXPECT_EQ(with_tun(g_acIfname, [] { return static_cast<int>(wds_probe_usbnet_driver()); }), 1);
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\nusbnet info :\ncmd\t = 3\ndrv\t = tun\nver\t = 1.6\nfm ver\t = \nbus info = tun\n\n===>ioctl socket rmnet0 ok");
}

}  // namespace
