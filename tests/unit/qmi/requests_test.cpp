// The six requests over a socket pair standing in for the tty: the bytes
// they write, how each reduces its wait, and what they leave in the
// connection state.
#include <sys/ioctl.h>

#include <functional>

#include "qmi_test_support.h"

namespace {

using Requests = QmiTest;

const char kResultOk[] = "02 0004 0000 0000";

Bytes rsp(uint16_t msg_type, uint16_t tx_id, const char* tlvs = kResultOk) {
  return qmi_message(0x02, tx_id, msg_type, tlvs);
}

// wds_start_network with this dial profile.
std::function<int()> start_with(const char* user, const char* pass, const char* apn, const char* ip, uint32_t auth) {
  return [=] {
    snprintf(wan_profile.username, sizeof wan_profile.username, "%s", user);
    snprintf(wan_profile.password, sizeof wan_profile.password, "%s", pass);
    snprintf(wan_profile.apn, sizeof wan_profile.apn, "%s", apn);
    snprintf(wan_profile.ip, sizeof wan_profile.ip, "%s", ip);
    wan_profile.auth = auth;
    return wds_start_network();
  };
}

// The bytes each request writes after the given last identifier, and how
// often they are dumped: a start-network request is dumped by the request and
// again by the transport. An address that converts to 0.0.0.0 is refused
// before anything is written.
TEST_F(Requests, RequestsAreByteExact) {
  const std::string apn64(64, 'w'), apn64_hex(128, '7');   // 'w' is 0x77
  constexpr uint32_t H = 0x12345678, F = 0xCAFEF00D;   // handle before; handle a start takes
  const Bytes started = rsp(0x20, 1, "02 0004 0000 0000 01 0004 CAFEF00D");
  struct Case { const char* name; uint16_t previous_tx; std::function<int()> request; Bytes reply; int ret;
                std::string written; uint32_t handle; int dumps; };
  const Case cases[] = {
      {"runtime settings", 0x0104, wds_get_runtime_settings, rsp(0x2D, 0x0105), 0, "00 0105 002D 0000", H, 1},
      {"packet service status", 0, wds_get_srv_state, rsp(0x22, 1, "02 0004 0000 0000 01 0001 02"), 0,
       "00 0001 0022 0000", H, 1},
      {"reset after identifier 65535", 65535, wds_reset_service, rsp(0x00, 1), 0, "00 0001 0000 0000", H, 1},
      {"abort of transaction 1", 3, [] { return wds_abort(1); }, rsp(0x02, 4), 0, "00 0004 0002 0005 01 0002 0001", H,
       1},
      {"abort of transaction 0xBEEF", 0x00FF, [] { return wds_abort(0xBEEF); }, rsp(0x02, 0x100), 0,
       "00 0100 0002 0005 01 0002 BEEF", H, 1},
      {"stop", 2, wds_stop_network, rsp(0x21, 3), 0, "00 0003 0021 0007 01 0004 12345678", 0, 1},
      {"start: user, APN and address", 0, start_with("user1", "", "internet", "192.168.8.100", 2), started, 0,
       "00 0001 0020 0022  30 0001 01  16 0001 02  17 0005 7573657231  14 0008 696E7465726E6574  15 0004 C0A80864",
       F, 2},
      {"start: empty strings left out, auth low byte", 0, start_with("", "", "", "", 0x102), started, 0,
       "00 0001 0020 0008  30 0001 01  16 0001 02", F, 2},
      {"start: password only", 0, start_with("", "pw", "", "", 1), started, 0,
       "00 0001 0020 000D  30 0001 01  16 0001 01  18 0002 7077", F, 2},
      {"start: 64-character APN", 0, start_with("", "", apn64.c_str(), "", 0), started, 0,
       "00 0001 0020 004B  30 0001 01  16 0001 00  14 0040" + apn64_hex, F, 2},
      {"start: short address form", 0, start_with("", "", "", "10.1", 0), started, 0,
       "00 0001 0020 000F  30 0001 01  16 0001 00  15 0004 0A000001", F, 2},
      {"start: address 0.0.0.0", 0, start_with("user1", "", "internet", "0.0.0.0", 2), {}, -1, "", H, 0},
      {"start: address bogus", 0, start_with("user1", "", "internet", "bogus", 2), {}, -1, "", H, 0},
      {"start: address 256.1.1.1", 0, start_with("user1", "", "internet", "256.1.1.1", 2), {}, -1, "", H, 0},
      {"start: address 0", 0, start_with("user1", "", "internet", "0", 2), {}, -1, "", H, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    TtyPair tty;
    g_tx_id = c.previous_tx;
    conn_handle = H;
    if (!c.reply.empty()) tty.reply(c.reply);
    EXPECT_EQ(c.request(), c.ret);
    const Bytes written = tty.take(0);
    EXPECT_EQ(to_hex(written), to_hex(hex(c.written)));
    EXPECT_TRUE(tty.take(0).empty());
    EXPECT_EQ(conn_handle, c.handle);
    if (written.empty()) {
      EXPECT_TRUE(log_lines().empty());
      continue;
    }
    // The first dump row of what was written: 16 bytes to a row, a gap after 8.
    std::string row = "0000: ";
    for (size_t i = 0; i < std::min<size_t>(16, written.size()); ++i) {
      row += (i == 8 ? "   " : "") + to_hex({written[i]});
    }
    EXPECT_EQ(log_count(row), c.dumps);
  }
  EXPECT_EQ(g_connection_status_rsp, 2);   // from the status response
}

// The start request waits up to 120 ticks and keeps the count it waited; one
// tick more and it is aborted under its own identifier.
TEST_F(Requests, StartNetworkWaitsItsLimitThenAborts) {
  enum Modem { kAnswersAfter5Ticks, kAnswersTheAbort, kSilent };
  const int kResults[] = {0, -2, -1};
  for (Modem modem : {kAnswersAfter5Ticks, kAnswersTheAbort, kSilent}) {
    SCOPED_TRACE(modem);
    restart_log();
    TtyPair tty;
    g_tx_id = 6;
    g_connect_ticks = 0;
    conn_handle = 0xAABBCCDD;
    Bytes start, abort;
    int ticks = 0;
    const int ret = wait_with_ticks(wds_start_network, [&](auto tick) {
      start = tty.take();
      if (modem == kAnswersAfter5Ticks) {
        while (++ticks <= 5) tick();
        tty.reply(rsp(0x20, 7, "02 0004 0000 0000 01 0004 12345678"));
        return false;
      }
      // A stray response after each tick: once it has been read, an abort
      // written by then was written for this tick.
      while (abort.empty() && ++ticks < 200) {
        tick();
        tty.reply(rsp(0x21, 1));
        wait_until([] { int queued = 1; return ioctl(qmitty_fd, FIONREAD, &queued) == 0 && queued == 0; }, "unread");
        abort = tty.take(0);
      }
      if (modem == kAnswersTheAbort) tty.reply(rsp(0x02, 8));
      return modem == kSilent;   // ticks until the abort's own wait is over
    });
    EXPECT_EQ(ret, kResults[modem]);
    EXPECT_EQ(ticks, modem == kAnswersAfter5Ticks ? 6 : 121);
    EXPECT_EQ(conn_handle, modem == kAnswersAfter5Ticks ? 0x12345678u : 0xAABBCCDDu);
    EXPECT_EQ(g_connect_ticks, modem == kAnswersAfter5Ticks ? 5u : 0u);
    EXPECT_EQ(to_hex(start), to_hex(hex("00 0007 0020 0008 30 0001 01 16 0001 00")));
    EXPECT_EQ(to_hex(abort), to_hex(modem == kAnswersAfter5Ticks ? Bytes{} : hex("00 0008 0002 0005 01 0002 0007")));
    EXPECT_EQ(log_count("read msg timeout, msg_type = 32"), modem == kAnswersAfter5Ticks ? 0 : 1);
    EXPECT_EQ(log_count("read msg timeout, msg_type = 2"), modem == kSilent ? 1 : 0);
  }
}

// How each request reduces its wait, what it prints and what it leaves in conn_handle.
TEST_F(Requests, Outcomes) {
  enum Tty { kAnswers, kSilent, kGone, kClosed };
  const auto reset = wds_reset_service, start = wds_start_network, stop = wds_stop_network;
  const std::string printed = "\n===>wds_reset_service : ";
  constexpr uint32_t H = 0xAABBCCDD;
  struct Case { const char* name; int (*request)(); Tty tty; Bytes reply; int ret; uint32_t handle;
                std::string printed; };
  const Case cases[] = {
      {"reset refused by the modem: result not examined", reset, kAnswers, rsp(0x00, 1, "02 0004 0001 0003"), 0, H, ""},
      {"reset write fails", reset, kClosed, {}, -1, H, printed + "send msg failed"},
      {"reset time-out", reset, kSilent, {}, -2, H, printed + "read msg timeout"},
      {"reset tty gone", reset, kGone, {}, -1, H, printed + "read msg failed"},
      {"reset malformed result TLV", reset, kAnswers, rsp(0x00, 1, "02 0002 0000"), -1, H, printed + "read msg failed"},
      {"start: write fails", start, kClosed, {}, -1, H, ""},
      // A stop that timed out or failed keeps the handle for the next stop; one the modem refuses completes.
      {"stop time-out", stop, kSilent, {}, -2, H, ""},
      {"stop malformed result TLV", stop, kAnswers, rsp(0x21, 1, "02 0005 0000 0000 00"), -1, H, ""},
      {"stop refused by the modem", stop, kAnswers, rsp(0x21, 1, "02 0004 0001 0009"), 0, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TtyPair tty;
    conn_handle = H;
    if (!c.reply.empty()) tty.reply(c.reply);
    if (c.tty == kGone) tty.end_of_file();
    if (c.tty == kClosed) tty.close_daemon_end();
    Ticker ticker(c.tty == kSilent ? 1000 : 0);
    int ret = 0;
    EXPECT_EQ(printed_by(c.request, &ret), c.printed);
    EXPECT_EQ(ret, c.ret);
    EXPECT_EQ(conn_handle, c.handle);
  }
}

}  // namespace
