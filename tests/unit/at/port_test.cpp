// The AT port: opening the tty raw, writing command lines, and the receive
// ring's rules for reads.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <termios.h>

#include <regex>

#include "at_modem.h"
#include "log/log.h"

namespace {

struct AtPort : AtChannel {};

std::string take_all() {
  std::string out;
  for (uint8_t c; at_ring_take(&c) == 0;) out.push_back(static_cast<char>(c));
  return out;
}

bool readable(int fd) {
  struct pollfd pfd = {fd, POLLIN, 0};
  return poll(&pfd, 1, 0) == 1;
}

// /dev/qmitty0 inside this test's mount namespace: a tmpfs /dev holding a
// file onto which `target_fd`'s file is bound.
struct PrivateQmiTty {
  bool ok = false;
  explicit PrivateQmiTty(int target_fd) {
    if (mount("wds-test-dev", "/dev", "tmpfs", 0, "size=64k,mode=0755") != 0) return;
    const int fd = open("/dev/qmitty0", O_CREAT | O_WRONLY, 0600);
    if (fd >= 0) close(fd);
    const std::string source = "/proc/self/fd/" + std::to_string(target_fd);
    ok = fd >= 0 && mount(source.c_str(), "/dev/qmitty0", nullptr, MS_BIND, nullptr) == 0;
  }
  ~PrivateQmiTty() { umount2("/dev", MNT_DETACH); }  // takes the bound file along
};

TEST_F(AtPort, CommandLineIsTextAndCarriageReturnUpTo510Characters) {
  const struct {
    size_t length;
    int ret, err;
  } cases[] = {{0, 0, -7}, {1, 0, -7}, {510, 0, -7}, {511, -1, 22}, {2000, -1, 22}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    SeqModem modem;
    const std::string text = pattern(c.length);
    int err = -7;
    EXPECT_EQ(at_write_command(text.c_str(), &err), c.ret);
    EXPECT_EQ(err, c.err);
    EXPECT_EQ(modem.written(), c.ret == 0 ? text + "\r" : "");
  }
  int err = -7;
  EXPECT_EQ(at_write_command("AT", nullptr), -1);
  EXPECT_EQ(at_write_command(nullptr, &err), -1);
  EXPECT_EQ(err, 22);
  EXPECT_EQ(at_write_command("AT", &err), -1);  // no port
  EXPECT_EQ(err, EBADF);
}

TEST_F(AtPort, ReadDeliversTextUpToItsFirstZeroAndAtMost511Bytes) {
  const struct {
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
  SeqModem modem;
  shutdown(modem.peer, SHUT_WR);
  EXPECT_EQ(at_read_into_ring(), 19);  // end of file: the device is gone
  g_at_fd = -1;
  EXPECT_EQ(at_read_into_ring(), -1);
}

// Past 1536 the writer starts over at 0, but reads only once the reader has
// left the first 512 bytes that the read may fill.
TEST_F(AtPort, WrapWaitsForAReaderAt512OrMore) {
  for (const int32_t reader_at : {511, 512}) {
    SCOPED_TRACE(reader_at);
    const bool skipped = reader_at == 512;
    fresh_channel();
    SeqModem modem;
    for (const int32_t size : {reader_at - 256, 256, 511, 511, 511}) {
      modem.send_now(pattern(size));
      ASSERT_EQ(at_read_into_ring(), 0);
    }
    ASSERT_GE(at_rx_ring.wpos, kAtRingWrapAt);
    for (uint8_t c; at_rx_ring.rpos < reader_at;) at_ring_take(&c);
    modem.send_now("NEW");
    EXPECT_EQ(at_read_into_ring(), 0);
    EXPECT_EQ(at_rx_ring.wpos, skipped ? 0 : 3);
    EXPECT_EQ(readable(g_at_fd), skipped);
    // The reader runs on through the ring's unused end to the writer at the start.
    const std::string unread = pattern(511) + pattern(511) + pattern(511);
    EXPECT_EQ(take_all(), skipped ? unread : unread + "NEW");
    EXPECT_EQ(at_rx_ring.rpos, at_rx_ring.wpos);
    if (skipped) {
      EXPECT_EQ(at_read_into_ring(), 0);
      EXPECT_EQ(take_all(), "NEW");
    }
  }
}

TEST_F(AtPort, CloseReportsTheDescriptorOfAClosedPortAndCleanupAlwaysSucceeds) {
  EXPECT_EQ(at_port_close(), -1);
  EXPECT_EQ(at_port_cleanup(), 0);
  for (int (*close_port)() : {at_port_close, at_port_cleanup}) {
    const int fd = g_at_fd = dup(STDERR_FILENO);
    EXPECT_EQ(close_port(), 0);
    EXPECT_EQ(g_at_fd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "descriptor should be closed";
  }
}

TEST_F(AtPort, MissingPathIsLogged) {
  ASSERT_GE(log_open(), 0);
  int fd = -1;
  EXPECT_EQ(at_tty_open(nullptr, &fd), -1);
  EXPECT_EQ(at_tty_open("/dev/qmitty0", nullptr), -1);
  log_close();
  const std::string log = read_text_file("/var/log/wds.log");
  const std::regex line(
      R"(\[error\]\[         atrwapi:[ 0-9]{4}:pid=[ 0-9]{3,}\] path or tty_fd is null\. errno = \d+ <[^>]*> \n)");
  EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), line), std::sregex_iterator()), 2) << log;
}

