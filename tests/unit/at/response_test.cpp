// Sorting the modem's output into reply lines, final results and reports.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "at_modem.h"
#include "private_var.h"

namespace {

std::string repeat(char c, size_t n) { return std::string(n, c); }

struct ReplyCase {
  const char* name;
  const char* prefix;
  std::string modem;
  int ret;
  uint32_t result;
  std::string response;
  bool split_anywhere;  // the outcome must not depend on how reads split the bytes
};

const std::vector<ReplyCase>& reply_cases() {
  static const std::vector<ReplyCase> cases = {
      {"query with empty lines", "^DHCP", "\r\n^DHCP: 1,2\r\n\r\nOK\r\n", 0, 2, "^DHCP: 1,2", true},
      {"prefix line with OK and ERROR stays a reply", "^NDISDUP", "\r\n^NDISDUP: OK ERROR\r\n\r\nOK\r\n", 0, 2,
       "^NDISDUP: OK ERROR", true},
      {"reply lines are joined without separator", "^DHCP", "\r\n^DHCP: a\r\n^DHCP: b\r\nOK\r\n", 0, 2,
       "^DHCP: a^DHCP: b", true},
      {"CME error text is kept", "", "\r\n+CME ERROR: 30\r\n", -1, 3, "+CME ERROR: 30", true},
      {"CMS error text is kept", "", "\r\n+CMS ERROR: 500\r\n", -1, 4, "+CMS ERROR: 500", true},
      {"ERROR keeps earlier lines only", "^DHCP", "\r\nsome text\r\nERROR\r\n", -1, 5, "some text", true},
      {"NO CARRIER", "", "\r\nNO CARRIER\r\n", -1, 6, "", true},
      {"NO ANSWER", "", "\r\nNO ANSWER\r\n", -1, 7, "", true},
      {"COMMAND NOT SUPPORT", "", "\r\nCOMMAND NOT SUPPORT\r\n", -1, 8, "", true},
      {"TOO MANY PARAMETERS", "", "\r\nTOO MANY PARAMETERS\r\n", -1, 9, "", true},
      {"line with > is dropped", "", "\r\n> \r\nx>y\r\nhello\r\nOK\r\n", 0, 2, "hello", true},
      {"information lines starting + or ^ are dropped", "^DHCP", "\r\n+CSQ: 20,99\r\n^RSSI: 5\r\n^FOO\r\nOK\r\n", 0,
       2, "", true},
      {"RING, CONNECT and known reports are dropped", "",
       "\r\nRING\r\n\r\nCONNECT 9600\r\n+CMTI: \"SM\",1\r\n^NDISSTAT: 0,,,\"IPV4\"\r\n^BOOT:1\r\nOK\r\n", 0, 2, "",
       true},
      {"OK inside a word ends the reply", "^DHCP", "\r\nfoo\r\nBOOKED\r\n", 0, 2, "foo", true},
      {"LF without CR stays in the line", "", "ab\ncd\r\nOK\r\n", 0, 2, "ab\ncd", true},
      {"empty prefix keeps only unsorted lines", "", "\r\n^DHCP: 1\r\nplain\r\nOK\r\n", 0, 2, "plain", true},
      {"message header ends with CR LF, text lines do not", "+CMGR",
       "\r\n+CMGR: \"REC READ\",\"123\"\r\nhello there\r\nsecond\r\n\r\nOK\r\n", 0, 2,
       "+CMGR: \"REC READ\",\"123\"\r\nhello theresecond", true},
      {"CR CR LF does not end a line", "", "ab\r\r\ncd\r\nOK\r\n", 0, 2, "ab\r\ncd", false},
      {"line cut at 2047 characters", "", "\r\n" + repeat('a', 3000) + "\r\nOK\r\n", 0, 2, repeat('a', 2047), false},
      {"response cut at 2048 characters", "X",
       "\r\nX" + repeat('b', 999) + "\r\nX" + repeat('c', 999) + "\r\nX" + repeat('d', 999) + "\r\nOK\r\n", 0, 2,
       ("X" + repeat('b', 999) + "X" + repeat('c', 999) + "X" + repeat('d', 999)).substr(0, 2048), false},
  };
  return cases;
}

std::vector<std::string> split_at(const std::string& s, std::initializer_list<size_t> cuts) {
  std::vector<std::string> parts;
  size_t from = 0;
  for (size_t cut : cuts) {
    parts.push_back(s.substr(from, cut - from));
    from = cut;
  }
  parts.push_back(s.substr(from));
  return parts;
}

void expect_outcome(const ReplyCase& c, const std::vector<std::string>& chunks) {
  fresh_channel();
  SeqModem modem;
  modem.feed(chunks);
  // The tick keeps interrupting the reads, and ends the wait should the
  // assembler lose the final result.
  TickDriver tick(1000, -1, 0, "", 20000);
  const AtOutcome out = send_command("AT", c.prefix);
  EXPECT_EQ(out.ret, c.ret);
  EXPECT_EQ(out.err, 0);
  EXPECT_EQ(out.result, c.result);
  EXPECT_EQ(out.response, c.response);
  EXPECT_EQ(ring_contents(), "");
  EXPECT_STREQ(g_at_line_acc, "");
  EXPECT_EQ(modem.written(), "AT\r");
}

class AtResponse : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet_tarvek0");
    fresh_channel();
  }
};

