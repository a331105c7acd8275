// Traffic counters from /proc/net/dev text, the demand-dial check, and the
// driver probe.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "core/core.h"
#include "link/link.h"
#include "link_sandbox.h"

namespace {

constexpr char kHeader[] =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
    "carrier compressed\n";

// The kernel's layout: name right-aligned in 6 columns, then 16 counters.
std::string netdev_line(const char* name, const std::vector<unsigned long long>& counters) {
  char head[64];
  snprintf(head, sizeof head, "%6s:", name);
  std::string line = head;
  for (unsigned long long c : counters) line += " " + std::to_string(c);
  return line + "\n";
}

std::string traffic_text(const dev_traffic& t) {
  char buf[160];
  snprintf(buf, sizeof buf, "rx %u %u %u %u tx %u %u %u %u", t.rx_bytes, t.rx_packets, t.rx_errs, t.rx_drop,
           t.tx_bytes, t.tx_packets, t.tx_errs, t.tx_drop);
  return buf;
}

constexpr dev_traffic kSentinel = {0xA5A5A5A5u, 0xA5A5A5A5u, 0xA5A5A5A5u, 0xA5A5A5A5u,
                                   0xA5A5A5A5u, 0xA5A5A5A5u, 0xA5A5A5A5u, 0xA5A5A5A5u};

class NetDevText : public testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/wds-netdev-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  // Parses `text` from a file, as get_dev_traffic parses /proc/net/dev.
  int parse(const std::string& text, const char* ifname, dev_traffic* t) {
    const std::string path = dir_ + "/dev";
    write_text_file(path, text);
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) return -100;
    int result = read_dev_traffic(file, ifname, t);
    fclose(file);
    return result;
  }
  std::string dir_;
};

