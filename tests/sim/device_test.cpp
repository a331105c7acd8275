// The simulator's tty through FUSE, driven by a client of our own: the driver
// semantics the daemon relies on, the control socket, the record of what
// crossed, and the tun reader. The tests run in private mount and network
// namespaces, so mounts, tun interfaces and packets never reach the host.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <net/if.h>
#include <netinet/in.h>
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

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sim/control.h"
#include "sim/text.h"

namespace {

using namespace std::chrono_literals;
using sim::to_hex;
using Clock = std::chrono::steady_clock;

constexpr unsigned kClientIdIoctl = 0xC0017804;
const std::string kReset = "00000100000000", kResetOk = "0200010000000702000400000000",
                  kStart = "000002002000083000010116000100";

// Devices, records and sockets live under a private tmpfs on a directory of
// its own: /tmp itself stays visible, since the simulator binary may be
// built somewhere below it.
std::string g_base;

std::string hex(const std::string& h) { return sim::from_hex(h).value(); }

bool wait_for(const std::function<bool()>& done) {
  for (auto end = Clock::now() + 5s; !done();) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// One simulator process with its own exchange directory and device file.
struct SimProcess {
  SimProcess(const std::string& mode, const std::vector<std::string>& commands, const std::string& tun = "") {
    static int counter = 0;
    dir_ = g_base + "/sim" + std::to_string(++counter);
    mkdir(dir_.c_str(), 0755);
    device_ = dir_ + "/qmitty0";
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    std::vector<std::string> args = {WDS_SIM_PATH, "--mode",     mode, "--dir", dir_, "--device", device_,
                                     "--ready-fd", std::to_string(ready[1])};
    if (tun.empty()) args.push_back("--no-tun");
    else args.insert(args.end(), {"--tun", tun});
    for (const auto& c : commands) args.insert(args.end(), {"--do", c});
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
    bool started = poll(&p, 1, 10000) == 1 && read(ready[0], &b, 1) == 1 && b == 'R';
    close(ready[0]);
    EXPECT_TRUE(started) << "wds-sim did not start";
  }

  ~SimProcess() {
    for (int fd : fds_) close(fd);
    stop();
  }

  int stop() {
    if (pid_ > 0 && kill(pid_, SIGTERM) == 0) waitpid(std::exchange(pid_, -1), &exit_status_, 0);
    return exit_status_;
  }

  std::string ctl(const std::string& line) { return sim::control_request(dir_ + "/sim.sock", line); }
  void ok(const std::string& line) { ASSERT_EQ(ctl(line).substr(0, 2), "ok") << line; }

  int open_device() {
    int fd = ::open(device_.c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0) fds_.push_back(fd);
    return fd;
  }

  // The record's lines "<seq> <µs> <kind> <data>": the data of one kind, or
  // whole lines for kind "".
  std::vector<std::string> records(const std::string& kind) {
    std::ifstream in(dir_ + "/device.log");
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) {
      auto w = sim::split_words(line);
      if (kind.empty()) out.push_back(line);
      else if (w.size() >= 4 && w[2] == kind) out.push_back(line.substr(line.find(" " + kind + " ") + kind.size() + 2));
    }
    return out;
  }

  std::string dir_, device_;
  pid_t pid_ = -1;
  int exit_status_ = 0;
  std::vector<int> fds_;
};

// A system call's result as a word: the count, or the errno name on -1.
std::string outcome(long r) { return r < 0 ? strerrorname_np(errno) : std::to_string(r); }

// A read that cannot hang the test: waits for readability first.
std::string read_block(int fd, size_t size = 1000, int timeout_ms = 3000) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) != 1) return "<nothing>";
  std::string buf(size, '\0');
  ssize_t n = read(fd, buf.data(), size);
  if (n < 0) return "<" + outcome(n) + ">";
  buf.resize(static_cast<size_t>(n));
  return buf;
}

void write_all(int fd, const std::string& b) { ASSERT_EQ(write(fd, b.data(), b.size()), ssize_t(b.size())); }

