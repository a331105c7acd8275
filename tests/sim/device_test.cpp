// The simulator's tty through FUSE, driven by a client of our own: the
// driver semantics the daemon relies on (message per write and read, EINTR,
// ENODEV and end of file, the client-id ioctl, an honest poll), the control
// socket, the record of what crossed, and the tun reader.
//
// The test process runs in private mount and network namespaces (set up
// before the first test), so the FUSE mounts, the tun interfaces and the
// packets never reach the host.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <net/if.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim/control.h"
#include "sim/runtime.h"
#include "sim/text.h"

namespace {

using namespace std::chrono_literals;

constexpr unsigned kClientIdIoctl = 0xC0017804;

// Devices, records and sockets of these tests live under a private tmpfs
// mounted on a directory of its own: /tmp itself stays visible, since the
// simulator binary may be built somewhere below it.
std::string g_base;

class PrivateNamespaces : public ::testing::Environment {
 public:
  void SetUp() override {
    ASSERT_EQ(unshare(CLONE_NEWNS | CLONE_NEWNET), 0) << "needs root: " << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    char base[] = "/tmp/wds-simdev.XXXXXX";
    ASSERT_NE(mkdtemp(base), nullptr);
    g_base = base;
    ASSERT_EQ(mount("tmpfs", base, "tmpfs", 0, "mode=1777"), 0);
    // An interface coming up would otherwise send IPv6 solicitations of its
    // own and move the counters the tun test checks.
    for (const char* p : {"/proc/sys/net/ipv6/conf/all/disable_ipv6", "/proc/sys/net/ipv6/conf/default/disable_ipv6"}) {
      std::ofstream f(p);
      f << "1\n";
    }
  }
};

std::string hex(const char* h) { return sim::from_hex(h).value(); }

void on_alarm(int) {}

// One simulator process with its own exchange directory and device file.
class SimProcess {
 public:
  SimProcess(const std::string& mode, const std::vector<std::string>& commands, const std::string& tun = "") {
    static int counter = 0;
    dir_ = g_base + "/sim" + std::to_string(++counter);
    mkdir(dir_.c_str(), 0755);
    device_ = dir_ + "/qmitty0";
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    std::vector<std::string> args = {WDS_SIM_PATH, "--mode", mode, "--dir", dir_, "--device", device_,
                                     "--ready-fd", std::to_string(ready[1])};
    if (tun.empty()) {
      args.push_back("--no-tun");
    } else {
      args.push_back("--tun");
      args.push_back(tun);
    }
    for (const auto& c : commands) {
      args.push_back("--do");
      args.push_back(c);
    }
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(ready[1]);
    pollfd p{ready[0], POLLIN, 0};
    char b = 0;
    started_ = poll(&p, 1, 10000) == 1 && read(ready[0], &b, 1) == 1 && b == 'R';
    close(ready[0]);
    EXPECT_TRUE(started_) << "wds-sim did not start";
  }

  ~SimProcess() {
    for (int fd : fds_) close(fd);
    stop();
  }

  int stop() {
    if (pid_ <= 0) return exit_status_;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    exit_status_ = status;
    return status;
  }

  std::string ctl(const std::string& line) { return sim::control_request(dir_ + "/sim.sock", line); }
  void ok(const std::string& line) { ASSERT_EQ(ctl(line).substr(0, 2), "ok") << line; }

  int open_device(int flags = O_RDWR) {
    int fd = ::open(device_.c_str(), flags | O_CLOEXEC);
    if (fd >= 0) fds_.push_back(fd);
    return fd;
  }

  // Record lines of one kind ("rx", "tx", "ev"), their data field.
  std::vector<std::string> records(const std::string& kind) {
    std::ifstream in(dir_ + "/device.log");
    std::vector<std::string> out;
    std::string line;
    while (std::getline(in, line)) {
      auto w = sim::split_words(line);
      if (w.size() >= 4 && w[2] == kind) {
        std::string rest = line.substr(line.find(" " + kind + " ") + kind.size() + 2);
        out.push_back(rest);
      }
    }
    return out;
  }

  const std::string& device() const { return device_; }
  bool started() const { return started_; }

