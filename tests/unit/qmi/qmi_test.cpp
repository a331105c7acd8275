// SPDX-License-Identifier: ISC
// The QMI client on vector files: the parsers on bytes, the waits on blocks
// the modem sends, the requests against a scripted modem.
#include "log/internal.h"
#include "qmi/internal.h"
#include "tests/unit/support/unit.h"

namespace {

int g_ret, g_unread, g_ticks, g_dumps;

void tick() { g_wait_ticks = static_cast<uint8_t>(g_wait_ticks + 1); }

const Vars kVars = {
    NUM_VAR("ret", g_ret),          NUM_VAR("unread", g_unread),        NUM_VAR("ticks", g_ticks),
    NUM_VAR("dumps", g_dumps),      NUM_VAR("tx", g_tx_id),             NUM_VAR("result", g_qmi_result),
    NUM_VAR("error", g_qmi_error),  NUM_VAR("handle", conn_handle),     NUM_VAR("rsp", g_connection_status_rsp),
    NUM_VAR("status", connection_status), NUM_VAR("reconf", reconfiguration_flag),
    NUM_VAR("wait_ticks", g_wait_ticks), NUM_VAR("connect_ticks", g_connect_ticks),
    ADDR_VAR("ip", link_settings.ipv4_addr),     ADDR_VAR("mask", link_settings.subnet_mask),
    ADDR_VAR("gw", link_settings.gateway),       ADDR_VAR("dns1", link_settings.primary_dns),
    ADDR_VAR("dns2", link_settings.secondary_dns), NUM_VAR("auth_pref", link_settings.auth_pref),
    TEXT_VAR("username", link_settings.username), TEXT_VAR("user", wan_profile.username),
    TEXT_VAR("pass", wan_profile.password),      TEXT_VAR("apn", wan_profile.apn),
    TEXT_VAR("setip", wan_profile.ip),           NUM_VAR("auth", wan_profile.auth),
};

// The client as the process starts, a fresh log, and these values.
void fresh(const std::string& values) {
  qmi_codec_reset();
  qmi_transport_reset();
  wds_client_reset();
  wan_reset();
  log_reset();
  reset_var("rmnet0");
  ASSERT_GE(log_open(), 0);
  set_vars(kVars, values);
}

// The first dump row of a message: 16 bytes to a row, a gap after 8.
std::string dump_row(const std::string& msg) {
  std::string row = "0000:";
  char cell[8];
  for (size_t i = 0; i < std::min<size_t>(16, msg.size()); ++i) {
    snprintf(cell, sizeof cell, "%s %02x", i == 8 ? "   " : "", static_cast<uint8_t>(msg[i]));
    row += cell;
  }
  return row;
}

// A parser on exactly the bytes received.
VECTOR_TESTS("Qmi", "qmi/parsers.vec", [](const Row& row) {
  const std::map<std::string, int (*)(const uint8_t*, uint32_t)> parsers = {
      {"result", unpack_result_code}, {"connect", parse_connect_rsp},   {"status", parse_status_rsp},
      {"indication", parse_srvc_status_ind}, {"runtime", parse_runtime_rsp}};
  fresh("handle=0x55555555 rsp=1 result=0 error=9 status=2");
  memset(&link_settings, 0xA5, sizeof link_settings);
  const std::string name = row["parser"].substr(0, row["parser"].find(' '));
  const std::string text = hex(row["parser"].substr(name.size()));
  const std::vector<uint8_t> bytes(text.begin(), text.end());  // exactly what arrived
  g_ret = parsers.at(name)(bytes.data(), static_cast<uint32_t>(bytes.size()));
  check_vars(kVars, row["after"]);
  EXPECT_EQ(log_texts(), row.from("log"));
});

// A request, or a wait, against the scripted modem.
void run_request(const Row& row) {
  std::map<std::string, std::function<int()>> calls = {
      {"reset", wds_reset_service},   {"start", wds_start_network},          {"stop", wds_stop_network},
      {"status", wds_get_srv_state},  {"runtime", wds_get_runtime_settings}, {"abort 0001", [] { return wds_abort(1); }},
      {"abort BEEF", [] { return wds_abort(0xBEEF); }}, {"indication", [] { return wait_srvc_status_ind(3); }}};
  for (const uint16_t id : {kWdsReset, kWdsAbort, kWdsStartNetwork, kWdsStopNetwork, kWdsPktSrvcStatus,
                            kWdsRuntimeSettings, uint16_t{1}}) {
    char name[16];
    snprintf(name, sizeof name, "response %04X", id);
    calls[name] = [id] { const qmi_expect expect = {kQmiCtlResponse, 1, id}; return read_msg(&expect, 3); };
  }
  fresh(row["before"]);
  Modem modem(&qmitty_fd, tick);
  const bool closed = row["answers"] == "closed";
  if (closed) modem.close_daemon_end();
  testing::internal::CaptureStdout();
  g_ret = modem.run(calls.at(row["request"]), Modem::script(closed ? "" : row["answers"], hex));
  const std::string printed = testing::internal::GetCapturedStdout();
  g_ticks = modem.ticks;
  g_unread = modem.unread();
  const Strings texts = log_texts();
  g_dumps = modem.written.empty() ? 0 : std::count(texts.begin(), texts.end(), dump_row(modem.written[0]));
  check_vars(kVars, row["after"]);
  Strings written;
  for (const std::string& msg : split(row["written"], " / ")) written.push_back(hex(msg));
  EXPECT_EQ(modem.written, written);
  EXPECT_EQ(printed, unescape(row["stdout"]));
  expect_logged(row.from("log"));
}
VECTOR_TESTS("Qmi", "qmi/waits.vec", run_request);
VECTOR_TESTS("Qmi", "qmi/requests.vec", run_request);

// The readers refuse a missing message or cursor: 0, logged; the sender a
// missing message or a negative length.
TEST(Qmi, ReadersRefuseNullPointers) {
  fresh("");
  const uint8_t bytes[4] = {1, 2, 3, 4};
  uint32_t cursor = 0;
  EXPECT_EQ(get_byte(nullptr, &cursor) + get_word(nullptr, &cursor) + get_double_word(bytes, nullptr), 0u);
  EXPECT_EQ(get_word(bytes, &cursor), 0x0102);
  const uint8_t words[7] = {0xDE, 0xAD, 0xBE, 0xEF, 0x12, 0x34, 0x56};
  cursor = 0;
  EXPECT_EQ(get_double_word(words, &cursor), 0xDEADBEEFu);
  EXPECT_EQ(get_byte(words, &cursor), 0x12);  // each reader moves the cursor past what it read
  EXPECT_EQ(get_word(words, &cursor), 0x3456);
  EXPECT_EQ(cursor, 7u);
  EXPECT_EQ(log_texts(), (Strings{"get_byte: param error. errno", "get_word: param error. errno",
                                  "get_double_word: param error. errno"}));
  EXPECT_EQ(send_msg(nullptr, 7), -1);
  EXPECT_EQ(send_msg(bytes, -1), -1);
}

// A write a tick interrupts is made again, dumped again.
TEST(Qmi, AnInterruptedWriteIsMadeAgain) {
  fresh("");
  Modem modem(&qmitty_fd, tick);
  while (send(qmitty_fd, "x", 1, MSG_DONTWAIT) == 1) {
  }
  const std::string msg = hex("00 0105 002D 0000");
  EXPECT_EQ(modem.run([&] { return send_msg(reinterpret_cast<const uint8_t*>(msg.data()), 7); }, {{"tick"}}), 0);
  EXPECT_EQ(modem.written.back(), msg);
  const Strings texts = log_texts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "message(0x2d00) buf(7bytes)"), 2);
}

}  // namespace
