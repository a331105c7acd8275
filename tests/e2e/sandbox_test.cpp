// The sandbox on its own: what it prepares inside, that sandboxes running
// side by side with the same interface name stay apart, and that nothing of
// one is left on the host, or written to the host's /var, /dev or /proc.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <net/if.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "platform/platform.h"
#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

SandboxOptions no_daemon() {
  SandboxOptions o;
  o.start_daemon = false;
  return o;
}

std::string ns_of(pid_t pid, const char* ns) {
  char buf[64] = {};
  std::string link = "/proc/" + std::to_string(pid) + "/ns/" + ns;
  ssize_t n = readlink(link.c_str(), buf, sizeof buf - 1);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

// Host processes that live in the given namespace.
std::vector<pid_t> processes_in(const char* ns, const std::string& id) {
  std::vector<pid_t> out;
  DIR* d = opendir("/proc");
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    pid_t pid = atoi(e->d_name);
    if (ns_of(pid, ns) == id) out.push_back(pid);
  }
  closedir(d);
  return out;
}

std::string host_mounts() {
  std::ifstream in("/proc/self/mountinfo");
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// What the host has at the paths the daemon uses: existence, size and
// modification time, so that any write shows.
std::string host_snapshot() {
  const char* paths[] = {"/var/wan",     "/var/wan/rmnet0", "/var/wan/rmnet_tarvek0", "/var/log/wds.log",
                         "/var/log/dhcp_result", "/var/log/ipv6cap", "/var/log/ppp_state", "/dev/qmitty0",
                         "/proc/proc_user_datacardchip", "/etc/wds-sandbox-probe"};
  std::string out;
  for (const char* p : paths) {
    struct stat st;
    out += p;
    if (lstat(p, &st) == 0)
      out += " size=" + std::to_string(st.st_size) + " mtime=" + std::to_string(st.st_mtim.tv_sec) + "." +
             std::to_string(st.st_mtim.tv_nsec) + "\n";
    else
      out += " absent\n";
  }
  return out;
}

TEST(Sandbox, ChipFileAndInterfaceFollowTheMode) {
  struct Case {
    const char* name;
    Chip chip;
    std::optional<std::string> chip_text;
    std::optional<std::string> expected_chip;  // nullopt: no file
    const char* ifname;
  } cases[] = {
      {"qmi", Chip::kQmi, std::nullopt, "0\n", "rmnet0"},
      {"ndis", Chip::kNdis, std::nullopt, "1\n", "rmnet_tarvek0"},
      {"no chip file", Chip::kNone, std::nullopt, std::nullopt, "rmnet0"},
      {"chip text 10", Chip::kQmi, "10", "10", "rmnet_tarvek0"},
      {"empty chip file", Chip::kQmi, "", "", "rmnet0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SandboxOptions o = no_daemon();
    o.chip = c.chip;
    o.chip_text = c.chip_text;
    Sandbox sb(o);
    sb.start();
    EXPECT_EQ(sb.ifname(), c.ifname);
    EXPECT_EQ(sb.read("/proc/proc_user_datacardchip"), c.expected_chip);
    auto ls = sb.run({"ls", "/sys/class/net"});
    EXPECT_EQ(ls.status, 0);
    EXPECT_EQ(ls.output, "lo\n" + std::string(c.ifname) + "\n");
    EXPECT_EQ(sb.sim_state()["mode"], std::string(c.ifname) == "rmnet0" ? "qmi" : "ndis");
    EXPECT_TRUE(sb.state("config").has_value());
  }
}

TEST(Sandbox, PreparesPrivateRunDevProcSysAndVar) {
  SandboxOptions o = no_daemon();
  o.dial = 3;
  o.profile = "setapn = test.apn\nmru = 1400\n";
  Sandbox sb(o);
  sb.start();
  EXPECT_EQ(sb.state("config"), "setapn = test.apn\nmru = 1400\n");
  EXPECT_EQ(sb.state("dial"), "3\n");
  EXPECT_FALSE(sb.state("status").has_value());
  EXPECT_FALSE(sb.read("/var/log/wds.log").has_value());

  struct statfs fs {};
  ASSERT_EQ(statfs(("/proc/" + std::to_string(sb.init_pid()) + "/root/dev/qmitty0").c_str(), &fs), 0);
  EXPECT_EQ(fs.f_type, FUSE_SUPER_MAGIC);
  ASSERT_EQ(statfs(("/proc/" + std::to_string(sb.init_pid()) + "/root/var").c_str(), &fs), 0);
  EXPECT_EQ(fs.f_type, TMPFS_MAGIC);

  struct Probe {
    std::vector<std::string> argv;
    int status;
    std::string output;
  } probes[] = {
      {{"cat", "/proc/sys/net/ipv6/conf/all/disable_ipv6"}, 0, "1\n"},
      {{"hostname"}, 0, "wds-sandbox\n"},
      {{"sh", "-c", "echo $PATH"}, 0, "/run/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n"},
      {{"sh", "-c", "test -c /dev/net/tun && test -c /dev/null && test -f /dev/qmitty0 && echo ok"}, 0, "ok\n"},
      {{"sh", "-c", "ls -d /var/wan/rmnet0 /var/log /var/tmp"}, 0, "/var/log\n/var/tmp\n/var/wan/rmnet0\n"},
      {{"sh", "-c", "cat /proc/sys/kernel/pid_max; ls /proc | grep -c '^[0-9]'"}, 0, "2048\n2048\n"},
      {{"sh", "-c", "head -c 17 /proc/1/stat; echo; cat /proc/self/comm"}, 0, "1 (wds-sandbox) S\ncat\n"},
  };
  for (const auto& p : probes) {
    auto r = sb.run(p.argv);
    EXPECT_EQ(r.status, p.status) << p.argv.back();
    EXPECT_EQ(r.output, p.output) << p.argv.back();
  }
  auto lo = sb.run({"ip", "-o", "link", "show", "lo"});
  EXPECT_NE(lo.output.find("LOWER_UP"), std::string::npos) << lo.output;
  // The root filesystem is read-only inside.
  auto w = sb.run({"sh", "-c", "echo x > /etc/wds-sandbox-probe"});
  EXPECT_NE(w.status, 0);
}

TEST(Sandbox, ParallelSandboxesWithTheSameInterfaceStayApart) {
  constexpr int kCount = 4;
  std::vector<std::unique_ptr<Sandbox>> boxes;
  for (int i = 0; i < kCount; ++i) {
    SandboxOptions o = no_daemon();
    o.dial = i;
    boxes.push_back(std::make_unique<Sandbox>(o));
    boxes.back()->start();
  }
  for (int i = 0; i < kCount; ++i) {
    Sandbox& sb = *boxes[i];
    ASSERT_EQ(sb.ifname(), "rmnet0");
    // Same interface, same address in every one of them.
    auto up = sb.run({"sh", "-c", "ip addr add 10.48.48.48/24 dev rmnet0 && ip link set rmnet0 up"});
    ASSERT_EQ(up.status, 0) << up.output;
    sb.sim("set client-id=" + std::to_string(10 + i));
  }
  for (int i = 0; i < kCount; ++i) boxes[i]->udp("10.48.48.77", 9, 100, i + 1);
  for (int i = 0; i < kCount; ++i) {
    Sandbox& sb = *boxes[i];
    SCOPED_TRACE(i);
    EXPECT_TRUE(sb.wait_until([&] { return sb.sim_state()["tun-packets"] == std::to_string(i + 1); }, 10s));
    auto c = sb.net_dev("rmnet0");
    ASSERT_TRUE(c.has_value());
    EXPECT_EQ(c->tx_packets, static_cast<uint64_t>(i + 1));
    EXPECT_EQ(c->tx_bytes, static_cast<uint64_t>((i + 1) * 128));  // 20 + 8 + 100
    EXPECT_EQ(sb.sim_state()["client-id"], std::to_string(10 + i));
    EXPECT_EQ(sb.state("dial"), std::to_string(i) + "\n");
  }
}

// Start time of a host process in clock ticks since boot; "" once gone.
std::string start_time(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(in, line)) return "";
  size_t paren = line.rfind(')');
  std::istringstream fields(line.substr(paren + 2));
  std::string f;
  for (int i = 3; i <= 22 && fields >> f; ++i) {
  }
  return f;  // field 22
}

TEST(Sandbox, KillingTheRunnerLeavesNoProcessMountOrInterface) {
  ASSERT_EQ(if_nametoindex("rmnet0"), 0u) << "the host itself has an rmnet0";
  // Namespace ids are reused once freed (by other tests running in
  // parallel, say), so what is checked afterwards is the processes found in
  // them before.
  std::map<pid_t, std::string> inside;
  {
    Sandbox sb(no_daemon());
    sb.start();
    ASSERT_NE(ns_of(sb.init_pid(), "pid"), ns_of(getpid(), "pid"));
    ASSERT_NE(ns_of(sb.init_pid(), "net"), ns_of(getpid(), "net"));
    ASSERT_NE(ns_of(sb.init_pid(), "mnt"), ns_of(getpid(), "mnt"));
    auto r = sb.run({"sh", "-c", "sleep 600 > /dev/null 2>&1 &"});
    ASSERT_EQ(r.status, 0);
    for (const char* ns : {"pid", "net", "mnt"})
      for (pid_t p : processes_in(ns, ns_of(sb.init_pid(), ns))) inside[p] = start_time(p);
    // PID 1, the simulator and the process started inside at least.
    EXPECT_GE(inside.size(), 3u);
    // The device's mount is seen inside only.
    std::ifstream mi("/proc/" + std::to_string(sb.init_pid()) + "/mountinfo");
    std::string sandbox_mounts((std::istreambuf_iterator<char>(mi)), std::istreambuf_iterator<char>());
    EXPECT_NE(sandbox_mounts.find("/dev/qmitty0 "), std::string::npos);
    EXPECT_NE(sandbox_mounts.find("wds-sim"), std::string::npos);
    EXPECT_EQ(host_mounts().find("wds-sim"), std::string::npos);
    sb.kill_hard();
    EXPECT_FALSE(sb.running());
  }
  for (const auto& [pid, started] : inside) {
    std::string now = start_time(pid);
    EXPECT_TRUE(now.empty() || now != started) << "process " << pid << " of the sandbox is still there";
  }
  EXPECT_EQ(host_mounts().find("wds-sim"), std::string::npos);
  EXPECT_EQ(if_nametoindex("rmnet0"), 0u);
}

TEST(Sandbox, NothingIsWrittenToTheHostsVarDevOrProc) {
  std::string before = host_snapshot();
  std::string mounts_before = host_mounts();
  {
    SandboxOptions o = no_daemon();
    o.chip = Chip::kNdis;
    Sandbox sb(o);
    sb.start();
    sb.write_dial(3);
    sb.write("/var/log/wds.log", "probe\n");
    sb.run({"sh", "-c", "echo 1 > /var/wan/rmnet_tarvek0/status; echo x > /var/log/dhcp_result; "
                        "echo x > /var/log/ipv6cap; mkdir -p /var/log/ppp_state; echo x > /etc/wds-sandbox-probe"});
    sb.run({"sh", "-c", "atcmd cfun set 4"});
    EXPECT_EQ(sb.state("status"), "1\n");
    sb.stop();
    EXPECT_EQ(std::ifstream(sb.dir() + "/final/log/wds.log").good(), true);
  }
  EXPECT_EQ(host_snapshot(), before);
  EXPECT_EQ(host_mounts(), mounts_before);
}

TEST(Sandbox, BusPeerCmsRecordsEveryMessage) {
  Sandbox sb(no_daemon());
  sb.start();
  // A bus client inside the sandbox's network namespace (the bus lives in
  // abstract socket names, one set per namespace).
  pid_t pid = fork();
  if (pid == 0) {
    int ns = open(("/proc/" + std::to_string(sb.init_pid()) + "/ns/net").c_str(), O_RDONLY);
    if (ns < 0 || setns(ns, CLONE_NEWNET) != 0) _exit(2);
    if (ZUN_MSG_Init("probe") != 0) _exit(3);
    char name[64] = "rmnet0";
    if (ZUN_MSG_SendMsgData("cms", 0x11601, nullptr, 0) != 0) _exit(4);
    if (ZUN_MSG_SendMsgData("cms", 0x3d02, name, sizeof name) != 0) _exit(5);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
  ASSERT_TRUE(sb.wait_bus(0x3d02, 5s));
  auto msgs = sb.bus();
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[0].sender, "probe");
  EXPECT_EQ(msgs[0].type, 0x11601u);
  EXPECT_EQ(msgs[0].len, 0u);
  EXPECT_EQ(msgs[0].payload, "");
  EXPECT_EQ(msgs[1].type, 0x3d02u);
  EXPECT_EQ(msgs[1].len, 64u);
  EXPECT_EQ(msgs[1].payload, std::string("rmnet0") + std::string(58, '\0'));
  EXPECT_LE(msgs[0].t_us, msgs[1].t_us);
  // From the host's own namespace the name "cms" is not there at all.
  EXPECT_NE(ZUN_MSG_Init("probe-host"), -1);
  EXPECT_EQ(ZUN_MSG_SendMsgData("cms", 0x11601, nullptr, 0), -1);
}

TEST(Sandbox, StubAtcmdRecordsItsArgumentsThroughTheShell) {
  Sandbox sb(no_daemon());
  sb.start();
  auto r = sb.run({"/bin/sh", "-c", "atcmd cfun set 4; atcmd cfun set 7; atcmd cfun set 6"});
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(sb.atcmd_calls(), (std::vector<std::string>{"cfun set 4", "cfun set 7", "cfun set 6"}));
}

TEST(Sandbox, TrafficTowardsTheDemandRouteEndsInTheSimulator) {
  Sandbox sb(no_daemon());
  sb.start();
  // The placeholder set-up of dial on demand, as the daemon makes it.
  for (const char* cmd : {"ifconfig rmnet0 10.48.48.48 netmask  255.255.255.255",
                          "route add -host 10.112.112.112 dev rmnet0", "route  add  default  gw  10.112.112.112"}) {
    auto r = sb.run({"/bin/sh", "-c", cmd});
    ASSERT_EQ(r.status, 0) << cmd << ": " << r.output;
  }
  auto before = sb.net_dev("rmnet0");
  ASSERT_TRUE(before.has_value());
  EXPECT_EQ(before->tx_packets, 0u);
  sb.udp("198.51.100.7", 9, 100, 3);
  ASSERT_TRUE(sb.wait_until([&] { return sb.sim_state()["tun-packets"] == "3"; }, 10s));
  auto after = sb.net_dev("rmnet0");
  EXPECT_EQ(after->tx_packets, 3u);
  EXPECT_EQ(after->tx_bytes, 3u * 128u);
  size_t net_records = 0;
  for (const auto& r : sb.device_log())
    if (r.kind == "net") {
      ++net_records;
      ASSERT_GE(r.data.size(), 20u);
      EXPECT_EQ(to_hex(r.data.substr(16, 4)), "c6336407");  // destination 198.51.100.7
    }
  EXPECT_EQ(net_records, 3u);
}

TEST(Sandbox, ControlOfPid1) {
  Sandbox sb(no_daemon());
  sb.start();
  EXPECT_EQ(sb.init("status").substr(0, 19), "daemon=not-started ");
  const char* refused[] = {"kill TERM", "kill NOSUCH", "udp 1.2.3 9", "udp 10.0.0.1 99999", "frobnicate", ""};
  for (const char* c : refused) EXPECT_THROW(sb.init(c), std::runtime_error) << c;
  // No route at all yet: the datagram has nowhere to go.
  EXPECT_THROW(sb.udp("198.51.100.7", 9), std::runtime_error);
  EXPECT_FALSE(sb.daemon_exit().has_value());
  EXPECT_FALSE(sb.daemon_pid().has_value());
}

TEST(Sandbox, StartsQuickly) {
  std::vector<double> ms;
  for (int i = 0; i < 5; ++i) {
    Sandbox sb(no_daemon());
    auto t0 = std::chrono::steady_clock::now();
    sb.start();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
  }
  std::sort(ms.begin(), ms.end());
  RecordProperty("start_median_ms", std::to_string(ms[2]));
  printf("sandbox start-up: median %.1f ms, min %.1f ms, max %.1f ms\n", ms[2], ms[0], ms[4]);
  EXPECT_LT(ms[2], 3000.0);
}

}  // namespace
