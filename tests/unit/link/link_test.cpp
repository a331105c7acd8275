// SPDX-License-Identifier: ISC
// The link module on vector files: command lines, state files, standard
// output and bus messages of the set-up, configuration and teardown;
// /proc/net/dev lines; the demand check's steps.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "link/internal.h"
#include "platform/platform.h"
#include "tests/unit/support/unit.h"
#include "wan/wan.h"

namespace {
Strings g_commands;  // every line handed to the command runner, in order
}

// The runner as the link module reaches it: the line recorded, then run.
extern "C" int __real_ZUN_UTIL_ExecCmdNoHang(const char* cmd);
extern "C" int __wrap_ZUN_UTIL_ExecCmdNoHang(const char* cmd) {
  g_commands.push_back(cmd);
  return __real_ZUN_UTIL_ExecCmdNoHang(cmd);
}

namespace {

int g_ret;

// The "cms" peer, bound in the program's own network namespace.
int cms_fd() {
  static const int fd = bus_peer("cms");
  return fd;
}

// What "cms" received, as "sender:type:length:payload" (the payload without its trailing NULs).
std::string cms_received() {
  std::string out;
  unsigned char buf[sizeof(zun_msg_header) + kZunMsgMaxPayload];
  for (ssize_t n; (n = recv(cms_fd(), buf, sizeof buf, MSG_DONTWAIT)) >= static_cast<ssize_t>(sizeof(zun_msg_header));) {
    zun_msg_header h;
    memcpy(&h, buf, sizeof h);
    std::string payload(reinterpret_cast<char*>(buf) + sizeof h, static_cast<size_t>(n) - sizeof h);
    while (!payload.empty() && payload.back() == '\0') payload.pop_back();
    char head[64];
    snprintf(head, sizeof head, "%s%.32s:%x:%u:", out.empty() ? "" : ",", h.sender, h.type, h.len);
    out += head + payload;
  }
  return out;
}

const Vars kVars = {
    NUM_VAR("ret", g_ret), NUM_VAR("dial", g_dial), NUM_VAR("mru", wan_profile.mru), NUM_VAR("demand", g_demand_dial),
    NUM_VAR("started", g_demand_started), NUM_VAR("hits", g_demand_hits), NUM_VAR("last", g_demand_last_tx),
    ADDR_VAR("ip", link_settings.ipv4_addr), ADDR_VAR("mask", link_settings.subnet_mask),
    ADDR_VAR("gw", link_settings.gateway), ADDR_VAR("dns1", link_settings.primary_dns),
    ADDR_VAR("dns2", link_settings.secondary_dns),
    Var{"ifname", nullptr, [](const std::string& v) {
          memset(g_acIfname, 'x', sizeof g_acIfname);  // nothing behind the terminator may leak
          snprintf(g_acIfname, sizeof g_acIfname, "%s", v.c_str());
        }},
    Var{"bus", cms_received, [](const std::string& v) { ZUN_MSG_Init(v.c_str()); }},
};

void fresh(const std::string& values) {
  ASSERT_GE(cms_fd(), 0);
  cms_received();
  wan_reset();
  demand_traffic_reset();
  snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
  ZUN_MSG_Init("qmi");  // as the daemon does at start
  reset_var("rmnet0");
  reset_var("rmnet_tarvek0");
  g_commands.clear();
  set_vars(kVars, values);
}

// values before | operation | values after | standard output | the command lines
TEST(Link, SetUpConfigurationAndTeardown) {
  const std::map<std::string, void (*)()> ops = {{"init", wds_link_init}, {"up", wds_link_up}, {"down", wds_link_down}};
  for (const Vector& v : vectors("link/link.vec")) {
    SCOPED_TRACE(v.where);
    fresh(v[0]);
    testing::internal::CaptureStdout();
    ops.at(v[1])();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), v[3] == "-" ? "" : unescape(v[3]));
    check_vars(kVars, v[2]);
    EXPECT_EQ(g_commands, v.from(4));
  }
}

// interface | the text of /proc/net/dev | the counters read (a record of 0xA5 bytes before)
TEST(Link, TrafficCounters) {
  for (const Vector& v : vectors("link/netdev.vec")) {
    SCOPED_TRACE(v.where);
    write_file("/var/netdev", unescape(v[1]));
    const int fd = open("/var/netdev", O_RDONLY);
    dev_traffic t;
    memset(&t, 0xA5, sizeof t);
    EXPECT_EQ(read_dev_traffic(fd, v[0] == "-" ? "" : v[0].c_str(), &t), 0);
    close(fd);
    char got[200];
    snprintf(got, sizeof got, "rx %u %u %u %u tx %u %u %u %u", t.rx_bytes, t.rx_packets, t.rx_errs, t.rx_drop,
             t.tx_bytes, t.tx_packets, t.tx_errs, t.tx_drop);
    EXPECT_EQ(got, v[2]);
  }
  dev_traffic t;
  EXPECT_EQ(read_dev_traffic(-1, "rmnet0", &t) + read_dev_traffic(0, nullptr, &t) + read_dev_traffic(0, "rmnet0", nullptr) +
                get_dev_traffic(nullptr, &t) + get_dev_traffic("rmnet0", nullptr),
            -5);
}

// values before | the transmitted bytes of rmnet_tarvek0 in /proc/net/dev ("absent": not listed,
// "none": no file, "reset": the check's reset) | values after
TEST(Link, DemandCheck) {
  ASSERT_EQ(mount("wds-test-proc", "/proc", "tmpfs", 0, "size=1m"), 0);
  mkdir("/proc/net", 0755);
  for (const Vector& v : vectors("link/demand.vec")) {
    SCOPED_TRACE(v.where);
    fresh("ifname=rmnet_tarvek0 " + v[0]);
    const std::string lines = "H1\nH2\n    lo: 5 5 0 0 0 0 0 0 5 5 0 0\nrmnet0: 1 1 0 0 0 0 0 0 777 1 0 0\n";
    if (v[1] == "none") unlink("/proc/net/dev");
    if (v[1] == "absent") write_file("/proc/net/dev", lines);
    if (isdigit(v[1][0])) write_file("/proc/net/dev", lines + "rmnet_tarvek0: 1 1 0 0 0 0 0 0 " + v[1] + " 1 0 0\n");
    g_ret = demand_traffic_check(v[1] == "reset");
    check_vars(kVars, v[2]);
  }
  umount2("/proc", MNT_DETACH);
}

}  // namespace
