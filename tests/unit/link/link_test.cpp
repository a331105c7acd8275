// SPDX-License-Identifier: ISC
// The link module on vector files: command lines, state files and bus
// messages of the set-up, configuration and teardown; /proc/net/dev lines;
// the demand check's steps.
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>

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

// The command lines are what shows: their debug lines on standard output are not checked.
VECTOR_TESTS("Link", "link/link.vec", [](const Row& row) {
  const std::map<std::string, void (*)()> ops = {{"init", wds_link_init}, {"up", wds_link_up}, {"down", wds_link_down}};
  fresh(row["before"]);
  testing::internal::CaptureStdout();
  ops.at(row["operation"])();
  testing::internal::GetCapturedStdout();
  check_vars(kVars, row["after"]);
  EXPECT_EQ(g_commands, row.from("commands"));
});

// The counters read into a record of 0xA5 bytes, with an EINTR left in errno
// by an earlier call: only a read that failed with it is made again.
VECTOR_TESTS("Link", "link/netdev.vec", [](const Row& row) {
  write_file("/var/netdev", unescape(row["text"]));
  free_fd0();
  const int fd = open("/var/netdev", O_RDONLY);
  dev_traffic t;
  memset(&t, 0xA5, sizeof t);
  errno = EINTR;
  EXPECT_EQ(read_dev_traffic(fd, row["interface"].c_str(), &t), 0);
  close(fd);
  fill_fd0();
  char got[200];
  snprintf(got, sizeof got, "rx %u %u %u %u tx %u %u %u %u", t.rx_bytes, t.rx_packets, t.rx_errs, t.rx_drop,
           t.tx_bytes, t.tx_packets, t.tx_errs, t.tx_drop);
  EXPECT_EQ(got, row["counters"]);
});

// The driver's private request goes to the interface it names: tun has no
// private requests and refuses it; a name that is no interface is not found.
TEST(Link, TheDriversPrivateRequestReachesTheNamedInterface) {
  const int tun = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  ifreq request = {};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  snprintf(request.ifr_name, sizeof request.ifr_name, "wds-private");
  ASSERT_EQ(ioctl(tun, TUNSETIFF, &request), 0) << "no tun";
  EXPECT_EQ(usbnet_private_probe("wds-private"), -1);
  const int refused = errno;
  EXPECT_EQ(usbnet_private_probe("wds-nowhere"), -1);
  const int not_found = errno;
  close(tun);
  if (refused == ENOSYS) GTEST_SKIP() << "no private interface requests on this machine";
  EXPECT_EQ(refused, EOPNOTSUPP);
  EXPECT_EQ(not_found, ENODEV);
}

TEST(Link, TrafficReadersRefuseMissingArguments) {
  dev_traffic t;
  EXPECT_EQ(read_dev_traffic(-1, "rmnet0", &t) + read_dev_traffic(0, nullptr, &t) + read_dev_traffic(0, "rmnet0", nullptr) +
                get_dev_traffic(nullptr, &t) + get_dev_traffic("rmnet0", nullptr),
            -5);
}

// The reading: the transmitted bytes of rmnet_tarvek0 in /proc/net/dev;
// "absent": not listed; "none": no file; "reset": the check's reset.
VECTOR_TESTS("Link", "link/demand.vec", [](const Row& row) {
  ASSERT_EQ(mount("wds-test-proc", "/proc", "tmpfs", 0, "size=1m"), 0);
  mkdir("/proc/net", 0755);
  fresh("ifname=rmnet_tarvek0 " + row["before"]);
  const std::string reading = row["reading"];
  const std::string lines = "H1\nH2\n    lo: 5 5 0 0 0 0 0 0 5 5 0 0\nrmnet0: 1 1 0 0 0 0 0 0 777 1 0 0\n";
  if (reading == "absent") write_file("/proc/net/dev", lines);
  if (isdigit(reading[0])) write_file("/proc/net/dev", lines + "rmnet_tarvek0: 1 1 0 0 0 0 0 0 " + reading + " 1 0 0\n");
  g_ret = demand_traffic_check(reading == "reset");
  check_vars(kVars, row["after"]);
  umount2("/proc", MNT_DETACH);
});

}  // namespace