// Steps: "> data" one write (hex in QMI mode, text in NDIS mode), "x data" a
// write that must fail with EIO, "< data" one read of up to 1000 bytes ("<N
// data": of N bytes), "<" no data within 200 ms, "open" a fresh handle;
// anything else is a control command that must succeed.
TEST(SimDevice, ReadsAndWritesFollowTheScript) {
  struct Case {
    const char* name;
    const char* mode;
    std::vector<std::string> setup, steps;
    std::vector<std::string> at_lines = {};  // the record's AT lines, when given
  } cases[] = {
      {"each read hands over one message", "qmi", {},
       {"> " + kStart, "< 0200020020000e020004000000000100041a2b3c4d", "< 040000002200050100020200", "<"}},
      {"indication in the same read when asked", "qmi", {"set ind=same"},
       {"> " + kStart, "< 0200020020000e020004000000000100041a2b3c4d" "040000002200050100020200"}},
      // 5 + 2 fit in 8 but the third block would not; a block bigger than
      // the read comes in pieces.
      {"coalesce packs whole blocks that fit", "qmi", {"set coalesce=on hold=on"},
       {"send 0102030405", "send 0607", "send 08090a0b0c0d", "set hold=off", "<8 01020304050607", "<4 08090a0b",
        "<4 0c0d"}},
      {"unplug ends the call and drops queued output", "qmi", {"set hold=on"},
       {"> " + kStart, "unplug", "set hold=off", "open", "<", "> 00000300220000",
        "< 0200030022000b0200040000000001000101"}},
      {"write error refuses writes", "qmi", {"set write-error=5"},
       {"x " + kReset, "set write-error=off", "> " + kReset, "< " + kResetOk}},
      // "AT\r\r\nOK\r\n" cut after byte 2 and byte 5.
      {"AT answers split at chosen bytes across reads", "ndis", {"set split=2,5 echo=on"},
       {"> AT\r", "< AT", "< \r\r\n", "< OK\r\n", "<"},
       {"rx AT", "tx AT", "tx OK"}},
      {"AT call through the device", "ndis", {"set addr=10.20.30.40 dhcp-wait=1"},
       {"> AT^NDISDUP=1,1,\"internet\",,\r", "< \r\nOK\r\n", "> AT^DHCP?\r", "< \r\nERROR\r\n", "> AT^DHCP?\r",
        "< \r\n^DHCP: 0a141e28,ffffff00,c0a80801,c0a80801,c0a80802,c0a80803,150000000,50000000\r\n\r\nOK\r\n"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SimProcess sim(c.mode, c.setup);
    const bool text = std::string(c.mode) == "ndis";
    int fd = sim.open_device();
    ASSERT_GE(fd, 0);
    for (const auto& s : c.steps) {
      SCOPED_TRACE(s);
      const size_t space = s.find(' ');
      const std::string arg = space == std::string::npos ? "" : s.substr(space + 1);
      const std::string data = text ? arg : sim::from_hex(arg).value_or("");
      if (s[0] == '>') {
        write_all(fd, data);
      } else if (s[0] == 'x') {
        EXPECT_EQ(outcome(write(fd, data.data(), data.size())), "EIO");
      } else if (s == "<") {
        EXPECT_EQ(read_block(fd, 1000, 200), "<nothing>");
      } else if (s[0] == '<') {
        std::string got = read_block(fd, space > 1 ? std::stoul(s.substr(1)) : 1000);
        EXPECT_EQ(text ? got : to_hex(got), arg);
      } else if (s == "open") {
        fd = sim.open_device();
      } else {
        sim.ok(s);
      }
    }
    if (!c.at_lines.empty()) {
      EXPECT_EQ(sim.records("at"), c.at_lines);
    }
  }
}

TEST(SimDevice, EveryWriteIsRecordedWholeAndInOrder) {
  SimProcess sim("qmi", {});
  int fd = sim.open_device();
  write_all(fd, hex(kReset));
  read_block(fd);
  write_all(fd, hex("00000200220000"));
  read_block(fd);
  std::vector<std::string> rx = {kReset, "00000200220000"};
  for (size_t n : {1, 7, 511, 1000, 4096, 65536}) {
    std::string bytes(n, 'a');
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>('a' + i % 26);
    write_all(fd, bytes);
    rx.push_back(to_hex(bytes));
  }
  EXPECT_EQ(sim.records("rx"), rx);
  EXPECT_EQ(sim.records("tx"), (std::vector<std::string>{kResetOk, "0200020022000b0200040000000001000101"}));
  // Each message also by name and fields, right after its bytes.
  auto named = sim.records("wds");
  named.resize(4);
  EXPECT_EQ(named, (std::vector<std::string>{
                       "rx request tx=1 reset (0x0000)",
                       "tx response tx=1 reset (0x0000): result=0 (success), error=0 (None)",
                       "rx request tx=2 packet service status (0x0022)",
                       "tx response tx=2 packet service status (0x0022): result=0 (success), error=0 (None), "
                       "status=1 (disconnected)"}));
  auto ev = sim.records("ev");
  for (const char* want : {"wds request reset tx=1", "wds request status tx=2"})
    EXPECT_NE(std::find(ev.begin(), ev.end(), want), ev.end()) << want;
  // Sequence numbers count up by one and times never go backwards.
  uint64_t last_seq = 0, seq = 0;
  long long last_t = 0, t = -1;
  for (const auto& line : sim.records("")) {
    std::istringstream(line) >> seq >> t;
    EXPECT_EQ(seq, ++last_seq) << line;
    EXPECT_GE(t, last_t) << line;
    last_t = t;
  }
  EXPECT_GT(last_seq, 10u);
}

// A delayed answer arrives from the simulator's own timer: poll stays quiet
// until then and wakes for it without a read in progress.
TEST(SimDevice, PollWakesOnlyWhenADelayedAnswerArrives) {
  SimProcess sim("qmi", {"on reset delay=300"});
  int fd = sim.open_device();
  pollfd p{fd, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 100), 0);
  auto t0 = Clock::now();
  write_all(fd, hex(kReset));
  EXPECT_EQ(poll(&p, 1, 150), 0);
  EXPECT_EQ(poll(&p, 1, 5000), 1);
  EXPECT_TRUE(p.revents & POLLIN);
  EXPECT_GE(Clock::now() - t0, 290ms);
  EXPECT_LT(Clock::now() - t0, 2s);  // woken by the answer, not by the timeout
  EXPECT_EQ(to_hex(read_block(fd)), kResetOk);
  EXPECT_EQ(poll(&p, 1, 100), 0);
}

TEST(SimDevice, SignalEndsABlockedReadWithEintrAndLosesNoData) {
  SimProcess sim("qmi", {});
  int fd = sim.open_device();
  struct sigaction sa {};
  sa.sa_handler = [](int) {};  // no SA_RESTART, as the daemon's tick
  sigemptyset(&sa.sa_mask);
  ASSERT_EQ(sigaction(SIGALRM, &sa, nullptr), 0);
  for (int round = 0; round < 3; ++round) {
    itimerval it{};
    it.it_value.tv_usec = 100000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &it, nullptr), 0);
    auto t0 = Clock::now();
    char buf[1000];
    EXPECT_EQ(read(fd, buf, sizeof buf), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_GE(Clock::now() - t0, 90ms);
    EXPECT_LT(Clock::now() - t0, 1000ms);
  }
  sim.ok("send 040000002200050100020100");
  EXPECT_EQ(to_hex(read_block(fd)), "040000002200050100020100");
  signal(SIGALRM, SIG_DFL);
}