TEST_F(AtPort, WaitWmReadyOpensTheTtyRawAndClearsPppState) {
  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  // Zeroed: musl's tcgetattr fills only the kernel's control characters.
  struct termios cooked {};
  ASSERT_EQ(tcgetattr(slave, &cooked), 0);
  cooked.c_iflag |= INLCR | ICRNL | IXON | IXANY | IXOFF | IGNBRK;
  cooked.c_oflag |= OPOST | ONLCR;
  cooked.c_lflag |= ICANON | ECHO | ECHOE | ECHONL | ISIG | IEXTEN;
  cooked.c_cc[VMIN] = 3;
  cooked.c_cc[VTIME] = 7;
  ASSERT_EQ(tcsetattr(slave, TCSANOW, &cooked), 0);
  PrivateQmiTty tty(slave);
  ASSERT_TRUE(tty.ok);
  mkdir("/var/log/ppp_state", 0755);
  write_text_file("/var/log/ppp_state/state", "up");
  ASSERT_EQ(write(master, "stale input\n", 12), 12);  // discarded when the modes are applied

  fflush(stdout);
  const int saved_stdout = dup(STDOUT_FILENO), capture = open("/var/log/stdout", O_CREAT | O_WRONLY, 0600);
  dup2(capture, STDOUT_FILENO);
  const int ret = wait_wm_ready();
  fflush(stdout);
  dup2(saved_stdout, STDOUT_FILENO);
  close(saved_stdout);
  close(capture);

  ASSERT_EQ(ret, 0);
  EXPECT_EQ(read_text_file("/var/log/stdout"), "wait_wm_ready:Ndis tty is opened successfully\n");
  EXPECT_FALSE(file_exists("/var/log/ppp_state"));
  struct termios now {};
  ASSERT_EQ(tcgetattr(g_at_fd, &now), 0);
  EXPECT_EQ(now.c_iflag, cooked.c_iflag & ~tcflag_t{0x1dc0});
  EXPECT_EQ(now.c_oflag, 0u);
  EXPECT_EQ(now.c_lflag, cooked.c_lflag & ~tcflag_t{0x5a});  // ISIG stays
  EXPECT_EQ(now.c_cflag, cooked.c_cflag);
  EXPECT_EQ(memcmp(now.c_cc, cooked.c_cc, sizeof now.c_cc), 0);  // VMIN 3 and VTIME 7 among them
  EXPECT_EQ(cfgetispeed(&now), cfgetispeed(&cooked));
  EXPECT_FALSE(readable(g_at_fd));
  EXPECT_EQ(fcntl(g_at_fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);  // read-write and blocking
  close(slave);
  close(master);
}

TEST_F(AtPort, APortWithoutTerminalModesStillOpens) {
  const int plain = open("/var/log/plain", O_RDWR | O_CREAT, 0600);
  ASSERT_GE(plain, 0);
  PrivateQmiTty tty(plain);
  ASSERT_TRUE(tty.ok);
  EXPECT_EQ(at_port_open(), 0);
  EXPECT_GE(g_at_fd, 0);
  close(plain);
}

TEST_F(AtPort, ProbeWritesAtAndLooksForOk) {
  for (const auto& [reply, ret] : {std::pair{"\r\nOK\r\n", 0}, {"\r\nERROR\r\n", -1}, {"O", -1}}) {
    SCOPED_TRACE(reply);
    SeqModem modem;
    modem.send_now(reply);
    EXPECT_EQ(at_probe_ok(), ret);
    EXPECT_EQ(modem.written(), "at\r");
  }
  g_at_fd = -1;
  EXPECT_EQ(at_probe_ok(), -1);
}

}  // namespace