 private:
  std::string dir_, device_;
  pid_t pid_ = -1;
  int exit_status_ = 0;
  bool started_ = false;
  std::vector<int> fds_;
};

// A read that cannot hang the test: waits for readability first.
std::string read_block(int fd, size_t size = 1000, int timeout_ms = 3000) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) != 1) return "<nothing>";
  std::string buf(size, '\0');
  ssize_t n = read(fd, buf.data(), size);
  if (n < 0) return "<error " + std::string(strerrorname_np(errno)) + ">";
  buf.resize(static_cast<size_t>(n));
  return buf;
}

void write_all(int fd, const std::string& bytes) {
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// ---- writes and reads ----

TEST(SimDevice, EveryWriteArrivesWholeAsOneRecord) {
  SimProcess sim("ndis", {});
  ASSERT_TRUE(sim.started());
  int fd = sim.open_device();
  ASSERT_GE(fd, 0);
  const size_t sizes[] = {1, 7, 511, 1000, 4096, 65536};
  std::vector<std::string> written;
  for (size_t n : sizes) {
    std::string bytes(n, 'a');
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>('a' + i % 26);  // no carriage return
    write_all(fd, bytes);
    written.push_back(sim::to_hex(bytes));
  }
  EXPECT_EQ(sim.records("rx"), written);
}

TEST(SimDevice, EachReadHandsOverOneMessage) {
  SimProcess sim("qmi", {});
  int fd = sim.open_device();
  write_all(fd, hex("000002002000083000010116000100"));
  EXPECT_EQ(sim::to_hex(read_block(fd)), "0200020020000e020004000000000100041a2b3c4d");
  EXPECT_EQ(sim::to_hex(read_block(fd)), "040000002200050100020200");
  EXPECT_EQ(read_block(fd, 1000, 200), "<nothing>");
}

TEST(SimDevice, IndicationInTheSameReadWhenAsked) {
  SimProcess sim("qmi", {"set ind=same"});
  int fd = sim.open_device();
  write_all(fd, hex("000002002000083000010116000100"));
  EXPECT_EQ(sim::to_hex(read_block(fd)), "0200020020000e020004000000000100041a2b3c4d" "040000002200050100020200");
}

TEST(SimDevice, CoalescePacksWholeBlocksThatFitAndSplitsOversizedOnes) {
  SimProcess sim("qmi", {"set coalesce=on hold=on"});
  int fd = sim.open_device();
  sim.ok("send 0102030405");
  sim.ok("send 0607");
  sim.ok("send 08090a0b0c0d");
  sim.ok("set hold=off");
  // 5 + 2 fit in 8; the third block would not, so it waits.
  EXPECT_EQ(sim::to_hex(read_block(fd, 8)), "01020304050607");
  // A block bigger than the read comes in pieces.
  EXPECT_EQ(sim::to_hex(read_block(fd, 4)), "08090a0b");
  EXPECT_EQ(sim::to_hex(read_block(fd, 4)), "0c0d");
}

TEST(SimDevice, DelayedAnswerArrivesAfterTheDelay) {
  SimProcess sim("qmi", {"on reset delay=300"});
  int fd = sim.open_device();
  auto t0 = std::chrono::steady_clock::now();
  write_all(fd, hex("00000100000000"));
  EXPECT_EQ(read_block(fd, 1000, 100), "<nothing>");
  EXPECT_EQ(sim::to_hex(read_block(fd)), "0200010000000702000400000000");
  EXPECT_GE(std::chrono::steady_clock::now() - t0, 290ms);
}

// ---- signals ----

TEST(SimDevice, SignalEndsABlockedReadWithEintrAndLosesNoData) {
  SimProcess sim("qmi", {});
  int fd = sim.open_device();
  struct sigaction sa {};
  sa.sa_handler = on_alarm;  // no SA_RESTART, as the daemon's tick
  sigemptyset(&sa.sa_mask);
  ASSERT_EQ(sigaction(SIGALRM, &sa, nullptr), 0);
  for (int round = 0; round < 3; ++round) {
    itimerval it{};
    it.it_value.tv_usec = 100000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &it, nullptr), 0);
    auto t0 = std::chrono::steady_clock::now();
    char buf[1000];
    ssize_t n = read(fd, buf, sizeof buf);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(n, -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_GE(waited, 90ms);
    EXPECT_LT(waited, 1000ms);
  }
  sim.ok("send 0400000022000501000201" "00");
  EXPECT_EQ(sim::to_hex(read_block(fd)), "040000002200050100020100");
  signal(SIGALRM, SIG_DFL);
}