TEST_F(AtResponse, RepliesInOneRead) {
  for (const auto& c : reply_cases()) {
    SCOPED_TRACE(c.name);
    expect_outcome(c, {c.modem});
  }
}

TEST_F(AtResponse, RepliesSplitAtEveryBytePositionGiveTheSameOutcome) {
  for (const auto& c : reply_cases()) {
    if (!c.split_anywhere) continue;
    SCOPED_TRACE(c.name);
    for (size_t cut = 1; cut < c.modem.size(); ++cut) {
      SCOPED_TRACE("cut at " + std::to_string(cut));
      expect_outcome(c, split_at(c.modem, {cut}));
    }
    std::vector<std::string> bytes;
    for (char ch : c.modem) bytes.emplace_back(1, ch);
    SCOPED_TRACE("one byte per read");
    expect_outcome(c, bytes);
  }
}

TEST_F(AtResponse, LongRepliesSplitAcrossManyReads) {
  for (const auto& c : reply_cases()) {
    if (c.split_anywhere || c.modem.size() < 600) continue;
    SCOPED_TRACE(c.name);
    for (size_t piece : {1u, 7u, 100u, 511u}) {
      SCOPED_TRACE("pieces of " + std::to_string(piece));
      std::vector<std::string> chunks;
      for (size_t at = 0; at < c.modem.size(); at += piece) chunks.push_back(c.modem.substr(at, piece));
      expect_outcome(c, chunks);
    }
  }
}

