// Link setup, configuration and teardown: the command lines and their order,
// what reaches standard output, the state files, and the bus messages.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "link/internal.h"
#include "platform/platform.h"
#include "tests/unit/support/private_var.h"
#include "wan/wan.h"

using Lines = std::vector<std::string>;
static Lines g_commands;  // every line handed to the command runner, in order

// The runner as the link module reaches it, wrapped at link time: the line is
// recorded exactly, then run for real.
extern "C" int __real_ZUN_UTIL_ExecCmdNoHang(const char* cmd);
extern "C" int __wrap_ZUN_UTIL_ExecCmdNoHang(const char* cmd) {
  g_commands.push_back(cmd == nullptr ? "(null)" : cmd);
  return __real_ZUN_UTIL_ExecCmdNoHang(cmd);
}

namespace {

constexpr char kStubRecord[] = "/var/stub-bin/commands";
const std::string kWan = "/var/wan/rmnet0/";

// A bus datagram as "cms" sees it: sender, type, length field, payload.
using Msg = std::tuple<std::string, uint32_t, uint32_t, std::string>;
const Msg kLinkChanged = {"qmi", 0x11601, 0, ""};

Msg demand_ready(const std::string& ifname) {
  std::string name = ifname.substr(0, 64);
  name.resize(64, '\0');
  return {"qmi", 0x3d02, 64, name};
}

// The "cms" peer, bound once in the test's own network namespace.
int cms_fd() {
  static const int fd = [] {
    int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    // Abstract name, like every bus peer: a leading NUL, no terminator.
    const std::string name = std::string(kZunMsgAddrPrefix) + "cms";
    memcpy(addr.sun_path + 1, name.data(), name.size());
    const auto len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return bind(s, reinterpret_cast<sockaddr*>(&addr), len) == 0 ? s : -1;
  }();
  return fd;
}

std::vector<Msg> cms_received() {
  std::vector<Msg> got;
  unsigned char buf[sizeof(zun_msg_header) + kZunMsgMaxPayload + 1];
  for (ssize_t n; (n = recv(cms_fd(), buf, sizeof buf, MSG_DONTWAIT)) >= 0;) {
    zun_msg_header h = {};
    const size_t size = static_cast<size_t>(n);
    memcpy(&h, buf, std::min(size, sizeof h));
    got.emplace_back(std::string(h.sender, strnlen(h.sender, sizeof h.sender)), h.type, h.len,
                     std::string(reinterpret_cast<char*>(buf) + sizeof h, size > sizeof h ? size - sizeof h : 0));
  }
  return got;
}

void reset(const std::string& ifname = "rmnet0") {
  reset_private_var(ifname.c_str());
  unlink(kStubRecord);
  g_commands.clear();
  cms_received();
}

void set_ifname(const std::string& name) {
  // Leftovers behind the terminator must never reach the bus.
  memset(g_acIfname, 'x', sizeof g_acIfname);
  snprintf(g_acIfname, sizeof g_acIfname, "%s", name.c_str());
}

void set_settings(const char* ip, const char* mask, const char* gateway, const char* dns1, const char* dns2) {
  link_settings = {.username = {}, .auth_pref = 0, .primary_dns = inet_addr(dns1), .secondary_dns = inet_addr(dns2),
                   .ipv4_addr = inet_addr(ip), .subnet_mask = inet_addr(mask), .gateway = inet_addr(gateway)};
}

void write_old_files() {
  for (const char* f : {"ipaddr", "mask", "gateway", "dns", "pppc_tcp_mss"}) write_text_file(kWan + f, "old\n");
}

void expect_files(const std::vector<std::pair<const char*, std::string>>& files) {
  for (const auto& [name, text] : files) EXPECT_EQ(read_text_file(kWan + name), text) << name;
}

std::string stdout_of(void (*fn)()) {
  testing::internal::CaptureStdout();
  fn();
  return testing::internal::GetCapturedStdout();
}

// The lines handed to the runner, and the same lines as the stub programs saw
// them once the shell had run them (echo is the shell's own).
void expect_commands(const Lines& want) {
  EXPECT_EQ(g_commands, want);
  std::string shell;
  for (const std::string& cmd : want) {
    std::istringstream words(cmd);
    std::string word;
    words >> word;
    if (word == "echo") continue;
    shell += word;
    while (words >> word) shell += " [" + word + "]";
    shell += "\n";
  }
  EXPECT_EQ(read_text_file(kStubRecord), shell);
}

class LinkConfig : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Stub ifconfig and route first on PATH; each run appends its name and
    // its arguments, each in brackets, to the record.
    mkdir("/var/stub-bin", 0755);
    for (const std::string name : {"ifconfig", "route"}) {
      write_text_file("/var/stub-bin/" + name,
                      "#!/bin/sh\n{ printf '%s' \"${0##*/}\"; for a in \"$@\"; do printf ' [%s]' \"$a\"; done; echo; }"
                      " >> /var/stub-bin/commands\n");
      chmod(("/var/stub-bin/" + name).c_str(), 0755);
    }
    const char* path = getenv("PATH");
    setenv("PATH", (std::string("/var/stub-bin:") + (path != nullptr ? path : "/usr/bin:/bin")).c_str(), 1);
  }
  void SetUp() override {
    ASSERT_GE(cms_fd(), 0);
    // The daemon registers on the bus at start, before any link operation.
    ZUN_MSG_Init("qmi");
    wan_reset();
    set_ifname("rmnet0");
  }
};

