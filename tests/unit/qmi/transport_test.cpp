// Transport over a socket pair standing in for the tty: the verdicts of
// parse_msg over whole blocks, read_msg's waits with ticks driven by the
// test, writes interrupted or cut short, and the client identifier query.
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

#include "log/log.h"
#include "private_var.h"
#include "qmi/qmi.h"
#include "qmi_test_support.h"

namespace {

using Transport = QmiTest;
using Strings = std::vector<std::string>;

const Bytes kHandleTlv = hex("01 00 04 12 34 56 78");
const Bytes kRuntimeOk = qmi_message(0x02, 5, 0x2D, result_tlv(0, 0));
const Bytes kRuntimeFailed = qmi_message(0x02, 5, 0x2D, result_tlv(1, 14));
const Bytes kStartOk = qmi_message(0x02, 1, 0x20, concat({result_tlv(0, 0), kHandleTlv}));
const Bytes kStopOk = qmi_message(0x02, 9, 0x21, result_tlv(0, 0));
const Bytes kStatusRsp = qmi_message(0x02, 7, 0x22, concat({result_tlv(0, 0), hex("01 00 01 02")}));
const Bytes kIndConnected = qmi_message(0x04, 0, 0x22, hex("01 00 02 02 00"));
const Bytes kIndBadStatus = qmi_message(0x04, 0, 0x22, hex("01 00 02 05 00"));

constexpr qmi_expect kAwaitRuntime = {0x02, 5, 0x2D};
constexpr qmi_expect kAwaitStart = {0x02, 1, 0x20};
constexpr qmi_expect kAwaitReset = {0x02, 1, 0x00};
constexpr qmi_expect kAwaitIndication = {0x04, 0, 0x22};

bool contains(const Strings& lines, const std::string& wanted) {
  return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

TEST_F(Transport, ParseMsgVerdictOverEveryMessageOfABlock) {
  struct Case {
    const char* name;
    Bytes block;
    qmi_expect expect;
    int verdict;
    uint8_t status;          // connection_status afterwards
    Strings must_log;
  };
  const Case cases[] = {
      {"awaited response", kRuntimeOk, kAwaitRuntime, 0, 1,
       {"ctl flag = 0x2, txId = 0x5", "msg type = 0x2d, mlen = 0x7", "parsing runtime response"}},
      {"response then indication", concat({kStartOk, kIndConnected}), kAwaitStart, 0, 2,
       {"receice an indication msg, handle it", "parse_srvc_status_ind successful"}},
      {"awaited response then another identifier", concat({kRuntimeOk, kStopOk}), kAwaitRuntime, -2, 1,
       {"rsp msg type(0x0021) mismatch, expect (0x002d)"}},
      {"another identifier then awaited response", concat({kStopOk, kRuntimeOk}), kAwaitRuntime, 0, 1, {}},
      {"indication alone while a response is awaited", kIndConnected, kAwaitRuntime, -1, 2, {}},
      {"refused indication beside the awaited response", concat({kIndBadStatus, kRuntimeOk}), kAwaitRuntime, 0, 5,
       {"invalid connection_status(0x05)"}},
      {"refused response then indication", concat({kRuntimeFailed, kIndConnected}), kAwaitRuntime, -1, 2, {}},
      {"mismatch then indication", concat({kStopOk, kIndConnected}), kAwaitRuntime, -2, 2, {}},
      {"unknown control flag", qmi_message(0x01, 3, 0x2D, result_tlv(0, 0)), kAwaitRuntime, -1, 1,
       {"Unsupport ctrl type : 0x1"}},
      {"other transaction identifier", qmi_message(0x02, 0xBEEF, 0x2D, result_tlv(0, 0)), kAwaitRuntime, 0, 1,
       {"ctl flag = 0x2, txId = 0xbeef"}},
      {"late status response while the indication is awaited", kStatusRsp, kAwaitIndication, 0, 1,
       {"parsing status response"}},
      {"other response while the indication is awaited", kRuntimeOk, kAwaitIndication, -2, 1,
       {"rsp msg type(0x002d) mismatch, expect (0x0022)"}},
      {"awaited indication", kIndConnected, kAwaitIndication, 0, 2, {}},
      {"indication of another identifier", qmi_message(0x04, 0, 0x01, {}), kAwaitIndication, -1, 1,
       {"unsupport indication msg type"}},
      {"awaited identifier without a parser", qmi_message(0x02, 1, 0x01, result_tlv(0, 0)), {0x02, 1, 0x01}, -3, 1,
       {"Unsupport message type : 0x1"}},
      {"second message cut short", concat({kRuntimeOk, Bytes(kStartOk.begin(), kStartOk.begin() + 9)}),
       kAwaitRuntime, -1, 1, {"msg exceeds recv bytes(need 21, recv 9)"}},
      {"stray bytes after a message", concat({kRuntimeOk, hex("00 00 01")}), kAwaitRuntime, -1, 1,
       {"msg header exceeds recv bytes(need 7, recv 3)"}},
      {"reset response without its result TLV", qmi_message(0x02, 1, 0x00, {}), kAwaitReset, -1, 1,
       {"unpack_result_code : msg exceeds recv bytes(need 3, recv 0)"}},
      {"reset response refused by the modem", qmi_message(0x02, 1, 0x00, result_tlv(1, 3)), kAwaitReset, 0, 1, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    connection_status = 1;
    EXPECT_EQ(parse_msg(c.block.data(), &c.expect, static_cast<int>(c.block.size())), c.verdict);
    EXPECT_EQ(connection_status, c.status);
    const Strings logged = log_messages();
    for (const std::string& line : c.must_log) EXPECT_TRUE(contains(logged, line)) << line;
  }
}

TEST_F(Transport, UnsupportedControlFlagRecordKeepsItsEmptyLine) {
  const Bytes block = qmi_message(0x07, 3, 0x2D, {});
  EXPECT_EQ(parse_msg(block.data(), &kAwaitRuntime, static_cast<int>(block.size())), -1);
  const Strings lines = log_lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_NE(lines[2].find("] Unsupport ctrl type : 0x7"), std::string::npos) << lines[2];
  EXPECT_EQ(lines[3], "");
}

TEST_F(Transport, ReadMsgGoesOnAfterAMismatchAndDumpsEveryBlock) {
  TtyPair tty;
  tty.reply(kStopOk);
  tty.reply(concat({kRuntimeOk, kIndConnected}));
  EXPECT_EQ(read_msg(&kAwaitRuntime, 3), 0);
  EXPECT_EQ(connection_status, 2);
  const Strings messages = log_messages();
  EXPECT_TRUE(contains(messages, "read msg len : 14bytes"));
  EXPECT_TRUE(contains(messages, "Continue to read MATCH MSG(0x2d)"));
  EXPECT_TRUE(contains(messages, "read msg len : 26bytes"));
  const Strings lines = log_lines();
  EXPECT_TRUE(contains(lines, "message(0x2100) buf(14bytes)"));
  EXPECT_TRUE(contains(lines, "message(0x2d00) buf(26bytes)"));
}

TEST_F(Transport, ReadMsgEndsOnTheFirstBlockThatSettlesTheWait) {
  struct Case {
    const char* name;
    std::vector<Bytes> blocks;
    qmi_expect expect;
    int ret;
    size_t left_unread;
  };
  const Case cases[] = {
      {"indication alone fails a response wait", {kIndConnected, kRuntimeOk}, kAwaitRuntime, -1, 1},
      {"late status response answers the indication wait", {kStatusRsp}, kAwaitIndication, 0, 0},
      {"mismatch, then the indication", {kRuntimeOk, kIndConnected, kStopOk}, kAwaitIndication, 0, 1},
      {"awaited identifier without a parser", {qmi_message(0x02, 1, 0x01, {}), kRuntimeOk}, {0x02, 1, 0x01}, -1, 1},
      // The receive buffer is reused: bytes of an earlier, longer block must not
      // complete a later, shorter one.
      {"stale bytes of an earlier block", {kStopOk, qmi_message(0x02, 1, 0x00, {})}, kAwaitReset, -1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    TtyPair tty;
    for (const Bytes& block : c.blocks) tty.reply(block);
    EXPECT_EQ(read_msg(&c.expect, 3), c.ret);
    size_t unread = 0;
    for (uint8_t scratch[64]; recv(qmitty_fd, scratch, sizeof scratch, MSG_DONTWAIT) > 0;) ++unread;
    EXPECT_EQ(unread, c.left_unread);
  }
  EXPECT_EQ(g_connection_status_rsp, 2);
}

TEST_F(Transport, ReadMsgRefusesAMessageLongerThanTheRead) {
  TtyPair tty;
  const Bytes big = qmi_message(0x02, 1, 0x2D, concat({result_tlv(0, 0), Bytes(1093, 0x99)}));
  ASSERT_EQ(big.size(), 1107u);
  tty.reply(big);
  EXPECT_EQ(read_msg(&kAwaitRuntime, 3), -1);
  const Strings messages = log_messages();
  EXPECT_TRUE(contains(messages, "read msg len : 1000bytes"));
  EXPECT_TRUE(contains(messages, "msg exceeds recv bytes(need 1107, recv 1000)"));
}

TEST_F(Transport, EndOfFileMeansTheTtyIsGone) {
  TtyPair tty;
  tty.end_of_file();
  EXPECT_EQ(read_msg(&kAwaitRuntime, 3), 19);
  EXPECT_EQ(wait_srvc_status_ind(3), -1);
  EXPECT_TRUE(log_messages().empty());
}

TEST_F(Transport, OtherReadErrorsFail) {
  qmitty_fd = -1;
  EXPECT_EQ(read_msg(&kAwaitRuntime, 3), -1);
  const Strings expected = {"read msg : unknown error errno = 9 <Bad file descriptor> "};
  EXPECT_EQ(log_messages(), expected);
}

TEST_F(Transport, SilentTtyTimesOutAfterLimitPlusOneTicks) {
  TtyPair tty;
  {
    FastTimer timer;
    EXPECT_EQ(read_msg(&kAwaitRuntime, 3), -2);
    EXPECT_GE(g_wait_ticks, 4);
  }
  const Strings messages = log_messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "read msg timeout, msg_type = 45");
  EXPECT_GE(log_count("read msg : get signal, continue"), 1);
  {
    FastTimer timer;
    EXPECT_EQ(wait_srvc_status_ind(1), -2);
  }
  EXPECT_EQ(log_messages().back(), "read msg timeout, msg_type = 34");
}

// Ticks one at a time from a peer thread: a reply after exactly limit ticks
// is still taken, one more tick ends the wait first.
TEST_F(Transport, TheLimitIsTestedBeforeEveryRead) {
  for (uint8_t limit : {0, 1, 3}) {
    for (bool one_tick_more : {false, true}) {
      SCOPED_TRACE(std::to_string(limit) + (one_tick_more ? " + 1 ticks" : " ticks"));
      restart_log();
      TtyPair tty;
      TickHandler handler;
      const pthread_t waiter = pthread_self();
      std::atomic<bool> done{false};
      g_wait_ticks = kNotWaiting;
      std::thread peer = peer_thread([&] {
        await_wait_start();
        for (int i = 0; i < limit; ++i) tick_and_wait(waiter);
        if (!one_tick_more) {
          tty.reply(kRuntimeOk);
          return;
        }
        // A tick may land between the test and the read; later ones end that read.
        while (!done.load()) tick_and_wait(waiter);
      });
      const int ret = read_msg(&kAwaitRuntime, limit);
      done = true;
      peer.join();
      if (one_tick_more) {
        EXPECT_EQ(ret, -2);
        EXPECT_GT(g_wait_ticks, limit);
      } else {
        EXPECT_EQ(ret, 0);
        EXPECT_EQ(g_wait_ticks, limit);
      }
    }
  }
}

TEST_F(Transport, MismatchesDoNotRestartTheTickCount) {
  TtyPair tty;
  std::atomic<bool> done{false};
  int sent = 0;
  std::thread peer;
  {
    FastTimer timer(2000);
    peer = peer_thread([&] {
      // One stray response per tick: a wait that restarted its count on each
      // would take all of them.
      int seen = g_test_ticks.load();
      while (!done.load() && sent < 50) {
        tty.reply(kStopOk);
        ++sent;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!done.load() && g_test_ticks.load() == seen && std::chrono::steady_clock::now() < deadline) {
          std::this_thread::yield();
        }
        seen = g_test_ticks.load();
      }
    });
    EXPECT_EQ(read_msg(&kAwaitRuntime, 3), -2);
    done = true;
  }
  peer.join();
  const int continued = log_count("Continue to read MATCH MSG(0x2d)");
  EXPECT_GE(continued, 1);
  EXPECT_LE(continued, 6) << "of " << sent << " sent";
}

TEST_F(Transport, SendMsgWritesOneWholeMessageAndDumpsIt) {
  TtyPair tty;
  const Bytes msg = hex("00 01 05 00 2D 00 00");
  EXPECT_EQ(send_msg(msg.data(), static_cast<int>(msg.size())), 0);
  EXPECT_EQ(tty.take(), msg);
  EXPECT_FALSE(tty.pending());
  const Strings lines = log_lines();
  const Strings expected = {"message(0x2d00) buf(7bytes)", "0000: 00 01 05 00 2d 00 00 "};
  EXPECT_EQ(lines, expected);
}

TEST_F(Transport, SendMsgToAClosedTtyFails) {
  const Bytes msg = hex("00 01 05 00 2D 00 00");
  qmitty_fd = -1;
  EXPECT_EQ(send_msg(msg.data(), static_cast<int>(msg.size())), -1);
  const Strings expected = {"tty busy or tty down. errno = 9 <Bad file descriptor> "};
  EXPECT_EQ(log_messages(), expected);
  EXPECT_EQ(log_lines().front(), "message(0x2d00) buf(7bytes)");
}

TEST_F(Transport, SendMsgWritesAgainAfterEintr) {
  TtyPair tty;
  const Bytes filler = hex("FF");
  while (send(qmitty_fd, filler.data(), filler.size(), MSG_DONTWAIT) == 1) {
  }
  ASSERT_EQ(errno, EAGAIN);
  const Bytes msg = hex("00 01 05 00 2D 00 00");
  const std::string dump_header = "message(0x2d00) buf(7bytes)";
  Bytes last;
  std::thread drainer;
  int ret = 0;
  {
    FastTimer timer;
    drainer = peer_thread([&] {
      // A second dump of the message means a write was interrupted and retried.
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      for (;;) {
        const Strings lines = log_lines();
        if (std::count(lines.begin(), lines.end(), dump_header) >= 2) break;
        if (std::chrono::steady_clock::now() > deadline) break;
        std::this_thread::yield();
      }
      for (Bytes got = tty.take(); !got.empty(); got = tty.take()) {
        last = got;
        if (got == msg) break;
      }
    });
    ret = send_msg(msg.data(), static_cast<int>(msg.size()));
  }
  drainer.join();
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(last, msg);
  const Strings lines = log_lines();
  EXPECT_GE(std::count(lines.begin(), lines.end(), dump_header), 2);
  EXPECT_EQ(log_count("tty busy or tty down."), 0);
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
  std::thread drainer;
  int ret = 0;
  {
    FastTimer timer(2000);
    drainer = peer_thread([&] {
      // Part of the message queued and a tick after it: the write returned short.
      int queued = 0;
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      while ((ioctl(fds[1], FIONREAD, &queued) != 0 || queued == 0) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
      }
      const int ticks = g_test_ticks.load();
      while (g_test_ticks.load() < ticks + 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
      uint8_t chunk[4096];
      for (ssize_t n; (n = read(fds[1], chunk, sizeof chunk)) != 0;) {
        if (n > 0) stream.insert(stream.end(), chunk, chunk + n);
      }
    });
    ret = send_msg(msg.data(), static_cast<int>(msg.size()));
  }
  shutdown(fds[0], SHUT_WR);
  drainer.join();
  close(fds[0]);
  close(fds[1]);
  qmitty_fd = -1;

  EXPECT_EQ(ret, 0);
  std::vector<Bytes> segments;
  for (uint8_t b : stream) {
    if (b == 0) segments.emplace_back();
    ASSERT_FALSE(segments.empty());
    segments.back().push_back(b);
  }
  ASSERT_GE(segments.size(), 2u) << "no short write happened";
  for (const Bytes& segment : segments) {
    ASSERT_LE(segment.size(), msg.size());
    EXPECT_TRUE(std::equal(segment.begin(), segment.end(), msg.begin()));
  }
  EXPECT_EQ(segments.back().size(), msg.size());
}

TEST_F(Transport, ClientIdQueryReportsWhyItFailed) {
  StdoutCapture closed;
  qmitty_fd = -1;
  const int closed_ret = get_wds_client_id();
  EXPECT_EQ(closed.finish(), "\n===>get_wds_client_id : valid description -1");
  EXPECT_EQ(closed_ret, -1);

  TtyPair tty;
  StdoutCapture not_tty;
  const int not_tty_ret = get_wds_client_id();
  EXPECT_EQ(not_tty.finish(), "\n===>get_wds_client_id : tty doesn't exist " + std::to_string(qmitty_fd));
  EXPECT_EQ(not_tty_ret, -1);
}

}  // namespace
