// The AT port: opening the tty raw, writing command lines, and the receive
// ring's rules for reads.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>

#include "at_modem.h"
#include "log/log.h"
#include "private_var.h"

namespace {

std::string pattern(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(static_cast<char>('A' + i % 26));
  return s;
}

std::string take_all() {
  std::string out;
  uint8_t c;
  while (at_ring_take(&c) == 0) out.push_back(static_cast<char>(c));
  return out;
}

bool readable(int fd) {
  struct pollfd pfd = {fd, POLLIN, 0};
  return poll(&pfd, 1, 0) == 1;
}

// /dev/qmitty0 inside this test's mount namespace: a tmpfs /dev holding a
// file onto which `target_fd`'s file is bound.
class PrivateQmiTty {
 public:
  explicit PrivateQmiTty(int target_fd) {
    const std::string source = "/proc/self/fd/" + std::to_string(target_fd);
    ok_ = mount("wds-test-dev", "/dev", "tmpfs", 0, "size=64k,mode=0755") == 0;
    if (!ok_) return;
    const int fd = open("/dev/qmitty0", O_CREAT | O_WRONLY, 0600);
    if (fd >= 0) close(fd);
    ok_ = fd >= 0 && mount(source.c_str(), "/dev/qmitty0", nullptr, MS_BIND, nullptr) == 0;
  }
  ~PrivateQmiTty() {
    umount2("/dev/qmitty0", MNT_DETACH);
    umount2("/dev", MNT_DETACH);
  }
  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

class AtPort : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet_tarvek0");
    fresh_channel();
    g_at_fd = -1;
  }
  void TearDown() override { at_port_cleanup(); }
};

TEST_F(AtPort, CommandLineIsTextAndCarriageReturnUpTo510Characters) {
  struct Case {
    const char* name;
    size_t length;
    int ret;
    int err;
  } cases[] = {
      {"empty", 0, 0, -7},
      {"one", 1, 0, -7},
      {"longest accepted", 510, 0, -7},
      {"one too long", 511, -1, 22},
      {"far too long", 2000, -1, 22},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SeqModem modem;
    const std::string text = pattern(c.length);
    int err = -7;
    EXPECT_EQ(at_write_command(text.c_str(), &err), c.ret);
    EXPECT_EQ(err, c.err);
    EXPECT_EQ(modem.written(), c.ret == 0 ? text + "\r" : "");
  }
}

TEST_F(AtPort, CommandWriteFailures) {
  int err = -7;
  EXPECT_EQ(at_write_command("AT", nullptr), -1);
  EXPECT_EQ(at_write_command(nullptr, &err), -1);
  EXPECT_EQ(err, 22);

  SeqModem modem;
  close(modem.peer());  // the modem side is gone: the write fails with EPIPE
  err = -7;
  EXPECT_EQ(at_write_command("AT", &err), -1);
  EXPECT_EQ(err, EPIPE);

  g_at_fd = -1;
  err = -7;
  EXPECT_EQ(at_write_command("AT", &err), -1);
  EXPECT_EQ(err, EBADF);
}

