// Traffic counters from /proc/net/dev text, the demand-dial check, and the
// driver probe.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "link/internal.h"
#include "tests/unit/support/private_var.h"
#include "wan/wan.h"

namespace {

const std::string kHeader =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
    "carrier compressed\n";

// An interface line as the kernel lays it out: the name right-aligned in 6
// columns, a colon, then the counters.
std::string dev(const char* name, const std::string& counters) {
  char head[64];
  snprintf(head, sizeof head, "%6s: ", name);
  return head + counters + "\n";
}

std::string traffic_text(const dev_traffic& t) {
  char buf[160];
  snprintf(buf, sizeof buf, "rx %u %u %u %u tx %u %u %u %u", t.rx_bytes, t.rx_packets, t.rx_errs, t.rx_drop,
           t.tx_bytes, t.tx_packets, t.tx_errs, t.tx_drop);
  return buf;
}

constexpr uint32_t kA5 = 0xA5A5A5A5u;
constexpr dev_traffic kSentinel = {kA5, kA5, kA5, kA5, kA5, kA5, kA5, kA5};

// Reads `text` from a file with read_dev_traffic.
int parse(const std::string& text, const char* ifname, dev_traffic* t) {
  write_text_file("/var/netdev", text);
  const int fd = open("/var/netdev", O_RDONLY);
  if (fd < 0) return -100;
  const int result = read_dev_traffic(fd, ifname, t);
  close(fd);
  return result;
}

TEST(NetDevText, Lines) {
  struct Case {
    const char* what;
    std::string text;
    const char* ifname;
    std::string want;
  };
  const std::string untouched = traffic_text(kSentinel);
  const std::string filler(600, 'a');  // a line is at most 511 characters
  const Case cases[] = {
      {"kernel layout",
       kHeader + dev("lo", "100 2 0 0 0 0 0 0 100 2 0 0 0 0 0 0") +
           dev("rmnet0", "11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26"),
       "rmnet0", "rx 11 12 13 14 tx 19 20 21 22"},
      {"counter glued to the colon", kHeader + "rmnet0:4294967296 5 6 7 0 0 0 0 4294967396 8 9 10 0 0 0 0\n",
       "rmnet0", "rx 0 5 6 7 tx 100 8 9 10"},
      {"glued, 64-bit maximum", kHeader + "rmnet0:18446744073709551615 1 2 3 4 5 6 7 4294967295 1 2 3 4 5 6 7\n",
       "rmnet0", "rx 4294967295 1 2 3 tx 4294967295 1 2 3"},
      {"glued, 2^32 + 1", kHeader + "  eth0:4294967297 0 0 0 0 0 0 0 1 0 0 0 0 0 0 0\n", "eth0",
       "rx 1 0 0 0 tx 1 0 0 0"},
      {"first matching line wins, by substring",
       kHeader + dev("rmnet01", "1 1 1 1 0 0 0 0 2 2 2 2 0 0 0 0") + dev("rmnet0", "7 7 7 7 0 0 0 0 8 8 8 8 0 0 0 0"),
       "rmnet0", "rx 1 1 1 1 tx 2 2 2 2"},
      {"name found anywhere in the line", kHeader + dev("veth0", "3 0 0 0 0 0 0 0 4 0 0 0 0 0 0 0"), "eth",
       "rx 3 0 0 0 tx 4 0 0 0"},
      {"header lines never match",
       dev("rmnet0", "1 1 1 1 0 0 0 0 1 1 1 1") + dev("rmnet0", "2 2 2 2 0 0 0 0 2 2 2 2") +
           dev("rmnet0", "3 3 3 3 0 0 0 0 3 3 3 3"),
       "rmnet0", "rx 3 3 3 3 tx 3 3 3 3"},
      {"missing interface leaves the record", kHeader + dev("lo", "1 1 1 1 0 0 0 0 1 1 1 1"), "rmnet0", untouched},
      {"headers only", kHeader, "rmnet0", untouched},
      {"empty file", "", "rmnet0", untouched},
      {"short line: missing columns read 0", kHeader + "rmnet0: 7 8\n", "rmnet0", "rx 7 8 0 0 tx 0 0 0 0"},
      {"leading digits only", kHeader + "rmnet0: 12abc x -5 +6 0 0 0 0 9z 0x10 07 1e3\n", "rmnet0",
       "rx 12 0 0 0 tx 9 0 7 1"},
      // 511 characters: no blank is put in before a non-digit, so the last one stays.
      {"tabs separate too", kHeader + "rmnet0:\t1\t2\t3\t4\t0\t0\t0\t0\t5\t6\t7" + std::string(481, '\t') + "8\n",
       "rmnet0", "rx 1 2 3 4 tx 5 6 7 8"},
      {"the first colon is split wherever it stands", kHeader + "rmnet0 1 2 3 4 0 0 0 0 5:6 7 8 9\n", "rmnet0",
       "rx 1 2 3 4 tx 5 6 7 8"},
      // A field holds 31 characters: a longer token is cut (31 nines, low 32
      // bits), and the columns behind it stay in place.
      {"overlong token", kHeader + "rmnet0: " + std::string(40, '9') + " 2 3 4 0 0 0 0 5 6 7 8\n", "rmnet0",
       "rx 2147483647 2 3 4 tx 5 6 7 8"},
      // The rest of a line longer than 511 characters is read as a line of its own.
      {"tail of an overlong line matches", kHeader + filler.substr(0, 511) + "rmnet0: 1 2 3 4\n", "rmnet0",
       "rx 1 2 3 4 tx 0 0 0 0"},
      {"a name split across two reads is not found", kHeader + filler.substr(0, 505) + " rmnet0: 1 2 3 4\n",
       "rmnet0", untouched},
      {"overlong line before the interface", kHeader + filler + "\n" + dev("rmnet0", "1 2 3 4 0 0 0 0 5 6 7 8"),
       "rmnet0", "rx 1 2 3 4 tx 5 6 7 8"},
      // The blank put in after the colon pushes the last character out of the 511.
      {"blank added in a full line", kHeader + "rmnet0:1" + std::string(502, ' ') + "9\n", "rmnet0",
       "rx 1 0 0 0 tx 0 0 0 0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    dev_traffic t = kSentinel;
    ASSERT_EQ(parse(c.text, c.ifname, &t), 0);
    EXPECT_EQ(traffic_text(t), c.want);
  }
}

TEST(NetDevText, MissingArguments) {
  dev_traffic t = kSentinel;
  EXPECT_EQ(read_dev_traffic(-1, "rmnet0", &t), -1);
  EXPECT_EQ(parse(kHeader + "rmnet0: 1\n", nullptr, &t), -1);
  EXPECT_EQ(parse(kHeader + "rmnet0: 1\n", "rmnet0", nullptr), -1);
  EXPECT_EQ(traffic_text(t), traffic_text(kSentinel));
  EXPECT_EQ(get_dev_traffic(nullptr, &t), -1);
  EXPECT_EQ(get_dev_traffic("rmnet0", nullptr), -1);
}

// The fixed path, with a tmpfs over /proc for the test's duration. The
// checked interface is rmnet_tarvek0; rmnet0 is listed too, with other counters.
class ProcNetDev : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mount("wds-link-proc", "/proc", "tmpfs", 0, "size=1m,mode=0755"), 0);
    ASSERT_EQ(mkdir("/proc/net", 0755), 0);
    snprintf(g_acIfname, sizeof g_acIfname, "%s", "rmnet_tarvek0");
  }
  void TearDown() override { umount2("/proc", MNT_DETACH); }
  static void write_dev(const std::string& ours) {
    write_text_file("/proc/net/dev", kHeader + dev("lo", "5 5 0 0 0 0 0 0 5 5 0 0") +
                                         dev("rmnet0", "1 1 0 0 0 0 0 0 777 1 0 0") + ours);
  }
};