// ---- ioctls ----

TEST(SimDevice, ClientIdIoctlAnswersTheConfiguredByte) {
  struct Case {
    const char* setting;
    int id;
  } cases[] = {{nullptr, 1}, {"set client-id=0", 0}, {"set client-id=255", 255}, {"set client-id=7", 7}};
  SimProcess sim("qmi", {});
  int fd = sim.open_device();
  for (const auto& c : cases) {
    if (c.setting) sim.ok(c.setting);
    unsigned char id = 0xAA;
    EXPECT_EQ(ioctl(fd, kClientIdIoctl, &id), 0);
    EXPECT_EQ(id, c.id) << (c.setting ? c.setting : "default");
  }
}

TEST(SimDevice, TerminalIoctlsFailWithEnottyUnlessAllowed) {
  SimProcess sim("ndis", {});
  int fd = sim.open_device();
  termios t{};
  EXPECT_EQ(tcgetattr(fd, &t), -1);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(tcsetattr(fd, TCSAFLUSH, &t), -1);
  sim.ok("set tty=ok");
  EXPECT_EQ(tcgetattr(fd, &t), 0);
  EXPECT_EQ(tcsetattr(fd, TCSAFLUSH, &t), 0);
  EXPECT_EQ(tcflush(fd, TCIOFLUSH), 0);
  EXPECT_EQ(ioctl(fd, 0x5480 /* unknown */, nullptr), -1);
  EXPECT_EQ(errno, ENOTTY);
}

// ---- poll ----

TEST(SimDevice, PollReportsReadableOnlyWhenDataWaits) {
  SimProcess sim("qmi", {});
  int fd = sim.open_device();
  pollfd p{fd, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 150), 0);
  std::thread sender([&] {
    std::this_thread::sleep_for(100ms);
    sim.ok("send 01");
  });
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(poll(&p, 1, 5000), 1);
  EXPECT_TRUE(p.revents & POLLIN);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, 80ms);
  sender.join();
  EXPECT_EQ(sim::to_hex(read_block(fd)), "01");
  p.revents = 0;
  EXPECT_EQ(poll(&p, 1, 100), 0);
}

// ---- unplug, removal, replug ----

TEST(SimDevice, UnplugEndsAWaitingReadAndKillsTheHandle) {
  struct Case {
    const char* command;
    ssize_t read_result;
    int read_errno;
  } cases[] = {{"unplug", -1, ENODEV}, {"unplug enodev", -1, ENODEV}, {"unplug eof", 0, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    SimProcess sim("qmi", {});
    int fd = sim.open_device();
    ssize_t n = 99;
    int err = 0;
    std::thread reader([&] {
      char buf[1000];
      n = read(fd, buf, sizeof buf);
      err = errno;
    });
    // The read must be waiting in the simulator before the unplug.
    auto t0 = std::chrono::steady_clock::now();
    while (sim.ctl("get").find("waiting-reads=1") == std::string::npos && std::chrono::steady_clock::now() - t0 < 5s)
      std::this_thread::sleep_for(5ms);
    sim.ok(c.command);
    reader.join();
    EXPECT_EQ(n, c.read_result);
    if (c.read_result < 0) {
      EXPECT_EQ(err, c.read_errno);
    }
    // Dead for good: writes fail, later reads fail the same way.
    EXPECT_EQ(write(fd, "\x00", 1), -1);
    EXPECT_EQ(errno, ENODEV);
    char buf[10];
    EXPECT_EQ(read(fd, buf, sizeof buf), c.read_result);
    unsigned char id = 0;
    EXPECT_EQ(ioctl(fd, kClientIdIoctl, &id), -1);
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 1000), 1);
    // A new open gets a working handle.
    int fd2 = sim.open_device();
    ASSERT_GE(fd2, 0);
    write_all(fd2, hex("00000100000000"));
    EXPECT_EQ(sim::to_hex(read_block(fd2)), "0200010000000702000400000000");
  }
}