TEST_F(AtResponse, CarriageReturnAtTheEndOfAReadIsSettledByTheNextByte) {
  struct Case {
    const char* name;
    std::vector<std::string> chunks;
    std::string response;
  } cases[] = {
      {"LF next ends the line", {"ab\r", "\ncd\r\nOK\r\n"}, "abcd"},
      {"other byte continues it", {"ab\r", "xy\r\nOK\r\n"}, "abxy"},
      {"CR then LF next ends the line", {"ab\r", "\r\ncd\r\nOK\r\n"}, "abcd"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fresh_channel();
    SeqModem modem;
    modem.feed(c.chunks);
    const AtOutcome out = send_command("AT", "");
    EXPECT_EQ(out.ret, 0);
    EXPECT_EQ(out.response, c.response);
  }
}

TEST_F(AtResponse, BytesAfterAFinalResultAreSortedForTheNextCommand) {
  SeqModem modem;
  modem.send_now("\r\nOK\r\n\r\n^DHCP: z\r\nOK\r\npar");
  AtOutcome out = send_command("AT", "");
  EXPECT_EQ(out.ret, 0);
  EXPECT_EQ(out.response, "");
  EXPECT_EQ(ring_contents(), "\r\n^DHCP: z\r\nOK\r\npar");

  out = send_command("AT^DHCP?", "^DHCP");  // answered from the ring alone
  EXPECT_EQ(out.ret, 0);
  EXPECT_EQ(out.response, "^DHCP: z");

  modem.send_now("tial\r\nOK\r\n");  // the partial line waited in the accumulator
  out = send_command("AT", "");
  EXPECT_EQ(out.ret, 0);
  EXPECT_EQ(out.response, "partial");
  EXPECT_EQ(modem.written(), "AT\rAT^DHCP?\rAT\r");
}

TEST_F(AtResponse, RefusedAndUnwrittenCommands) {
  SeqModem modem;
  at_request req;
  memset(&req, 0, sizeof req);
  snprintf(req.body.in.command, sizeof req.body.in.command, "AT+CMGL=4");
  int err = 77;
  EXPECT_EQ(at_send_command(&req, &err), -1);
  EXPECT_EQ(req.body.out.result, 8u);
  EXPECT_EQ(err, 77);
  EXPECT_EQ(modem.written(), "");

  const AtOutcome too_long = send_command(std::string(511, 'A'), "^X");
  EXPECT_EQ(too_long.ret, -1);
  EXPECT_EQ(too_long.result, 8u);
  EXPECT_EQ(too_long.err, 22);
  EXPECT_EQ(too_long.response, "");
  const AtOutcome unterminated = send_command(std::string(512, 'A'), "");
  EXPECT_EQ(unterminated.err, 22);
  EXPECT_EQ(modem.written(), "");

  close(modem.peer());
  const AtOutcome broken = send_command("AT", "");
  EXPECT_EQ(broken.ret, -1);
  EXPECT_EQ(broken.result, 8u);
  EXPECT_EQ(broken.err, EPIPE);

  EXPECT_EQ(at_send_command(nullptr, &err), -1);
  EXPECT_EQ(at_send_command(&req, nullptr), -1);
}

TEST_F(AtResponse, EndOfFileEndsTheWaitWithErr19) {
  SeqModem modem;
  modem.feed({"\r\n^DHCP: partial reply\r\n"}, true);
  const AtOutcome out = send_command("AT^DHCP?", "^DHCP");
  EXPECT_EQ(out.ret, -1);
  EXPECT_EQ(out.err, 19);
  EXPECT_EQ(g_at_wait_state, AT_WAIT_READ);
}

TEST_F(AtResponse, SilentModemTimesOutWithResult1AndErr1) {
  SeqModem modem;
  TickDriver tick(50);
  const AtOutcome out = send_command("AT", "", 3);
  EXPECT_EQ(out.ret, -1);
  EXPECT_EQ(out.result, 1u);
  EXPECT_EQ(out.err, 1);
  EXPECT_GE(tick.ticks(), 4);
}

TEST_F(AtResponse, ChattyModemWithoutFinalResultStillTimesOut) {
  SeqModem modem;
  for (int i = 0; i < 5; ++i) modem.send_now("\r\n^DHCP: x\r\n");
  TickDriver tick(50);
  const AtOutcome out = send_command("AT", "^DHCP", 2);
  EXPECT_EQ(out.result, 1u);
  EXPECT_EQ(out.err, 1);
  EXPECT_EQ(out.response, "^DHCP: x^DHCP: x^DHCP: x^DHCP: x^DHCP: x");
}

// A limit of n ticks still takes an answer that arrives at the n-th tick and
// gives up at the (n+1)-th.
TEST_F(AtResponse, TimeOutBoundaryInTicks) {
  struct Case {
    int32_t timeout;  // as set in the request
    int answer_at;
    int ret;
  } cases[] = {
      {3, 3, 0}, {3, 4, -1}, {1, 1, 0}, {1, 2, -1}, {0, 30, 0}, {0, 31, -1}, {10, 10, 0}, {10, 11, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("timeout " + std::to_string(c.timeout) + ", answer at tick " + std::to_string(c.answer_at));
    fresh_channel();
    SeqModem modem;
    TickDriver tick(1000, modem.peer(), c.answer_at);
    const AtOutcome out = send_command("AT", "", c.timeout);
    EXPECT_EQ(out.ret, c.ret);
    EXPECT_EQ(out.result, c.ret == 0 ? 2u : 1u);
    EXPECT_EQ(out.err, c.ret == 0 ? 0 : 1);
  }
}

TEST_F(AtResponse, DrainReportsTakesOnePassWithoutWriting) {
  SeqModem modem;
  modem.send_now("\r\n+CMTI: \"SM\",3\r\n^RSSI: 9\r\n");
  EXPECT_EQ(at_drain_reports(), 0);
  EXPECT_EQ(ring_contents(), "");
  EXPECT_EQ(modem.written(), "");

  // A silent modem: the one read is interrupted by the tick and the pass ends.
  TickDriver tick(50);
  EXPECT_EQ(at_drain_reports(), 0);
  EXPECT_LT(g_at_ticks, 10u);
  EXPECT_EQ(modem.written(), "");
}

TEST_F(AtResponse, SavedRepliesGoToAFileUnderVarLog) {
  write_text_file("/var/log/CMGL", "earlier\r\n");
  {
    SeqModem modem;
    modem.send_now("\r\n+CMGL: 1,\"REC\"\r\nbody\r\n^RSSI: 3\r\n\r\nOK\r\n");
    const AtOutcome out = send_command("AT+CMGR=1", "+CMGL", 30, 1);
    EXPECT_EQ(out.ret, 0);
    EXPECT_EQ(out.response, "/var/log/CMGL");
    EXPECT_EQ(read_text_file("/var/log/CMGL"), "earlier\r\n+CMGL: 1,\"REC\"\r\n\r\nbody\r\n");
  }
  {
    SeqModem modem;
    modem.send_now("\r\n+CMGL: 2\r\n+CMS ERROR: 321\r\n");
    const AtOutcome out = send_command("AT+CMGR=2", "+CMGL", 30, 1);
    EXPECT_EQ(out.ret, -1);
    EXPECT_EQ(out.result, 4u);
    EXPECT_EQ(out.response, "+CMS ERROR: 321");
    EXPECT_FALSE(file_exists("/var/log/CMGL"));
  }
  {
    SeqModem modem;  // the file cannot be opened: every pass fails until the time-out
    modem.send_now("\r\n+NO: 1\r\nOK\r\n");
    TickDriver tick(50);
    const AtOutcome out = send_command("AT", "+no/such/file", 2, 1);
    EXPECT_EQ(out.ret, -1);
    EXPECT_EQ(out.result, 1u);
    EXPECT_EQ(out.err, 1);
  }
}

TEST_F(AtResponse, FinalResultTableInOrder) {
  struct Case {
    const char* line;
    int ret;
    int code;
  } cases[] = {
      {"OK", 0, 2},          {"+CME ERROR: 10", 0, 3}, {"+CMS ERROR: 1", 0, 4}, {"ERROR", 0, 5},
      {"NO CARRIER", 0, 6},  {"NO ANSWER", 0, 7},      {"COMMAND NOT SUPPORT", 0, 8},
      {"TOO MANY PARAMETERS", 0, 9}, {"xOKx", 0, 2},   {"ERROR OK", 0, 2},      {"ok", -1, 99},
      {"", -1, 99},          {"NO CARRIE", -1, 99},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    int code = 99;
    EXPECT_EQ(at_find_final_result(c.line, &code), c.ret);
    EXPECT_EQ(code, c.code);
  }
}

TEST_F(AtResponse, UnsolicitedReportTableInOrder) {
  struct Case {
    const char* line;
    int ret;
    int code;
  } cases[] = {
      {"+CMTI: \"SM\",1", 0, 1}, {"+CMT: ,23", 0, 2},        {"^BOOT:1", 0, 0},     {"+CDSI: 1", 0, 3},
      {"^SMMEMFULL", 0, 4},      {"xxRINGxx", 0, 5},         {"CONNECT 100", 0, 6}, {"+CLIP: 1", 0, 7},
      {"^SRVST: 2", 0, 8},       {"^SIMST: 1", 0, 9},        {"^MODE: 5", 0, 10},   {"^RSSI: 20", 0, 11},
      {"^DSFLOWRPT: 1", 0, 12},  {"+CREG: 1", 0, 13},        {"^CEND: 1", 0, 14},   {"^CONN: 1", 0, 15},
      {"^CONF: 1", 0, 16},       {"^ORIG: 1", 0, 17},        {"^EARST", 0, 18},     {"+CCWA: 1", 0, 19},
      {"+CSSI: 1", 0, 20},       {"+CSSU: 1", 0, 21},        {"+COLP: 1", 0, 22},   {"^MMIENTER", 0, 24},
      {"^ANSWER", 0, 25},        {"^ROUTESHUTDOWN", 0, 26},  {"^NDISSTAT: 1", 0, 28},
      {"^MODEX^BOOT", 0, 0},     {"+CSQ: 20,99", 0, -1},     {"^UNKNOWN", 0, -1},   {"a > b", 0, -1},
      {">+CMTI", 0, -1},         {"hello", -1, -1},          {"x+CMTI", -1, -1},    {"", -1, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    int code = 99;
    EXPECT_EQ(at_find_unsolicited(c.line, &code), c.ret);
    EXPECT_EQ(code, c.code);
  }
}

TEST_F(AtResponse, SequenceNumbersRunThrough257Values) {
  std::vector<uint32_t> seen;
  for (int i = 0; i < 600; ++i) seen.push_back(at_next_seq());
  std::set<uint32_t> distinct(seen.begin(), seen.end());
  EXPECT_EQ(distinct.size(), 257u);
  EXPECT_EQ(*distinct.rbegin(), 256u);
  for (size_t i = 0; i + 257 < seen.size(); ++i) EXPECT_EQ(seen[i], seen[i + 257]);
  for (size_t i = 0; i + 1 < seen.size(); ++i) {
    if (seen[i] == 256) {
      EXPECT_EQ(seen[i + 1], 0u);
    }
    if (seen[i] == 0) {
      EXPECT_EQ(seen[i + 1], 1u);
    }
  }
}

}  // namespace