TEST_F(ProcNetDev, DemandCheckSequences) {
  constexpr int64_t kReset = -1;   // demand_traffic_check(1)
  constexpr int64_t kAbsent = -2;  // the interface is not listed
  constexpr int64_t kNoFile = -3;  // /proc/net/dev cannot be opened
  struct Step {
    int64_t tx;  // a counter value to check against, or one of the above
    int result, dial, started, hits;
    uint32_t last_tx;
  };
  const std::pair<const char*, std::vector<Step>> scenarios[] = {
      {"two rises dial; an unchanged reading does nothing",
       {{1000, 0, 0, 1, 0, 1000}, {1500, 0, 0, 1, 1, 1500}, {1500, 0, 0, 1, 1, 1500}, {1600, 0, 1, 0, 0, 1500}}},
      {"after the dial the next check takes a new baseline",
       {{1000, 0, 0, 1, 0, 1000}, {1001, 0, 0, 1, 1, 1001}, {1002, 0, 1, 0, 0, 1001}, {5000, 0, 1, 1, 0, 5000}}},
      {"a reset between rises starts over",
       {{1000, 0, 0, 1, 0, 1000}, {1500, 0, 0, 1, 1, 1500}, {kReset, 0, 0, 0, 0, 1500}, {1600, 0, 0, 1, 0, 1600},
        {1700, 0, 0, 1, 1, 1700}, {1800, 0, 1, 0, 0, 1700}}},
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
       {{kNoFile, -1, 0, 0, 0, 0}, {1000, 0, 0, 1, 0, 1000}, {1500, 0, 0, 1, 1, 1500}, {kNoFile, -1, 0, 1, 1, 1500},
        {1600, 0, 1, 0, 0, 1500}}},
      {"a reset keeps the baseline value and a raised flag",
       {{1000, 0, 0, 1, 0, 1000}, {1100, 0, 0, 1, 1, 1100}, {1200, 0, 1, 0, 0, 1100}, {kReset, 0, 1, 0, 0, 1100},
        {kReset, 0, 1, 0, 0, 1100}}},
  };
  for (const auto& [what, steps] : scenarios) {
    SCOPED_TRACE(what);
    demand_traffic_reset();
    g_demand_dial = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
      SCOPED_TRACE("step " + std::to_string(i));
      const Step& s = steps[i];
      if (s.tx == kNoFile) unlink("/proc/net/dev");
      if (s.tx == kAbsent) write_dev("");
      if (s.tx >= 0) write_dev(dev("rmnet_tarvek0", "1 1 0 0 0 0 0 0 " + std::to_string(s.tx) + " 1 0 0"));
      EXPECT_EQ(demand_traffic_check(s.tx == kReset ? 1 : 0), s.result);
      EXPECT_EQ(g_demand_dial, s.dial);
      EXPECT_EQ(g_demand_started, s.started);
      EXPECT_EQ(g_demand_hits, s.hits);
      EXPECT_EQ(g_demand_last_tx, s.last_tx);
    }
  }
}

// Lowest descriptor number free now: a leaked socket would take it.
int lowest_free_fd() {
  const int fd = dup(STDIN_FILENO);
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