TEST(SimDevice, RemovedDeviceRefusesOpenUntilReplugged) {
  struct Case {
    const char* command;
    int open_errno;
  } cases[] = {{"remove", ENODEV}, {"remove enodev", ENODEV}, {"remove enoent", ENOENT}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    SimProcess sim("qmi", {});
    int old_fd = sim.open_device();
    sim.ok(c.command);
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(sim.open_device(), -1);
      EXPECT_EQ(errno, c.open_errno);
    }
    char buf[10];
    EXPECT_EQ(read(old_fd, buf, sizeof buf), -1);
    EXPECT_EQ(errno, ENODEV);
    sim.ok("replug");
    int fd = sim.open_device();
    ASSERT_GE(fd, 0);
    write_all(fd, hex("00000100000000"));
    EXPECT_EQ(sim::to_hex(read_block(fd)), "0200010000000702000400000000");
    // The handle from before the removal stays dead.
    EXPECT_EQ(read(old_fd, buf, sizeof buf), -1);
  }
}

TEST(SimDevice, UnplugEndsTheCallAndDropsQueuedOutput) {
  SimProcess sim("qmi", {"set hold=on"});
  int fd = sim.open_device();
  write_all(fd, hex("000002002000083000010116000100"));
  sim.ok("unplug");
  sim.ok("set hold=off");
  int fd2 = sim.open_device();
  EXPECT_EQ(read_block(fd2, 1000, 200), "<nothing>");
  write_all(fd2, hex("00000300220000"));
  EXPECT_EQ(sim::to_hex(read_block(fd2)), "0200030022000b0200040000000001000101");
}

TEST(SimDevice, WriteErrorRefusesWrites) {
  SimProcess sim("qmi", {"set write-error=5"});
  int fd = sim.open_device();
  EXPECT_EQ(write(fd, "\x00\x00\x01\x00\x00\x00\x00", 7), -1);
  EXPECT_EQ(errno, EIO);
  sim.ok("set write-error=off");
  write_all(fd, hex("00000100000000"));
  EXPECT_EQ(sim::to_hex(read_block(fd)), "0200010000000702000400000000");
}

// ---- the AT dialogue through the device ----

TEST(SimDevice, AtAnswersSplitAtChosenBytesAcrossReads) {
  SimProcess sim("ndis", {"set split=2,5 echo=on"});
  int fd = sim.open_device();
  write_all(fd, "AT\r");
  std::vector<std::string> got;
  for (int i = 0; i < 3; ++i) got.push_back(read_block(fd));
  // "AT\r\r\nOK\r\n" cut after byte 2 and byte 5.
  EXPECT_EQ(got, (std::vector<std::string>{"AT", "\r\r\n", "OK\r\n"}));
  EXPECT_EQ(read_block(fd, 1000, 100), "<nothing>");
}

TEST(SimDevice, AtCallThroughTheDevice) {
  SimProcess sim("ndis", {"set addr=10.20.30.40 dhcp-wait=1"});
  int fd = sim.open_device();
  write_all(fd, "AT^NDISDUP=1,1,\"internet\",,\r");
  EXPECT_EQ(read_block(fd), "\r\nOK\r\n");
  write_all(fd, "AT^DHCP?\r");
  EXPECT_EQ(read_block(fd), "\r\nERROR\r\n");
  write_all(fd, "AT^DHCP?\r");
  EXPECT_EQ(read_block(fd), "\r\n^DHCP: 0a141e28,ffffff00,c0a80801,c0a80801,c0a80802,c0a80803,150000000,50000000\r\n"
                            "\r\nOK\r\n");
}

// ---- record and control ----