TEST_F(LinkConfig, InitByDialMode) {
  const std::string long_name(67, 'n');  // fills the name buffer; the bus carries its first 64 bytes
  const std::pair<int, std::string> cases[] = {
      {WDS_DIAL_DEMAND, "rmnet0"}, {WDS_DIAL_DEMAND, "rmnet_tarvek0"}, {WDS_DIAL_DEMAND, long_name},
      {WDS_DIAL_NONE, "rmnet0"},   {WDS_DIAL_DISCONNECT, "rmnet0"},    {WDS_DIAL_MANUAL, "rmnet0"},
      {WDS_DIAL_ALWAYS, "rmnet_tarvek0"}};
  for (const auto& [dial, name] : cases) {
    SCOPED_TRACE("dial " + std::to_string(dial) + " ifname " + name);
    reset(name);
    set_ifname(name);
    g_dial = dial;
    const std::string out = stdout_of(wds_link_init);
    if (dial == WDS_DIAL_DEMAND) {
      const Lines want = {"ifconfig " + name + " 10.48.48.48 netmask  255.255.255.255",
                          "route add -host 10.112.112.112 dev " + name, "route  add  default  gw  10.112.112.112"};
      expect_commands(want);
      EXPECT_EQ(out, "\nacCmd=[" + want[0] + "]\n\nacCmd=[" + want[1] + "]\n");
      EXPECT_EQ(cms_received(), std::vector<Msg>{demand_ready(name)});
    } else {
      expect_commands({"ifconfig " + name + " 0.0.0.0"});
      EXPECT_EQ(out, "\nacCmd=[ifconfig " + name + " 0.0.0.0]\n");
      EXPECT_EQ(cms_received(), std::vector<Msg>{});
    }
    EXPECT_TRUE(std::filesystem::is_empty("/var/wan/" + name)) << "the initial setup writes no files";
  }
}

