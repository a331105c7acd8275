// Link setup, configuration and teardown: the command lines and their order,
// what reaches standard output, the state files, and the bus messages.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/core.h"
#include "link/link.h"
#include "link_sandbox.h"
#include "platform/platform.h"
#include "qmi/qmi.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kIpaddr = std::string(kWanDir) + "/ipaddr";
const std::string kMask = std::string(kWanDir) + "/mask";
const std::string kGateway = std::string(kWanDir) + "/gateway";
const std::string kDns = std::string(kWanDir) + "/dns";
const std::string kStatus = std::string(kWanDir) + "/status";
const std::string kMss = std::string(kWanDir) + "/pppc_tcp_mss";

uint32_t addr(const char* dotted) { return inet_addr(dotted); }

void set_ifname(const char* name) {
  // Leftovers behind the terminator must never reach the bus.
  memset(g_acIfname, 'x', sizeof g_acIfname);
  snprintf(g_acIfname, sizeof g_acIfname, "%s", name);
}

void set_settings(const char* ip, const char* mask, const char* gateway, const char* dns1, const char* dns2) {
  memset(&link_settings, 0, sizeof link_settings);
  link_settings.ipv4_addr = addr(ip);
  link_settings.subnet_mask = addr(mask);
  link_settings.gateway = addr(gateway);
  link_settings.primary_dns = addr(dns1);
  link_settings.secondary_dns = addr(dns2);
}

std::string name_payload(const char* name) {
  std::string payload(kDemandLinkReadyLen, '\0');
  memcpy(payload.data(), name, strnlen(name, payload.size()));
  return payload;
}

// Each state file holds exactly its expected text.
void expect_files(const std::vector<std::pair<std::string, std::string>>& files) {
  for (const auto& [path, text] : files) EXPECT_EQ(read_text_file(path), text) << path;
}

void expect_link_changed(const bus_message& m) {
  EXPECT_EQ(m.type, 0x11601u);
  EXPECT_EQ(m.len, 0u);
  EXPECT_EQ(m.datagram_size, sizeof(zun_msg_header));
  EXPECT_EQ(m.sender, "qmi");
}

void expect_demand_ready(const bus_message& m, const char* ifname) {
  EXPECT_EQ(m.type, 0x3d02u);
  EXPECT_EQ(m.len, 64u);
  EXPECT_EQ(m.payload, name_payload(ifname));
}

class LinkConfig : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GE(cms_peer_fd(), 0);
    // The daemon registers on the bus at start, before any link operation.
    ZUN_MSG_Init("qmi");
    set_ifname("rmnet0");
    reset_link_sandbox();
    g_dial = WDS_DIAL_ALWAYS;
    wan_profile.mru = 1500;
    set_settings("10.1.2.3", "255.255.255.0", "10.1.2.1", "8.8.8.8", "8.8.4.4");
  }
};