TEST(SimDevice, RecordsEveryByteInOrder) {
  SimProcess sim("qmi", {});
  int fd = sim.open_device();
  write_all(fd, hex("00000100000000"));
  read_block(fd);
  write_all(fd, hex("00000200220000"));
  read_block(fd);
  EXPECT_EQ(sim.records("rx"), (std::vector<std::string>{"00000100000000", "00000200220000"}));
  EXPECT_EQ(sim.records("tx"),
            (std::vector<std::string>{"0200010000000702000400000000", "0200020022000b0200040000000001000101"}));
  auto ev = sim.records("ev");
  EXPECT_NE(std::find(ev.begin(), ev.end(), "wds request reset tx=1"), ev.end());
  EXPECT_NE(std::find(ev.begin(), ev.end(), "wds request status tx=2"), ev.end());
  // Sequence numbers and times never go backwards.
  std::ifstream in(sim.device().substr(0, sim.device().rfind('/')) + "/device.log");
  uint64_t last_seq = 0;
  long long last_t = 0;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream s(line);
    uint64_t seq;
    long long t;
    s >> seq >> t;
    EXPECT_EQ(seq, last_seq + 1);
    EXPECT_GE(t, last_t);
    last_seq = seq;
    last_t = t;
  }
  EXPECT_GT(last_seq, 4u);
}

TEST(SimDevice, ControlRefusesBadCommands) {
  SimProcess sim("qmi", {});
  const char* bad[] = {"",          "nosuch",          "set",           "set nokey=1",      "set client-id=256",
                       "set tty=maybe", "unplug sideways", "remove later", "send",              "send zz",
                       "on reset",  "on reset fail=-1", "tun sideways",  "set addr=1.2.3.4.5"};
  for (const char* b : bad) EXPECT_EQ(sim.ctl(b).substr(0, 4), "err ") << b;
  EXPECT_EQ(sim.ctl("ping"), "ok");
}

TEST(SimDevice, TerminationUnmountsTheDevice) {
  SimProcess sim("qmi", {});
  struct statfs fs {};
  ASSERT_EQ(statfs(sim.device().c_str(), &fs), 0);
  EXPECT_EQ(fs.f_type, FUSE_SUPER_MAGIC);
  int status = sim.stop();
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  ASSERT_EQ(statfs(sim.device().c_str(), &fs), 0);
  EXPECT_NE(fs.f_type, FUSE_SUPER_MAGIC);
}

// ---- network side ----

uint64_t tx_packets(const std::string& ifname) {
  std::ifstream in("/proc/net/dev");
  std::string line;
  while (std::getline(in, line)) {
    auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    auto name = sim::split_words(line.substr(0, colon));
    if (name.size() != 1 || name[0] != ifname) continue;
    auto f = sim::split_words(line.substr(colon + 1));
    return std::stoull(f.at(9));
  }
  return UINT64_MAX;
}

TEST(SimDevice, TunReaderConsumesEveryPacketSoTxCountsExactly) {
  SimProcess sim("qmi", {}, "tsim0");
  ASSERT_NE(if_nametoindex("tsim0"), 0u);
  ASSERT_EQ(system("ip addr add 10.99.0.1/24 dev tsim0 && ip link set tsim0 up"), 0);
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);
  inet_pton(AF_INET, "10.99.0.2", &to.sin_addr);
  for (int i = 0; i < 5; ++i)
    ASSERT_EQ(sendto(s, "12345678", 8, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 8);
  close(s);
  auto t0 = std::chrono::steady_clock::now();
  while (sim.ctl("get").find("tun-packets=5 ") == std::string::npos && std::chrono::steady_clock::now() - t0 < 5s)
    std::this_thread::sleep_for(5ms);
  std::string state = sim.ctl("get");
  EXPECT_NE(state.find("tun-packets=5 tun-bytes=180"), std::string::npos) << state;  // 20 + 8 + 8 bytes each
  EXPECT_EQ(tx_packets("tsim0"), 5u);
  EXPECT_EQ(sim.records("net").size(), 5u);
  sim.ok("tun close");
  EXPECT_EQ(if_nametoindex("tsim0"), 0u);
  sim.ok("tun open");
  EXPECT_NE(if_nametoindex("tsim0"), 0u);
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new PrivateNamespaces);
  int result = RUN_ALL_TESTS();
  // The mount vanishes with our namespace; the empty directory stays behind.
  if (!g_base.empty()) {
    umount2(g_base.c_str(), MNT_DETACH);
    rmdir(g_base.c_str());
  }
  return result;
}