TEST(SimDevice, ClientIdIoctlAnswersTheByteAndTerminalIoctlsFailUnlessAllowed) {
  SimProcess sim("qmi", {});
  int fd = sim.open_device();
  const std::pair<const char*, int> ids[] = {
      {"", 1}, {"set client-id=0", 0}, {"set client-id=255", 255}, {"set client-id=7", 7}};
  for (auto [setting, want] : ids) {
    if (*setting) sim.ok(setting);
    unsigned char id = 0xAA;
    EXPECT_EQ(ioctl(fd, kClientIdIoctl, &id), 0);
    EXPECT_EQ(id, want) << setting;
  }
  termios t{};
  EXPECT_EQ(outcome(tcgetattr(fd, &t)), "ENOTTY");
  EXPECT_EQ(outcome(tcsetattr(fd, TCSAFLUSH, &t)), "ENOTTY");
  sim.ok("set tty=ok");
  EXPECT_EQ(tcgetattr(fd, &t), 0);
  EXPECT_EQ(tcsetattr(fd, TCSAFLUSH, &t), 0);
  EXPECT_EQ(tcflush(fd, TCIOFLUSH), 0);
  EXPECT_EQ(outcome(ioctl(fd, 0x5480 /* unknown */, nullptr)), "ENOTTY");
}