TEST_F(NetDevText, Lines) {
  struct Case {
    const char* what;
    std::string text;
    const char* ifname;
    std::string want;
  };
  const std::string untouched = traffic_text(kSentinel);
  const Case cases[] = {
      {"kernel layout", std::string(kHeader) + netdev_line("lo", {100, 2, 0, 0, 0, 0, 0, 0, 100, 2, 0, 0, 0, 0, 0, 0}) +
           netdev_line("rmnet0", {11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26}),
       "rmnet0", "rx 11 12 13 14 tx 19 20 21 22"},
      {"counter glued to the colon", std::string(kHeader) +
           "rmnet0:4294967296 5 6 7 0 0 0 0 4294967396 8 9 10 0 0 0 0\n",
       "rmnet0", "rx 0 5 6 7 tx 100 8 9 10"},
      {"glued, 64-bit maximum", std::string(kHeader) +
           "rmnet0:18446744073709551615 1 2 3 4 5 6 7 4294967295 1 2 3 4 5 6 7\n",
       "rmnet0", "rx 4294967295 1 2 3 tx 4294967295 1 2 3"},
      {"glued, 2^32 + 1", std::string(kHeader) + "  eth0:4294967297 0 0 0 0 0 0 0 1 0 0 0 0 0 0 0\n", "eth0",
       "rx 1 0 0 0 tx 1 0 0 0"},
      {"first matching line wins, by substring", std::string(kHeader) +
           netdev_line("rmnet01", {1, 1, 1, 1, 0, 0, 0, 0, 2, 2, 2, 2, 0, 0, 0, 0}) +
           netdev_line("rmnet0", {7, 7, 7, 7, 0, 0, 0, 0, 8, 8, 8, 8, 0, 0, 0, 0}),
       "rmnet0", "rx 1 1 1 1 tx 2 2 2 2"},
      {"name found anywhere in the line", std::string(kHeader) +
           netdev_line("veth0", {3, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0}),
       "eth", "rx 3 0 0 0 tx 4 0 0 0"},
      {"header lines never match", netdev_line("rmnet0", {1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 1, 1, 0, 0, 0, 0}) +
           netdev_line("rmnet0", {2, 2, 2, 2, 0, 0, 0, 0, 2, 2, 2, 2, 0, 0, 0, 0}) +
           netdev_line("rmnet0", {3, 3, 3, 3, 0, 0, 0, 0, 3, 3, 3, 3, 0, 0, 0, 0}),
       "rmnet0", "rx 3 3 3 3 tx 3 3 3 3"},
      {"missing interface leaves the record", std::string(kHeader) +
           netdev_line("lo", {1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 1, 1, 0, 0, 0, 0}),
       "rmnet0", untouched},
      {"headers only", kHeader, "rmnet0", untouched},
      {"empty file", "", "rmnet0", untouched},
      {"short line: missing columns read 0", std::string(kHeader) + "rmnet0: 7 8\n", "rmnet0",
       "rx 7 8 0 0 tx 0 0 0 0"},
      {"leading digits only", std::string(kHeader) + "rmnet0: 12abc x -5 +6 0 0 0 0 9z 0x10 07 1e3\n", "rmnet0",
       "rx 12 0 0 0 tx 9 0 7 1"},
      {"tabs separate too; no blank added before a non-digit",
       std::string(kHeader) + "rmnet0:\t1\t2\t3\t4\t0\t0\t0\t0\t5\t6\t7\t8\n", "rmnet0", "rx 1 2 3 4 tx 5 6 7 8"},
      {"the first colon is split wherever it stands", std::string(kHeader) + "rmnet0 1 2 3 4 0 0 0 0 5:6 7 8 9\n",
       "rmnet0", "rx 1 2 3 4 tx 5 6 7 8"},
          // A field holds 31 characters: a longer token is cut (31 nines, low 32
      // bits), and the columns behind it stay in place.
      {"overlong token", std::string(kHeader) + "rmnet0: " + std::string(40, '9') + " 2 3 4 0 0 0 0 5 6 7 8\n",
       "rmnet0", "rx 2147483647 2 3 4 tx 5 6 7 8"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    dev_traffic t = kSentinel;
    ASSERT_EQ(parse(c.text, c.ifname, &t), 0);
    EXPECT_EQ(traffic_text(t), c.want);
  }
}

TEST_F(NetDevText, LongLines) {
  // fgets takes 511 characters at a time: the rest of a longer line is read
  // as a line of its own.
  const std::string filler(600, 'a');
  struct Case {
    const char* what;
    std::string text;
    std::string want;
  };
  const Case cases[] = {
      {"tail of an overlong line matches", std::string(kHeader) + filler.substr(0, 511) + "rmnet0: 1 2 3 4\n",
       "rx 1 2 3 4 tx 0 0 0 0"},
      {"a name split across two reads is not found",
       std::string(kHeader) + filler.substr(0, 505) + " rmnet0: 1 2 3 4\n", traffic_text(kSentinel)},
      {"overlong line before the interface", std::string(kHeader) + filler + "\n" +
           netdev_line("rmnet0", {1, 2, 3, 4, 0, 0, 0, 0, 5, 6, 7, 8, 0, 0, 0, 0}),
       "rx 1 2 3 4 tx 5 6 7 8"},
      // The blank put in after the colon pushes the last character out of
      // the 511 that fit.
      {"blank added in a full line", std::string(kHeader) + "rmnet0:1" + std::string(502, ' ') + "9\n",
       "rx 1 0 0 0 tx 0 0 0 0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    dev_traffic t = kSentinel;
    ASSERT_EQ(parse(c.text, "rmnet0", &t), 0);
    EXPECT_EQ(traffic_text(t), c.want);
  }
}

TEST_F(NetDevText, MissingArguments) {
  dev_traffic t = kSentinel;
  EXPECT_EQ(read_dev_traffic(nullptr, "rmnet0", &t), -1);
  EXPECT_EQ(parse(std::string(kHeader) + "rmnet0: 1\n", nullptr, &t), -1);
  EXPECT_EQ(parse(std::string(kHeader) + "rmnet0: 1\n", "rmnet0", nullptr), -1);
  EXPECT_EQ(traffic_text(t), traffic_text(kSentinel));
  EXPECT_EQ(get_dev_traffic(nullptr, &t), -1);
  EXPECT_EQ(get_dev_traffic("rmnet0", nullptr), -1);
}

// The fixed path, with /proc replaced by a tmpfs for the test's duration.
class ProcNetDev : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(proc_overlay_begin());
    snprintf(g_acIfname, sizeof g_acIfname, "%s", "rmnet0");
    demand_traffic_check(1);
    g_demand_last_tx = 0;
    g_demand_dial = 0;
  }
  void TearDown() override { proc_overlay_end(); }
  static void set_tx(uint32_t tx) {
    write_proc_net_dev(std::string(kHeader) + netdev_line("lo", {5, 5, 0, 0, 0, 0, 0, 0, 5, 5, 0, 0, 0, 0, 0, 0}) +
                       netdev_line("rmnet0", {1, 1, 0, 0, 0, 0, 0, 0, tx, 1, 0, 0, 0, 0, 0, 0}));
  }
};

TEST_F(ProcNetDev, ReadsTheFixedPath) {
  dev_traffic t = {};
  EXPECT_EQ(get_dev_traffic("rmnet0", &t), -1) << "no /proc/net/dev yet";
  set_tx(4321);
  EXPECT_EQ(get_dev_traffic("rmnet0", &t), 0);
  EXPECT_EQ(traffic_text(t), "rx 1 1 0 0 tx 4321 1 0 0");
  dev_traffic absent = {};
  EXPECT_EQ(get_dev_traffic("rmnet_tarvek0", &absent), 0);
  EXPECT_EQ(traffic_text(absent), "rx 0 0 0 0 tx 0 0 0 0");
}