TEST_F(LinkConfig, InitByDialMode) {
  const std::string long_name(67, 'n');
  struct Case {
    int dial;
    std::string ifname;
    Lines commands;
    std::string out;
    bool demand_ready;
  };
  const Case cases[] = {
      {WDS_DIAL_DEMAND, "rmnet0",
       {"ifconfig rmnet0 10.48.48.48 netmask  255.255.255.255", "route add -host 10.112.112.112 dev rmnet0",
        "route  add  default  gw  10.112.112.112"},
       "\nacCmd=[ifconfig rmnet0 10.48.48.48 netmask  255.255.255.255]\n"
       "\nacCmd=[route add -host 10.112.112.112 dev rmnet0]\n",
       true},
      {WDS_DIAL_DEMAND, "rmnet_tarvek0",
       {"ifconfig rmnet_tarvek0 10.48.48.48 netmask  255.255.255.255",
        "route add -host 10.112.112.112 dev rmnet_tarvek0", "route  add  default  gw  10.112.112.112"},
       "\nacCmd=[ifconfig rmnet_tarvek0 10.48.48.48 netmask  255.255.255.255]\n"
       "\nacCmd=[route add -host 10.112.112.112 dev rmnet_tarvek0]\n",
       true},
      // A name filling the whole buffer: the payload is its first 64 bytes.
      {WDS_DIAL_DEMAND, long_name,
       {"ifconfig " + long_name + " 10.48.48.48 netmask  255.255.255.255",
        "route add -host 10.112.112.112 dev " + long_name, "route  add  default  gw  10.112.112.112"},
       "\nacCmd=[ifconfig " + long_name + " 10.48.48.48 netmask  255.255.255.255]\n" +
           "\nacCmd=[route add -host 10.112.112.112 dev " + long_name + "]\n",
       true},
      {WDS_DIAL_NONE, "rmnet0", {"ifconfig rmnet0 0.0.0.0"}, "\nacCmd=[ifconfig rmnet0 0.0.0.0]\n", false},
      {WDS_DIAL_DISCONNECT, "rmnet0", {"ifconfig rmnet0 0.0.0.0"}, "\nacCmd=[ifconfig rmnet0 0.0.0.0]\n", false},
      {WDS_DIAL_MANUAL, "rmnet0", {"ifconfig rmnet0 0.0.0.0"}, "\nacCmd=[ifconfig rmnet0 0.0.0.0]\n", false},
      {WDS_DIAL_ALWAYS, "rmnet_tarvek0", {"ifconfig rmnet_tarvek0 0.0.0.0"},
       "\nacCmd=[ifconfig rmnet_tarvek0 0.0.0.0]\n", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("dial " + std::to_string(c.dial) + " ifname " + c.ifname);
    reset_link_sandbox();
    set_ifname(c.ifname.c_str());
    g_dial = c.dial;
    const std::string out = capture_stdout([] { wds_link_init(); });
    EXPECT_EQ(recorded_commands(), c.commands);
    EXPECT_EQ(out, c.out);
    const std::vector<bus_message> got = cms_received();
    if (c.demand_ready) {
      ASSERT_EQ(got.size(), 1u);
      expect_demand_ready(got[0], c.ifname.c_str());
    } else {
      EXPECT_TRUE(got.empty());
    }
    EXPECT_TRUE(std::filesystem::is_empty(kWanDir)) << "the initial setup writes no files";
  }
}

TEST_F(LinkConfig, InitCommandsReachTheShellInOrder) {
  g_dial = WDS_DIAL_DEMAND;
  wds_link_init();
  EXPECT_EQ(stub_record_lines(), (Lines{"ifconfig [rmnet0] [10.48.48.48] [netmask] [255.255.255.255]",
                                        "route [add] [-host] [10.112.112.112] [dev] [rmnet0]",
                                        "route [add] [default] [gw] [10.112.112.112]"}));
}

TEST_F(LinkConfig, UpWithEveryAddressInBothModes) {
  for (int dial : {WDS_DIAL_ALWAYS, WDS_DIAL_DEMAND}) {
    SCOPED_TRACE("dial " + std::to_string(dial));
    reset_link_sandbox();
    g_dial = dial;
    const std::string out = capture_stdout([] { wds_link_up(); });
    EXPECT_EQ(recorded_commands(),
              (Lines{"ifconfig rmnet0 10.1.2.3 netmask 255.255.255.0", "route add -host 10.1.2.1 dev rmnet0",
                     "echo 1420 > /var/wan/rmnet0/pppc_tcp_mss"}));
    EXPECT_EQ(stub_record_lines(), (Lines{"ifconfig [rmnet0] [10.1.2.3] [netmask] [255.255.255.0]",
                                          "route [add] [-host] [10.1.2.1] [dev] [rmnet0]"}));
    EXPECT_EQ(out,
              "\n\n\n\ncmd1=[ifconfig rmnet0 10.1.2.3 netmask 255.255.255.0]\n\n\n"
              "\n\n\n\ncmd2=[route add -host 10.1.2.1 dev rmnet0]\n\n\n"
              "\r\n*** qmi set tcp mss cmd:[echo 1420 > /var/wan/rmnet0/pppc_tcp_mss]\n");
    expect_files({{kStatus, "3\n"},
                  {kIpaddr, "10.1.2.3\n"},
                  {kMask, "255.255.255.0\n"},
                  {kGateway, "10.1.2.1\n"},
                  {kDns, "nameserver 8.8.8.8\nnameserver 8.8.4.4\n"},
                  {kMss, "1420\n"}});
    const std::vector<bus_message> got = cms_received();
    ASSERT_EQ(got.size(), 1u);
    expect_link_changed(got[0]);
  }
}

TEST_F(LinkConfig, UpWithZerosKeepsAddressFiles) {
  for (const std::string& f : {kIpaddr, kMask, kGateway, kDns}) write_text_file(f, "before\n");
  memset(&link_settings, 0, sizeof link_settings);
  wan_profile.mru = 0;
  const std::string out = capture_stdout([] { wds_link_up(); });
  EXPECT_EQ(recorded_commands(),
            (Lines{"ifconfig rmnet0 0.0.0.0 netmask 0.0.0.0", "route add -host 0.0.0.0 dev rmnet0",
                   "echo -80 > /var/wan/rmnet0/pppc_tcp_mss"}));
  EXPECT_EQ(out,
            "\n\n\n\ncmd1=[ifconfig rmnet0 0.0.0.0 netmask 0.0.0.0]\n\n\n"
            "\n\n\n\ncmd2=[route add -host 0.0.0.0 dev rmnet0]\n\n\n"
            "\r\n*** qmi set tcp mss cmd:[echo -80 > /var/wan/rmnet0/pppc_tcp_mss]\n");
  EXPECT_EQ(read_text_file(kStatus), "3\n");
  for (const std::string& f : {kIpaddr, kMask, kGateway, kDns}) EXPECT_EQ(read_text_file(f), "before\n") << f;
  EXPECT_EQ(read_text_file(kMss), "-80\n");
  const std::vector<bus_message> got = cms_received();
  ASSERT_EQ(got.size(), 1u);
  expect_link_changed(got[0]);
}

TEST_F(LinkConfig, UpWritesEachAddressOnlyWhenGiven) {
  struct Case {
    const char *ip, *mask, *gateway;
    const char *want_ip, *want_mask, *want_gateway;
  };
  const Case cases[] = {
      {"10.0.0.9", "0.0.0.0", "0.0.0.0", "10.0.0.9\n", "old\n", "old\n"},
      {"0.0.0.0", "255.255.255.252", "0.0.0.0", "old\n", "255.255.255.252\n", "old\n"},
      {"0.0.0.0", "0.0.0.0", "192.168.200.254", "old\n", "old\n", "192.168.200.254\n"},
      {"255.255.255.255", "128.0.0.0", "1.0.0.0", "255.255.255.255\n", "128.0.0.0\n", "1.0.0.0\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.ip) + " " + c.mask + " " + c.gateway);
    reset_link_sandbox();
    for (const std::string& f : {kIpaddr, kMask, kGateway}) write_text_file(f, "old\n");
    set_settings(c.ip, c.mask, c.gateway, "0.0.0.0", "0.0.0.0");
    wds_link_up();
    EXPECT_EQ(read_text_file(kIpaddr), c.want_ip);
    EXPECT_EQ(read_text_file(kMask), c.want_mask);
    EXPECT_EQ(read_text_file(kGateway), c.want_gateway);
  }
}

TEST_F(LinkConfig, DnsText) {
  struct Case {
    const char *dns1, *dns2;
    const char* want;  // file content
  };
  const Case cases[] = {
      {"8.8.8.8", "8.8.4.4", "nameserver 8.8.8.8\nnameserver 8.8.4.4\n"},
      {"1.1.1.1", "0.0.0.0", "nameserver 1.1.1.1\n"},
      {"0.0.0.0", "9.9.9.9", "\nnameserver 9.9.9.9\n"},
      {"255.255.255.255", "255.255.255.255", "nameserver 255.255.255.255\nnameserver 255.255.255.255\n"},
      {"0.0.0.0", "0.0.0.0", "untouched\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.dns1) + " / " + c.dns2);
    reset_link_sandbox();
    write_text_file(kDns, "untouched\n");
    set_settings("10.1.2.3", "255.255.255.0", "10.1.2.1", c.dns1, c.dns2);
    wds_link_up();
    EXPECT_EQ(read_text_file(kDns), c.want);
  }
}

TEST_F(LinkConfig, TcpMssIsMruLessEighty) {
  struct Case {
    uint32_t mru;
    const char* want;
  };
  const Case cases[] = {{1500, "1420"}, {0, "-80"}, {80, "0"}, {81, "1"}, {79, "-1"}, {0xFFFFFFFFu, "-81"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mru);
    reset_link_sandbox();
    wan_profile.mru = c.mru;
    wds_link_up();
    ASSERT_EQ(recorded_commands().size(), 3u);
    EXPECT_EQ(recorded_commands()[2], std::string("echo ") + c.want + " > /var/wan/rmnet0/pppc_tcp_mss");
    EXPECT_EQ(read_text_file(kMss), std::string(c.want) + "\n");
  }
}

TEST_F(LinkConfig, DownOutsideDemandLeavesGatewayAndDns) {
  for (int dial : {WDS_DIAL_NONE, WDS_DIAL_DISCONNECT, WDS_DIAL_MANUAL, WDS_DIAL_ALWAYS}) {
    SCOPED_TRACE("dial " + std::to_string(dial));
    reset_link_sandbox();
    g_dial = dial;
    wds_link_up();
    recorded_commands().clear();
    cms_received();
    unlink(kStubRecord);

    const std::string out = capture_stdout([] { wds_link_down(); });
    EXPECT_EQ(recorded_commands(), (Lines{"route del -host 10.1.2.1 dev rmnet0", "ifconfig rmnet0 0.0.0.0"}));
    EXPECT_EQ(stub_record_lines(),
              (Lines{"route [del] [-host] [10.1.2.1] [dev] [rmnet0]", "ifconfig [rmnet0] [0.0.0.0]"}));
    EXPECT_EQ(out, "");
    expect_files({{kStatus, "6\n"},
                  {kIpaddr, "\n"},
                  {kMask, "\n"},
                  {kGateway, "10.1.2.1\n"},
                  {kDns, "nameserver 8.8.8.8\nnameserver 8.8.4.4\n"},
                  {kMss, "1420\n"}});
    const std::vector<bus_message> got = cms_received();
    ASSERT_EQ(got.size(), 1u);
    expect_link_changed(got[0]);
  }
}

TEST_F(LinkConfig, DownWithoutGatewayDeletesTheZeroRoute) {
  set_settings("10.1.2.3", "255.255.255.0", "0.0.0.0", "0.0.0.0", "0.0.0.0");
  wds_link_down();
  EXPECT_EQ(recorded_commands(), (Lines{"route del -host 0.0.0.0 dev rmnet0", "ifconfig rmnet0 0.0.0.0"}));
  EXPECT_FALSE(file_exists(kGateway));
  EXPECT_FALSE(file_exists(kDns));
}

TEST_F(LinkConfig, DownInDemandRestoresPlaceholder) {
  g_dial = WDS_DIAL_DEMAND;
  wds_link_up();
  recorded_commands().clear();
  cms_received();
  unlink(kStubRecord);

  const std::string out = capture_stdout([] { wds_link_down(); });
  EXPECT_EQ(recorded_commands(), (Lines{"ifconfig rmnet0 10.48.48.48 netmask 255.255.255.255",
                                        "route add -host 10.112.112.112 dev rmnet0"}));
  EXPECT_EQ(stub_record_lines(), (Lines{"ifconfig [rmnet0] [10.48.48.48] [netmask] [255.255.255.255]",
                                        "route [add] [-host] [10.112.112.112] [dev] [rmnet0]"}));
  EXPECT_EQ(out, "");
  expect_files({{kStatus, "6\n"},
                {kIpaddr, "10.48.48.48\n"},
                {kMask, "255.255.255.255\n"},
                {kGateway, "10.112.112.112\n"},
                {kDns, "nameserver 8.8.8.8\nnameserver 8.8.4.4\n"}});
  const std::vector<bus_message> got = cms_received();
  ASSERT_EQ(got.size(), 2u);
  expect_link_changed(got[0]);
  expect_demand_ready(got[1], "rmnet0");
  EXPECT_EQ(got[1].sender, "qmi");
}

TEST_F(LinkConfig, NotifyRegistersAgainBeforeSending) {
  // Registered under another name: the notification still comes from "qmi".
  ZUN_MSG_Init("elsewhere");
  wds_notify_cms();
  const std::vector<bus_message> got = cms_received();
  ASSERT_EQ(got.size(), 1u);
  expect_link_changed(got[0]);
}

}  // namespace