// Unplug and removal end a waiting read and kill the handle for good; a
// removed device refuses opens until it is replugged.
TEST(SimDevice, UnplugAndRemovalKillOpenHandles) {
  struct Case {
    const char* command;
    const char* read_result;
    const char* open_result;  // "": a new open works at once
  } cases[] = {{"unplug", "ENODEV", ""},         {"unplug enodev", "ENODEV", ""},
               {"unplug eof", "0", ""},           {"remove", "ENODEV", "ENODEV"},
               {"remove enodev", "ENODEV", "ENODEV"}, {"remove enoent", "ENODEV", "ENOENT"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    SimProcess sim("qmi", {});
    int fd = sim.open_device();
    char buf[1000];
    std::string waited;
    std::atomic<bool> done = false;
    std::thread reader([&] {
      waited = outcome(read(fd, buf, sizeof buf));
      done = true;
    });
    EXPECT_TRUE(wait_for([&] { return sim.ctl("get").find("waiting-reads=1") != std::string::npos; }));
    sim.ok(c.command);
    EXPECT_TRUE(wait_for([&] { return done.load(); }));
    if (!done) sim.ok("unplug");  // frees the reader: a failure must not hang the test
    reader.join();
    EXPECT_EQ(waited, c.read_result);
    EXPECT_EQ(outcome(read(fd, buf, sizeof buf)), c.read_result);
    EXPECT_EQ(outcome(write(fd, "\x00", 1)), "ENODEV");
    EXPECT_EQ(outcome(ioctl(fd, kClientIdIoctl, buf)), "ENODEV");
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 1000), 1);
    for (int i = 0; *c.open_result && i < 2; ++i) EXPECT_EQ(outcome(sim.open_device()), c.open_result);
    if (*c.open_result) sim.ok("replug");
    int fd2 = sim.open_device();
    ASSERT_GE(fd2, 0);
    write_all(fd2, hex(kReset));
    EXPECT_EQ(to_hex(read_block(fd2)), kResetOk);
    EXPECT_EQ(outcome(read(fd, buf, sizeof buf)), c.read_result);  // the old handle stays dead
  }
}

TEST(SimDevice, ControlRefusesBadCommandsAndTerminationUnmounts) {
  SimProcess sim("qmi", {});
  for (const char* b : {"", "nosuch", "set", "set nokey=1", "set client-id=256", "set tty=maybe", "unplug sideways",
                        "remove later", "send", "send zz", "on reset", "on reset fail=-1", "tun sideways",
                        "set addr=1.2.3.4.5"})
    EXPECT_EQ(sim.ctl(b).substr(0, 4), "err ") << b;
  EXPECT_EQ(sim.ctl("ping"), "ok");
  struct statfs fs {};
  ASSERT_EQ(statfs(sim.device_.c_str(), &fs), 0);
  EXPECT_EQ(fs.f_type, FUSE_SUPER_MAGIC);
  int status = sim.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  ASSERT_EQ(statfs(sim.device_.c_str(), &fs), 0);
  EXPECT_NE(fs.f_type, FUSE_SUPER_MAGIC);
}

uint64_t tx_packets(const std::string& ifname) {
  std::ifstream in("/proc/net/dev");
  for (std::string line; std::getline(in, line);) {
    auto colon = line.find(':');
    if (colon != std::string::npos && sim::split_words(line.substr(0, colon)) == std::vector<std::string>{ifname})
      return std::stoull(sim::split_words(line.substr(colon + 1)).at(9));
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
  for (int i = 0; i < 5; ++i) ASSERT_EQ(sendto(s, "12345678", 8, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 8);
  close(s);
  wait_for([&] { return sim.ctl("get").find("tun-packets=5 ") != std::string::npos; });
  std::string state = sim.ctl("get");
  EXPECT_NE(state.find("tun-packets=5 tun-bytes=180"), std::string::npos) << state;  // 20 + 8 + 8 bytes each
  EXPECT_EQ(tx_packets("tsim0"), 5u);
  EXPECT_EQ(sim.records("net").size(), 5u);
  EXPECT_EQ(sim.records("ip"), std::vector<std::string>(5, "UDP 10.99.0.1 -> 10.99.0.2, 36 bytes"));
  sim.ok("tun close");
  EXPECT_EQ(if_nametoindex("tsim0"), 0u);
  sim.ok("tun open");
  EXPECT_NE(if_nametoindex("tsim0"), 0u);
}

// Set up when the tests run, not when they are only listed.
struct PrivateNamespaces : ::testing::Environment {
  void SetUp() override {
    ASSERT_EQ(unshare(CLONE_NEWNS | CLONE_NEWNET), 0) << "needs root: " << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    char base[] = "/tmp/wds-simdev.XXXXXX";
    ASSERT_NE(mkdtemp(base), nullptr);
    g_base = base;
    ASSERT_EQ(mount("tmpfs", base, "tmpfs", 0, "mode=1777"), 0);
    // An interface coming up would otherwise send IPv6 solicitations of its
    // own and move the counters the tun test checks.
    for (const char* p : {"/proc/sys/net/ipv6/conf/all/disable_ipv6", "/proc/sys/net/ipv6/conf/default/disable_ipv6"})
      std::ofstream(p) << "1\n";
  }
  // The mount vanishes with our namespace; the empty directory stays behind.
  void TearDown() override {
    umount2(g_base.c_str(), MNT_DETACH);
    rmdir(g_base.c_str());
  }
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new PrivateNamespaces);
  return RUN_ALL_TESTS();
}