TEST_F(ProcNetDev, DemandCheckSequences) {
  constexpr int64_t kReset = -1;    // demand_traffic_check(1)
  constexpr int64_t kAbsent = -2;   // the interface is not listed
  constexpr int64_t kNoFile = -3;   // /proc/net/dev cannot be opened
  struct Step {
    int64_t tx;  // a counter value to check against, or one of the above
    int result;
    int dial, started, hits;
    uint32_t last_tx;
  };
  struct Scenario {
    const char* what;
    std::vector<Step> steps;
  };
  const Scenario scenarios[] = {
      {"two rises dial; an unchanged reading does nothing",
       {{1000, 0, 0, 1, 0, 1000}, {1500, 0, 0, 1, 1, 1500}, {1500, 0, 0, 1, 1, 1500}, {1600, 0, 1, 0, 0, 1500}}},
      {"after the dial the next check takes a new baseline",
       {{1000, 0, 0, 1, 0, 1000}, {1001, 0, 0, 1, 1, 1001}, {1002, 0, 1, 0, 0, 1001}, {5000, 0, 1, 1, 0, 5000}}},
      {"a reset between rises starts over",
       {{1000, 0, 0, 1, 0, 1000},
        {1500, 0, 0, 1, 1, 1500},
        {kReset, 0, 0, 0, 0, 1500},
        {1600, 0, 0, 1, 0, 1600},
        {1700, 0, 0, 1, 1, 1700},
        {1800, 0, 1, 0, 0, 1700}}},
      {"a falling counter changes nothing",
       {{1000, 0, 0, 1, 0, 1000}, {1500, 0, 0, 1, 1, 1500}, {1200, 0, 0, 1, 1, 1500}, {1501, 0, 1, 0, 0, 1500}}},
      {"a falling counter before any rise keeps the baseline",
       {{1000, 0, 0, 1, 0, 1000}, {999, 0, 0, 1, 0, 1000}, {1000, 0, 0, 1, 0, 1000}, {1001, 0, 0, 1, 1, 1001}}},
      {"a zero reading counts nothing",
       {{1000, 0, 0, 1, 0, 1000}, {1500, 0, 0, 1, 1, 1500}, {0, 0, 0, 1, 1, 1500}, {1600, 0, 1, 0, 0, 1500}}},
      {"an absent interface never dials",
       {{kAbsent, 0, 0, 1, 0, 0}, {kAbsent, 0, 0, 1, 0, 0}, {kAbsent, 0, 0, 1, 0, 0}, {kAbsent, 0, 0, 1, 0, 0}}},
      {"from a zero baseline the first reading is a rise",
       {{kAbsent, 0, 0, 1, 0, 0}, {10, 0, 0, 1, 1, 10}, {11, 0, 1, 0, 0, 10}}},
      {"the baseline is unsigned",
       {{0xFFFFFFFFLL, 0, 0, 1, 0, 0xFFFFFFFFu}, {5, 0, 0, 1, 0, 0xFFFFFFFFu}, {0x7FFFFFFF, 0, 0, 1, 0, 0xFFFFFFFFu}}},
      {"an unreadable file changes nothing",
       {{kNoFile, -1, 0, 0, 0, 0},
        {1000, 0, 0, 1, 0, 1000},
        {1500, 0, 0, 1, 1, 1500},
        {kNoFile, -1, 0, 1, 1, 1500},
        {1600, 0, 1, 0, 0, 1500}}},
      {"a reset keeps the baseline value and a raised flag",
       {{1000, 0, 0, 1, 0, 1000},
        {1100, 0, 0, 1, 1, 1100},
        {1200, 0, 1, 0, 0, 1100},
        {kReset, 0, 1, 0, 0, 1100},
        {kReset, 0, 1, 0, 0, 1100}}},
  };
  for (const Scenario& s : scenarios) {
    SCOPED_TRACE(s.what);
    demand_traffic_check(1);
    g_demand_last_tx = 0;
    g_demand_dial = 0;
    int n = 0;
    for (const Step& step : s.steps) {
      SCOPED_TRACE("step " + std::to_string(n++));
      int result;
      if (step.tx == kReset) {
        result = demand_traffic_check(1);
      } else {
        if (step.tx == kNoFile) {
          unlink("/proc/net/dev");
        } else if (step.tx == kAbsent) {
          write_proc_net_dev(std::string(kHeader) + netdev_line("lo", {9, 9, 0, 0, 0, 0, 0, 0, 9, 9, 0, 0, 0, 0, 0, 0}));
        } else {
          set_tx(static_cast<uint32_t>(step.tx));
        }
        result = demand_traffic_check(0);
      }
      EXPECT_EQ(result, step.result);
      EXPECT_EQ(g_demand_dial, step.dial);
      EXPECT_EQ(g_demand_started, step.started);
      EXPECT_EQ(g_demand_hits, step.hits);
      EXPECT_EQ(g_demand_last_tx, step.last_tx);
    }
  }
}

// Lowest descriptor number free now: a leaked socket would take it.
int lowest_free_fd() {
  int fd = dup(STDIN_FILENO);
  close(fd);
  return fd;
}

TEST(UsbnetPrivateProbe, RefusedWithoutTheDatacardDriver) {
  const int free_fd = lowest_free_fd();
  // No such interface; an empty name; loopback, whose driver has no private
  // request; a name longer than the request's field (cut to 15 characters,
  // still no such interface).
  for (const char* name : {"rmnet0", "", "lo", "an_interface_name_too_long"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(usbnet_private_probe(name), -1);
    EXPECT_EQ(lowest_free_fd(), free_fd) << "the socket is closed on every path";
  }
}

}  // namespace