TEST_F(AtPort, ReadDeliversTextUpToItsFirstZeroAndAtMost511Bytes) {
  struct Case {
    const char* name;
    std::string sent;
    std::string delivered;
  } cases[] = {
      {"short", "\r\nOK\r\n", "\r\nOK\r\n"},
      {"511 bytes", pattern(511), pattern(511)},
      {"512 bytes lose the last", pattern(512), pattern(511)},
      {"zero byte drops the rest of the read", std::string("ab\0cd\r\n", 7), "ab"},
      {"leading zero byte delivers nothing", std::string("\0OK", 3), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fresh_channel();
    SeqModem modem;
    modem.send_now(c.sent);
    EXPECT_EQ(at_read_into_ring(), 0);
    EXPECT_EQ(at_rx_ring.wpos, static_cast<int32_t>(c.delivered.size()));
    EXPECT_EQ(take_all(), c.delivered);
    EXPECT_EQ(at_rx_ring.rpos, at_rx_ring.wpos);
  }
}

TEST_F(AtPort, ReadReportsDeviceGoneAtEndOfFileAndMinusOneOnOtherFailures) {
  {
    SeqModem modem;
    modem.hang_up();
    EXPECT_EQ(at_read_into_ring(), 19);
  }
  g_at_fd = -1;
  EXPECT_EQ(at_read_into_ring(), -1);
}

TEST_F(AtPort, WrapSkipsTheReadWhileTheReaderIsPastTheFirst512Bytes) {
  SeqModem modem;
  for (int i = 0; i < 4; ++i) {
    modem.send_now(pattern(511));
    ASSERT_EQ(at_read_into_ring(), 0);
    ASSERT_EQ(take_all(), pattern(511));
  }
  ASSERT_EQ(at_rx_ring.wpos, 2044);
  ASSERT_EQ(at_rx_ring.rpos, 2044);

  modem.send_now("XYZ");
  EXPECT_EQ(at_read_into_ring(), 0);
  EXPECT_EQ(at_rx_ring.wpos, 0);
  EXPECT_TRUE(readable(modem.port())) << "the read should have been skipped";
  EXPECT_EQ(take_all(), "");  // the reader sweeps to the start
  EXPECT_EQ(at_rx_ring.rpos, 0);

  EXPECT_EQ(at_read_into_ring(), 0);
  EXPECT_EQ(take_all(), "XYZ");
}

TEST_F(AtPort, WrapReadsAtOnceWhileTheReaderIsInTheFirst512Bytes) {
  SeqModem modem;
  for (int i = 0; i < 4; ++i) {
    modem.send_now(pattern(511));
    ASSERT_EQ(at_read_into_ring(), 0);
  }
  ASSERT_EQ(at_rx_ring.wpos, 2044);
  ASSERT_EQ(at_rx_ring.rpos, 0);

  modem.send_now("NEW");
  EXPECT_EQ(at_read_into_ring(), 0);
  EXPECT_FALSE(readable(modem.port()));
  EXPECT_EQ(at_rx_ring.wpos, 3);
  EXPECT_EQ(take_all(), "NEW");
}

TEST_F(AtPort, WrapBoundaryIsAReaderAt512) {
  struct Case {
    int32_t reader_at;
    bool skipped;
  } cases[] = {{511, false}, {512, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reader_at);
    fresh_channel();
    SeqModem modem;
    // Move the reader to its offset, then fill the ring to past 1536 unread.
    modem.send_now(pattern(511));
    ASSERT_EQ(at_read_into_ring(), 0);
    if (c.reader_at == 512) {
      modem.send_now("!");
      ASSERT_EQ(at_read_into_ring(), 0);
    }
    take_all();
    ASSERT_EQ(at_rx_ring.rpos, c.reader_at);
    while (at_rx_ring.wpos < kAtRingWrapAt) {
      modem.send_now(pattern(511));
      ASSERT_EQ(at_read_into_ring(), 0);
    }
    modem.send_now("NEW");
    EXPECT_EQ(at_read_into_ring(), 0);
    EXPECT_EQ(at_rx_ring.wpos, c.skipped ? 0 : 3);
    EXPECT_EQ(readable(modem.port()), c.skipped);
  }
}

TEST_F(AtPort, CloseReportsTheDescriptorOfAClosedPortAndCleanupAlwaysSucceeds) {
  EXPECT_EQ(at_port_close(), -1);
  EXPECT_EQ(g_at_fd, -1);
  EXPECT_EQ(at_port_cleanup(), 0);

  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  g_at_fd = fds[0];
  EXPECT_EQ(at_port_close(), 0);
  EXPECT_EQ(g_at_fd, -1);
  EXPECT_EQ(fcntl(fds[0], F_GETFD), -1) << "descriptor should be closed";
  g_at_fd = fds[1];
  EXPECT_EQ(at_port_cleanup(), 0);
  EXPECT_EQ(g_at_fd, -1);
}

TEST_F(AtPort, BytesInTheRingOutliveClosingAndReopeningThePort) {
  {
    SeqModem first;
    first.send_now("\r\nOK\r\n\r\n^DHCP: q\r\nOK\r\n");
    EXPECT_EQ(send_command("AT", "").ret, 0);
  }
  at_port_close();
  SeqModem second;
  const AtOutcome out = send_command("AT^DHCP?", "^DHCP");
  EXPECT_EQ(out.ret, 0);
  EXPECT_EQ(out.response, "^DHCP: q");
  EXPECT_EQ(second.written(), "AT^DHCP?\r");
}

TEST_F(AtPort, MissingPathIsLogged) {
  ASSERT_GE(log_open(), 0);
  int fd = -1;
  EXPECT_EQ(at_tty_open(nullptr, &fd), -1);
  EXPECT_EQ(at_tty_open("/dev/qmitty0", nullptr), -1);
  log_close();
  const std::string log = read_text_file("/var/log/wds.log");
  const std::regex line(R"(\[error\]\[         atrwapi:[ 0-9]{4}:pid=[ 0-9]{3,}\] path or tty_fd is null\. errno = \d+ <[^>]*> \n)");
  std::sregex_iterator it(log.begin(), log.end(), line), end;
  EXPECT_EQ(std::distance(it, end), 2) << log;
}

TEST_F(AtPort, WaitWmReadyOpensTheTtyRawAndClearsPppState) {
  PtyModem modem;  // starts raw; put it back to a cooked, echoing terminal
  struct termios cooked;
  ASSERT_EQ(tcgetattr(modem.slave(), &cooked), 0);
  cooked.c_iflag |= INLCR | ICRNL | IXON | IXANY | IXOFF | IGNBRK;
  cooked.c_oflag |= OPOST | ONLCR;
  cooked.c_lflag |= ICANON | ECHO | ECHOE | ECHONL | ISIG | IEXTEN;
  cooked.c_cc[VMIN] = 3;
  cooked.c_cc[VTIME] = 7;
  ASSERT_EQ(tcsetattr(modem.slave(), TCSANOW, &cooked), 0);
  g_at_fd = -1;

  PrivateQmiTty tty(modem.slave());
  ASSERT_TRUE(tty.ok());
  mkdir("/var/log/ppp_state", 0755);
  write_text_file("/var/log/ppp_state/state", "up");
  modem.send("stale input\n");  // discarded when the modes are applied

  fflush(stdout);
  const int saved_stdout = dup(STDOUT_FILENO);
  const int capture = open("/var/log/stdout", O_CREAT | O_TRUNC | O_WRONLY, 0600);
  dup2(capture, STDOUT_FILENO);
  const int ret = wait_wm_ready();
  fflush(stdout);
  dup2(saved_stdout, STDOUT_FILENO);
  close(saved_stdout);
  close(capture);

  ASSERT_EQ(ret, 0);
  EXPECT_EQ(read_text_file("/var/log/stdout"), "wait_wm_ready:Ndis tty is opened successfully\n");
  EXPECT_FALSE(file_exists("/var/log/ppp_state"));
  ASSERT_GE(g_at_fd, 0);

  struct termios now;
  ASSERT_EQ(tcgetattr(g_at_fd, &now), 0);
  EXPECT_EQ(now.c_iflag, cooked.c_iflag & ~tcflag_t{0x1dc0});
  EXPECT_EQ(now.c_oflag, 0u);
  EXPECT_EQ(now.c_lflag, cooked.c_lflag & ~tcflag_t{0x5a});
  EXPECT_TRUE(now.c_lflag & ISIG);
  EXPECT_EQ(now.c_cflag, cooked.c_cflag);
  EXPECT_EQ(now.c_cc[VMIN], 3);
  EXPECT_EQ(now.c_cc[VTIME], 7);
  EXPECT_EQ(cfgetispeed(&now), cfgetispeed(&cooked));
  EXPECT_FALSE(readable(g_at_fd));

  // Opened read-write and blocking, like the modem's tty.
  const int flags = fcntl(g_at_fd, F_GETFL);
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  EXPECT_EQ(flags & O_NONBLOCK, 0);

  // The port answers through the pty, once the cooked terminal's echo of the
  // stale input is out of the way.
  char echo[256];
  while (readable(modem.master()) && read(modem.master(), echo, sizeof echo) > 0) {
  }
  int err = 0;
  EXPECT_EQ(at_write_command("ATI", &err), 0);
  EXPECT_EQ(modem.command(), "ATI\r");
}

TEST_F(AtPort, APortWithoutTerminalModesStillOpens) {
  write_text_file("/var/log/plain", "");
  const int plain = open("/var/log/plain", O_RDWR);
  ASSERT_GE(plain, 0);
  PrivateQmiTty tty(plain);
  ASSERT_TRUE(tty.ok());
  EXPECT_EQ(at_port_open(), 0);
  EXPECT_GE(g_at_fd, 0);
  close(plain);
}

TEST_F(AtPort, ProbeWritesAtAndLooksForOk) {
  struct Case {
    const char* reply;
    int ret;
  } cases[] = {{"\r\nOK\r\n", 0}, {"\r\nERROR\r\n", -1}, {"O", -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    PtyModem modem;
    modem.send(c.reply);
    EXPECT_EQ(at_probe_ok(), c.ret);
    EXPECT_EQ(modem.command(), "at\r");
  }
  g_at_fd = -1;
  EXPECT_EQ(at_probe_ok(), -1);
}

}  // namespace
