// The six requests over a socket pair standing in for the tty: the bytes
// they write, how each reduces its wait, and what they leave in the
// connection state.
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "log/log.h"
#include "qmi/qmi.h"
#include "qmi_test_support.h"

namespace {

using Requests = QmiTest;
using Strings = std::vector<std::string>;

const Bytes kHandleTlv = hex("01 00 04 12 34 56 78");

Bytes start_rsp(uint16_t tx_id, const Bytes& result, const Bytes& handle) {
  return qmi_message(0x02, tx_id, 0x20, concat({result, handle}));
}

void set_profile(const char* user, const char* pass, const char* apn, const char* ip, uint32_t auth) {
  snprintf(wan_profile.username, sizeof wan_profile.username, "%s", user);
  snprintf(wan_profile.password, sizeof wan_profile.password, "%s", pass);
  snprintf(wan_profile.apn, sizeof wan_profile.apn, "%s", apn);
  snprintf(wan_profile.ip, sizeof wan_profile.ip, "%s", ip);
  wan_profile.auth = auth;
}

TEST_F(Requests, RequestsAreByteExact) {
  struct Case {
    const char* name;
    uint16_t previous_tx;
    std::function<int()> request;
    Bytes reply;
    const char* written;
  };
  const Case cases[] = {
      {"runtime settings", 0x0104, wds_get_runtime_settings, qmi_message(0x02, 0x0105, 0x2D, result_tlv(0, 0)),
       "00 01 05 00 2D 00 00"},
      {"packet service status", 0, wds_get_srv_state,
       qmi_message(0x02, 1, 0x22, concat({result_tlv(0, 0), hex("01 00 01 02")})), "00 00 01 00 22 00 00"},
      {"reset after identifier 65535", 65535, wds_reset_service, qmi_message(0x02, 1, 0x00, result_tlv(0, 0)),
       "00 00 01 00 00 00 00"},
      {"abort of transaction 1", 3, [] { return wds_abort(1); }, qmi_message(0x02, 4, 0x02, result_tlv(0, 0)),
       "00 00 04 00 02 00 05 01 00 02 00 01"},
      {"abort of transaction 0xBEEF", 0x00FF, [] { return wds_abort(0xBEEF); },
       qmi_message(0x02, 0x100, 0x02, result_tlv(0, 0)), "00 01 00 00 02 00 05 01 00 02 BE EF"},
      {"stop", 2, wds_stop_network, qmi_message(0x02, 3, 0x21, result_tlv(0, 0)),
       "00 00 03 00 21 00 07 01 00 04 12 34 56 78"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    TtyPair tty;
    g_tx_id = c.previous_tx;
    conn_handle = 0x12345678;
    tty.reply(c.reply);
    EXPECT_EQ(c.request(), 0);
    EXPECT_EQ(to_hex(tty.take()), to_hex(hex(c.written)));
    EXPECT_FALSE(tty.pending());
  }
  EXPECT_EQ(g_connection_status_rsp, 2);
  EXPECT_EQ(conn_handle, 0u);   // cleared by the stop
}

TEST_F(Requests, StartNetworkBuildsItsTlvsFromTheProfile) {
  const std::string apn64(64, 'x');
  struct Case {
    const char* name;
    const char *user, *pass, *apn, *ip;
    uint32_t auth;
    Bytes written;
  };
  const Case cases[] = {
      {"design example", "user1", "", "internet", "192.168.8.100", 2,
       hex("00 00 01 00 20 00 22  30 00 01 01  16 00 01 02  17 00 05 75 73 65 72 31"
           "14 00 08 69 6E 74 65 72 6E 65 74  15 00 04 C0 A8 08 64")},
      {"empty strings left out, auth low byte", "", "", "", "", 0x102,
       hex("00 00 01 00 20 00 08  30 00 01 01  16 00 01 02")},
      {"password only", "", "pw", "", "", 1, hex("00 00 01 00 20 00 0D  30 00 01 01  16 00 01 01  18 00 02 70 77")},
      {"64-character APN", "", "", apn64.c_str(), "", 0,
       concat({hex("00 00 01 00 20 00 4B  30 00 01 01  16 00 01 00  14 00 40"), Bytes(apn64.begin(), apn64.end())})},
      {"short address form", "", "", "", "10.1", 0,
       hex("00 00 01 00 20 00 0F  30 00 01 01  16 00 01 00  15 00 04 0A 00 00 01")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    reset_qmi_state();
    TtyPair tty;
    set_profile(c.user, c.pass, c.apn, c.ip, c.auth);
    tty.reply(start_rsp(1, result_tlv(0, 0), kHandleTlv));
    EXPECT_EQ(wds_start_network(), 0);
    EXPECT_EQ(to_hex(tty.take()), to_hex(c.written));
    EXPECT_FALSE(tty.pending());
    EXPECT_EQ(conn_handle, 0x12345678u);
    EXPECT_EQ(g_connect_ticks, 0u);
    // Dumped by the request and again by the transport.
    const Strings lines = log_lines();
    const std::string dump = "message(0x2000) buf(" + std::to_string(c.written.size()) + "bytes)";
    EXPECT_EQ(std::count(lines.begin(), lines.end(), dump), 2);
  }
}

TEST_F(Requests, StartNetworkRefusesAnAddressThatGivesZeroBeforeWriting) {
  for (const char* ip : {"0.0.0.0", "bogus", "256.1.1.1", "0"}) {
    SCOPED_TRACE(ip);
    restart_log();
    TtyPair tty;
    g_tx_id = 0;
    set_profile("user1", "", "internet", ip, 2);
    EXPECT_EQ(wds_start_network(), -1);
    EXPECT_FALSE(tty.pending());
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(g_tx_id, 1);
  }
}

TEST_F(Requests, StartNetworkOutcomes) {
  struct Case {
    const char* name;
    std::vector<Bytes> replies;
    bool end_of_file;
    int ret;
    uint32_t handle;
    const char* logged;
  };
  const Case cases[] = {
      {"zero handle", {start_rsp(1, result_tlv(0, 0), hex("01 00 04 00 00 00 00"))}, false, -1, 0,
       "parse_connect_rsp : conn_handle is NULL"},
      {"refused", {start_rsp(1, result_tlv(1, 14), kHandleTlv)}, false, -1, 0xAABBCCDD,
       "g_qmi_error = 14, dscp : Call failed."},
      {"other transaction identifier", {start_rsp(0x7777, result_tlv(0, 0), kHandleTlv)}, false, 0, 0x12345678,
       nullptr},
      {"status indication first", {qmi_message(0x04, 0, 0x22, hex("01 00 02 04 00")),
                                   start_rsp(1, result_tlv(0, 0), kHandleTlv)},
       false, -1, 0xAABBCCDD, "parse_srvc_status_ind successful"},
      {"tty gone", {}, true, -1, 0xAABBCCDD, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    reset_qmi_state();
    TtyPair tty;
    conn_handle = 0xAABBCCDD;
    for (const Bytes& reply : c.replies) tty.reply(reply);
    if (c.end_of_file) tty.end_of_file();
    EXPECT_EQ(wds_start_network(), c.ret);
    EXPECT_EQ(conn_handle, c.handle);
    if (c.logged != nullptr) {
      EXPECT_EQ(log_count(c.logged), 1);
    }
  }
  qmitty_fd = -1;
  EXPECT_EQ(wds_start_network(), -1);
}

// The modem takes the start request and stays silent; after the time-out the
// request is aborted under its own identifier.
TEST_F(Requests, StartNetworkTimeOutAbortsTheRequest) {
  for (bool abort_answered : {true, false}) {
    SCOPED_TRACE(abort_answered ? "abort answered" : "abort unanswered");
    restart_log();
    reset_qmi_state();
    TtyPair tty;
    g_tx_id = 6;
    conn_handle = 0xAABBCCDD;
    set_profile("", "", "", "", 0);
    Bytes start, abort;
    int ret = 0;
    std::thread modem;
    {
      FastTimer timer;
      modem = peer_thread([&] {
        start = tty.take();
        abort = tty.take();
        if (abort_answered) tty.reply(qmi_message(0x02, 8, 0x02, result_tlv(0, 0)));
      });
      ret = wds_start_network();
    }
    modem.join();
    EXPECT_EQ(ret, abort_answered ? -2 : -1);
    EXPECT_EQ(conn_handle, 0xAABBCCDDu);
    EXPECT_EQ(to_hex(start), to_hex(hex("00 00 07 00 20 00 08 30 00 01 01 16 00 01 00")));
    EXPECT_EQ(to_hex(abort), to_hex(hex("00 00 08 00 02 00 05 01 00 02 00 07")));
    EXPECT_EQ(log_count("read msg timeout, msg_type = 32"), 1);
    EXPECT_EQ(log_count("read msg timeout, msg_type = 2"), abort_answered ? 0 : 1);
  }
}

TEST_F(Requests, StartNetworkKeepsTheTicksItWaited) {
  TtyPair tty;
  TickHandler handler;
  const pthread_t waiter = pthread_self();
  g_wait_ticks = kNotWaiting;
  std::thread modem = peer_thread([&] {
    await_wait_start();
    for (int i = 0; i < 5; ++i) tick_and_wait(waiter);
    tty.reply(start_rsp(1, result_tlv(0, 0), kHandleTlv));
  });
  EXPECT_EQ(wds_start_network(), 0);
  modem.join();
  EXPECT_EQ(g_connect_ticks, 5u);
}

TEST_F(Requests, ResetServicePrintsItsFailures) {
  struct Case {
    const char* name;
    bool closed, end_of_file, silent;
    Bytes reply;
    int ret;
    const char* printed;
  };
  const Case cases[] = {
      {"refused by the modem: result not examined", false, false, false,
       qmi_message(0x02, 1, 0x00, result_tlv(1, 3)), 0, ""},
      {"write fails", true, false, false, {}, -1, "\n===>wds_reset_service : send msg failed"},
      {"time-out", false, false, true, {}, -2, "\n===>wds_reset_service : read msg timeout"},
      {"tty gone", false, true, false, {}, -1, "\n===>wds_reset_service : read msg failed"},
      {"malformed result TLV", false, false, false, qmi_message(0x02, 1, 0x00, hex("02 00 02 00 00")), -1,
       "\n===>wds_reset_service : read msg failed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    TtyPair tty;
    if (c.closed) {
      close(qmitty_fd);
      qmitty_fd = -1;
    }
    if (!c.reply.empty()) tty.reply(c.reply);
    if (c.end_of_file) tty.end_of_file();
    StdoutCapture out;
    int ret = 0;
    if (c.silent) {
      FastTimer timer;
      ret = wds_reset_service();
    } else {
      ret = wds_reset_service();
    }
    EXPECT_EQ(out.finish(), c.printed);
    EXPECT_EQ(ret, c.ret);
  }
}

TEST_F(Requests, StopClearsTheHandleOnlyWhenAnswered) {
  TtyPair tty;
  conn_handle = 0x01020304;
  {
    FastTimer timer;
    EXPECT_EQ(wds_stop_network(), -2);
  }
  EXPECT_EQ(conn_handle, 0x01020304u);
  EXPECT_EQ(to_hex(tty.take()), to_hex(hex("00 00 01 00 21 00 07 01 00 04 01 02 03 04")));

  tty.reply(qmi_message(0x02, 2, 0x21, hex("02 00 05 00 00 00 00 00")));
  EXPECT_EQ(wds_stop_network(), -1);
  EXPECT_EQ(conn_handle, 0x01020304u);
  EXPECT_EQ(to_hex(tty.take()), to_hex(hex("00 00 02 00 21 00 07 01 00 04 01 02 03 04")));

  // A stop the modem refuses still completes.
  tty.reply(qmi_message(0x02, 3, 0x21, result_tlv(1, 9)));
  EXPECT_EQ(wds_stop_network(), 0);
  EXPECT_EQ(conn_handle, 0u);
  EXPECT_EQ(to_hex(tty.take()), to_hex(hex("00 00 03 00 21 00 07 01 00 04 01 02 03 04")));
}

TEST_F(Requests, RuntimeSettingsOutcomes) {
  TtyPair tty;
  connection_status = 2;
  tty.reply(qmi_message(0x02, 1, 0x2D, concat({result_tlv(0, 0), hex("1E 00 04 0A 40 00 02")})));
  EXPECT_EQ(wds_get_runtime_settings(), 0);
  const uint8_t* address = reinterpret_cast<const uint8_t*>(&link_settings.ipv4_addr);
  EXPECT_EQ(Bytes(address, address + 4), hex("0A 40 00 02"));

  tty.reply(qmi_message(0x02, 2, 0x2D, result_tlv(1, 15)));
  EXPECT_EQ(wds_get_runtime_settings(), -1);
  EXPECT_EQ(connection_status, 1);
  EXPECT_EQ(Bytes(address, address + 4), hex("0A 40 00 02"));

  tty.end_of_file();
  EXPECT_EQ(wds_get_srv_state(), -1);
  EXPECT_EQ(g_connection_status_rsp, 1);
}

}  // namespace