// An address file is rewritten only when the call gave that address; the MSS
// is the mru less 80, as a signed 32-bit number.
TEST_F(LinkConfig, Up) {
  struct Case {
    int dial;
    const char *ip, *mask, *gateway, *dns1, *dns2;
    uint32_t mru;
    std::string mss, dns;
  };
  const std::string both = "nameserver 8.8.8.8\nnameserver 8.8.4.4\n";
  const std::string max = "nameserver 255.255.255.255\nnameserver 255.255.255.255\n";
  const Case cases[] = {
      {WDS_DIAL_ALWAYS, "10.1.2.3", "255.255.255.0", "10.1.2.1", "8.8.8.8", "8.8.4.4", 1500, "1420", both},
      {WDS_DIAL_DEMAND, "10.1.2.3", "255.255.255.0", "10.1.2.1", "8.8.8.8", "8.8.4.4", 1500, "1420", both},
      {WDS_DIAL_ALWAYS, "0.0.0.0", "0.0.0.0", "0.0.0.0", "0.0.0.0", "0.0.0.0", 0, "-80", "old\n"},
      {WDS_DIAL_ALWAYS, "10.0.0.9", "0.0.0.0", "0.0.0.0", "1.1.1.1", "0.0.0.0", 80, "0", "nameserver 1.1.1.1\n"},
      {WDS_DIAL_ALWAYS, "0.0.0.0", "255.255.255.252", "0.0.0.0", "0.0.0.0", "9.9.9.9", 81, "1",
       "\nnameserver 9.9.9.9\n"},
      {WDS_DIAL_MANUAL, "0.0.0.0", "0.0.0.0", "192.168.200.254", "255.255.255.255", "255.255.255.255", 79, "-1", max},
      {WDS_DIAL_ALWAYS, "255.255.255.255", "128.0.0.0", "1.0.0.0", "0.0.0.0", "0.0.0.0", 0xFFFFFFFFu, "-81", "old\n"},
  };
  auto given = [](const char* addr) { return std::string(strcmp(addr, "0.0.0.0") == 0 ? "old" : addr) + "\n"; };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.ip) + " " + c.mask + " " + c.gateway + " " + c.dns1 + " " + c.dns2 + " " + c.mss);
    reset();
    write_old_files();
    g_dial = c.dial;
    wan_profile.mru = c.mru;
    set_settings(c.ip, c.mask, c.gateway, c.dns1, c.dns2);
    // Registered under another name: the notification still comes from "qmi".
    ZUN_MSG_Init("elsewhere");
    const std::string out = stdout_of(wds_link_up);
    const Lines want = {std::string("ifconfig rmnet0 ") + c.ip + " netmask " + c.mask,
                        std::string("route add -host ") + c.gateway + " dev rmnet0",
                        "echo " + c.mss + " > /var/wan/rmnet0/pppc_tcp_mss"};
    expect_commands(want);
    EXPECT_EQ(out, "\n\n\n\ncmd1=[" + want[0] + "]\n\n\n\n\n\n\ncmd2=[" + want[1] +
                       "]\n\n\n\r\n*** qmi set tcp mss cmd:[" + want[2] + "]\n");
    expect_files({{"status", "3\n"},
                  {"ipaddr", given(c.ip)},
                  {"mask", given(c.mask)},
                  {"gateway", given(c.gateway)},
                  {"dns", c.dns},
                  {"pppc_tcp_mss", c.mss + "\n"}});
    EXPECT_EQ(cms_received(), std::vector<Msg>{kLinkChanged});
  }
}

TEST_F(LinkConfig, Down) {
  const std::pair<int, const char*> cases[] = {
      {WDS_DIAL_NONE, "10.1.2.1"},   {WDS_DIAL_DISCONNECT, "10.1.2.1"}, {WDS_DIAL_MANUAL, "10.1.2.1"},
      {WDS_DIAL_ALWAYS, "10.1.2.1"}, {WDS_DIAL_ALWAYS, "0.0.0.0"},      {WDS_DIAL_DEMAND, "10.1.2.1"}};
  for (const auto& [dial, gateway] : cases) {
    SCOPED_TRACE("dial " + std::to_string(dial) + " gateway " + gateway);
    reset();
    write_old_files();
    g_dial = dial;
    set_settings("10.1.2.3", "255.255.255.0", gateway, "8.8.8.8", "8.8.4.4");
    EXPECT_EQ(stdout_of(wds_link_down), "");
    if (dial == WDS_DIAL_DEMAND) {
      // Back to the placeholder; the default route from the setup stays.
      expect_commands({"ifconfig rmnet0 10.48.48.48 netmask 255.255.255.255",
                       "route add -host 10.112.112.112 dev rmnet0"});
      expect_files({{"status", "6\n"}, {"ipaddr", "10.48.48.48\n"}, {"mask", "255.255.255.255\n"},
                    {"gateway", "10.112.112.112\n"}, {"dns", "old\n"}, {"pppc_tcp_mss", "old\n"}});
      EXPECT_EQ(cms_received(), (std::vector<Msg>{kLinkChanged, demand_ready("rmnet0")}));
    } else {
      expect_commands({std::string("route del -host ") + gateway + " dev rmnet0", "ifconfig rmnet0 0.0.0.0"});
      expect_files({{"status", "6\n"}, {"ipaddr", "\n"}, {"mask", "\n"},
                    {"gateway", "old\n"}, {"dns", "old\n"}, {"pppc_tcp_mss", "old\n"}});
      EXPECT_EQ(cms_received(), std::vector<Msg>{kLinkChanged});
    }
  }
}

}  // namespace
