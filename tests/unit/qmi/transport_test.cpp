// Transport over a socket pair standing in for the tty: blocks of messages
// read and parsed, the tick limit of a wait with ticks driven by the test,
// writes interrupted or cut short, and the client identifier query.
#include <sys/ioctl.h>

#include "qmi_test_support.h"

namespace {

using Transport = QmiTest;

const Bytes kRuntimeOk = qmi_message(0x02, 5, 0x2D, "02 0004 0000 0000");
const Bytes kRuntimeFailed = qmi_message(0x02, 5, 0x2D, "02 0004 0001 000E");
const Bytes kStartOk = qmi_message(0x02, 1, 0x20, "02 0004 0000 0000 01 0004 12345678");
const Bytes kStopOk = qmi_message(0x02, 9, 0x21, "02 0004 0000 0000");
const Bytes kIndConnected = qmi_message(0x04, 0, 0x22, "01 0002 0200");

constexpr qmi_expect kAwaitRuntime = {0x02, 5, 0x2D};
constexpr qmi_expect kAwaitReset = {0x02, 1, 0x00};
constexpr qmi_expect kAwaitIndication = {0x04, 0, 0x22};

// Every message of a block is parsed, indications for the connection state,
// and the last verdict decides: the wait ends, or goes on to the next block
// after a response it does not await. Indications are awaited through
// wait_srvc_status_ind.
TEST_F(Transport, ReadMsgParsesEveryMessageAndEndsOnTheBlockThatSettlesTheWait) {
  enum Tty { kOpen, kEndOfFile, kClosed };
  // unread: blocks left; status: connection_status afterwards.
  struct Case { const char* name; std::vector<Bytes> blocks; qmi_expect expect; int ret, unread; uint8_t status;
                Strings must_log; Tty tty = kOpen; };
  const Bytes big = qmi_message(0x02, 1, 0x2D, "02 0004 0000 0000" + std::string(2 * 1093, '9'));
  const Case cases[] = {
      {"awaited response", {kRuntimeOk}, kAwaitRuntime, 0, 0, 1,
       {"read msg len : 14bytes", "message(0x2d00) buf(14bytes)", "ctl flag = 0x2, txId = 0x5",
        "msg type = 0x2d, mlen = 0x7", "parsing runtime response"}},
      {"response then indication", {concat({kStartOk, kIndConnected})}, qmi_expect{0x02, 1, 0x20}, 0, 0, 2,
       {"receice an indication msg, handle it", "parse_srvc_status_ind successful"}},
      {"another identifier, then the awaited response", {kStopOk, kRuntimeOk}, kAwaitRuntime, 0, 0, 1,
       {"message(0x2100) buf(14bytes)", "rsp msg type(0x0021) mismatch, expect (0x002d)",
        "Continue to read MATCH MSG(0x2d)", "message(0x2d00) buf(14bytes)"}},
      {"awaited response, then another identifier in one block", {concat({kRuntimeOk, kStopOk}), kRuntimeFailed},
       kAwaitRuntime, -1, 0, 1, {}},
      {"another identifier, then the awaited response in one block", {concat({kStopOk, kRuntimeOk}), kRuntimeFailed},
       kAwaitRuntime, 0, 1, 1, {}},
      {"indication alone fails a response wait", {kIndConnected, kRuntimeOk}, kAwaitRuntime, -1, 1, 2, {}},
      {"refused indication, then the response", {concat({qmi_message(0x04, 0, 0x22, "01 0002 0500"), kRuntimeOk})},
       kAwaitRuntime, 0, 0, 5, {"invalid connection_status(0x05)"}},
      {"indication after another identifier settles nothing", {concat({kStopOk, kIndConnected}), kRuntimeOk},
       kAwaitRuntime, 0, 0, 2, {}},
      {"unknown control flag, its record ending in an empty line", {qmi_message(0x01, 3, 0x2D, "02 0004 0000 0000")},
       kAwaitRuntime, -1, 0, 1, {"Unsupport ctrl type : 0x1", ""}},
      {"other transaction identifier", {qmi_message(0x02, 0xBEEF, 0x2D, "02 0004 0000 0000")}, kAwaitRuntime, 0, 0, 1,
       {"ctl flag = 0x2, txId = 0xbeef"}},
      {"another response, then the awaited indication", {kRuntimeOk, kIndConnected, kStopOk}, kAwaitIndication, 0, 1, 2,
       {"rsp msg type(0x002d) mismatch, expect (0x0022)"}},
      {"late status response answers the indication wait", {qmi_message(0x02, 7, 0x22, "02 0004 0000 0000 01 0001 02")},
       kAwaitIndication, 0, 0, 1, {"parsing status response"}},
      {"indication of another identifier", {qmi_message(0x04, 0, 0x01, "")}, kAwaitIndication, -1, 0, 1,
       {"unsupport indication msg type"}},
      {"awaited identifier without a parser", {qmi_message(0x02, 1, 0x01, ""), kRuntimeOk}, {0x02, 1, 0x01}, -1, 1, 1,
       {"Unsupport message type : 0x1"}},
      {"second message cut short", {concat({kRuntimeOk, Bytes(kStartOk.begin(), kStartOk.begin() + 9)})},
       kAwaitRuntime, -1, 0, 1, {"msg exceeds recv bytes(need 21, recv 9)"}},
      {"stray bytes after a message", {concat({kRuntimeOk, hex("00 0001")})}, kAwaitRuntime, -1, 0, 1,
       {"msg header exceeds recv bytes(need 7, recv 3)"}},
      {"reset response without its result TLV", {qmi_message(0x02, 1, 0x00, "")}, kAwaitReset, -1, 0, 1,
       {"unpack_result_code : msg exceeds recv bytes(need 3, recv 0)"}},
      {"reset response refused by the modem", {qmi_message(0x02, 1, 0x00, "02 0004 0001 0003")}, kAwaitReset, 0, 0, 1,
       {}},
      // The receive buffer is reused: older bytes must not complete a shorter block.
      {"stale bytes of an earlier block", {kStopOk, qmi_message(0x02, 1, 0x00, "")}, kAwaitReset, -1, 0, 1, {}},
      {"message longer than the read", {big}, kAwaitRuntime, -1, 0, 1,
       {"read msg len : 1000bytes", "msg exceeds recv bytes(need 1107, recv 1000)"}},
      {"end of file: the tty is gone", {}, kAwaitRuntime, 19, 0, 1, {}, kEndOfFile},
      {"end of file fails an indication wait", {}, kAwaitIndication, -1, 0, 1, {}, kEndOfFile},
      {"other read errors", {}, kAwaitRuntime, -1, 0, 1, {"read msg : unknown error errno = 9 <" + std::string(strerror(EBADF)) + "> "},
       kClosed},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    connection_status = 1;
    TtyPair tty;
    for (const Bytes& block : c.blocks) tty.reply(block);
    if (c.tty == kEndOfFile) tty.end_of_file();
    if (c.tty == kClosed) tty.close_daemon_end();
    EXPECT_EQ(c.expect.ctl_flag == 0x04 ? wait_srvc_status_ind(3) : read_msg(&c.expect, 3), c.ret);
    int unread = 0;
    for (uint8_t scratch[64]; recv(qmitty_fd, scratch, sizeof scratch, MSG_DONTWAIT) > 0;) ++unread;
    EXPECT_EQ(unread, c.unread);
    EXPECT_EQ(connection_status, c.status);
    const Strings texts = log_texts();
    for (const std::string& text : c.must_log) {
      EXPECT_NE(std::find(texts.begin(), texts.end(), text), texts.end()) << "not logged: " << text;
    }
  }
}

// Ticks one at a time, each after a stray response: a reply after exactly
// limit ticks is still taken, one tick more ends the wait first, and the
// strays do not restart the count.
TEST_F(Transport, TheLimitIsTestedBeforeEveryRead) {
  for (uint8_t limit : {0, 1, 3}) {
    for (bool one_tick_more : {false, true}) {
      SCOPED_TRACE(std::to_string(limit) + (one_tick_more ? " + 1 ticks" : " ticks"));
      restart_log();
      TtyPair tty;
      const int ret = wait_with_ticks([&] { return wait_srvc_status_ind(limit); }, [&](auto tick) {
        for (int i = 0; i < limit; ++i) {
          tty.reply(kStopOk);
          tick();
        }
        if (!one_tick_more) tty.reply(kIndConnected);
        return one_tick_more;
      });
      EXPECT_EQ(ret, one_tick_more ? -2 : 0);
      if (one_tick_more) {
        EXPECT_GT(g_wait_ticks, limit);
        EXPECT_EQ(log_count("read msg timeout, msg_type = 34"), 1);
      } else {
        EXPECT_EQ(g_wait_ticks, limit);
        EXPECT_EQ(log_count("Continue to read MATCH MSG(0x22)"), limit);
      }
    }
  }
}

TEST_F(Transport, SendMsgWritesAgainAfterEintrAndFailsOnAClosedTty) {
  const Bytes msg = hex("00 0105 002D 0000");
  const Strings dump = {"message(0x2d00) buf(7bytes)", "0000: 00 01 05 00 2d 00 00 "};
  {
    // A full tty: the write blocks until a tick ends it with EINTR, then is made again.
    TtyPair tty;
    const uint8_t filler = 0xFF;
    while (send(qmitty_fd, &filler, 1, MSG_DONTWAIT) == 1) {
    }
    ASSERT_EQ(errno, EAGAIN);
    Bytes last;
    const int ret = run_with_peer(1000, [&] { return send_msg(msg.data(), static_cast<int>(msg.size())); }, [&] {
      // A second dump of the message: a write was interrupted and made again.
      wait_until([&] { return log_count(dump[0]) >= 2; }, "no write was made again");
      for (Bytes got = tty.take(); !got.empty(); got = tty.take()) {
        last = got;
        if (got == msg) break;
      }
    });
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(last, msg);
  }
  restart_log();   // the tty is closed now: dumped, then refused
  EXPECT_EQ(send_msg(msg.data(), static_cast<int>(msg.size())), -1);
  const Strings refused = {dump[0], dump[1], "tty busy or tty down. errno = 9 <" + std::string(strerror(EBADF)) + "> "};
  EXPECT_EQ(log_texts(), refused);
}

TEST_F(Transport, ShortWriteSendsTheWholeMessageAgainFromItsStart) {
  // A byte stream with the smallest send buffer stands in for a tty that
  // takes part of a message; byte 0 is the only zero, so restarts show.
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  const int smallest = 1;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
  qmitty_fd = fds[0];
  Bytes msg(6000);
  for (size_t i = 1; i < msg.size(); ++i) msg[i] = static_cast<uint8_t>(1 + i % 250);
  log_close();   // dumps of this size would run past the log's size bound

  Bytes stream;
  const int ret = run_with_peer(2000, [&] {
    const int sent = send_msg(msg.data(), static_cast<int>(msg.size()));
    shutdown(fds[0], SHUT_WR);
    return sent;
  }, [&] {
    // Part of the message queued and two ticks after it: the write returned short.
    int queued = 0;
    wait_until([&] { return ioctl(fds[1], FIONREAD, &queued) == 0 && queued > 0; }, "nothing written");
    const int ticks = g_test_ticks.load();
    wait_until([&] { return g_test_ticks.load() >= ticks + 2; }, "no tick");
    uint8_t chunk[4096];
    for (ssize_t n; (n = read(fds[1], chunk, sizeof chunk)) != 0;) {
      if (n > 0) stream.insert(stream.end(), chunk, chunk + n);
    }
  });
  close(fds[0]);
  close(fds[1]);
  qmitty_fd = -1;

  EXPECT_EQ(ret, 0);
  // Every attempt starts again at byte 0; the last one wrote all of it.
  size_t at = 0, attempts = 0;
  for (uint8_t b : stream) {
    if (b == 0) {
      at = 0;
      ++attempts;
    }
    ASSERT_LT(at, msg.size());
    ASSERT_EQ(b, msg[at++]);
  }
  EXPECT_GE(attempts, 2u) << "no short write happened";
  EXPECT_EQ(at, msg.size());
}

TEST_F(Transport, ClientIdQueryReportsWhyItFailed) {
  int ret = 0;
  EXPECT_EQ(printed_by(get_wds_client_id, &ret), "\n===>get_wds_client_id : valid description -1");
  EXPECT_EQ(ret, -1);
  TtyPair tty;
  const std::string not_a_tty = "\n===>get_wds_client_id : tty doesn't exist " + std::to_string(qmitty_fd);
  EXPECT_EQ(printed_by(get_wds_client_id, &ret), not_a_tty);
  EXPECT_EQ(ret, -1);
}

}  // namespace
