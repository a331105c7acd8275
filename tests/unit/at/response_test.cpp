// Sorting the modem's output into reply lines, final results and reports.
#include "at_modem.h"

namespace {

struct AtResponse : AtChannel {};

std::vector<std::string> pieces(const std::string& s, size_t size) {
  std::vector<std::string> out;
  for (size_t at = 0; at < s.size(); at += size) out.push_back(s.substr(at, size));
  return out;
}

// How the reads split the modem's bytes, besides all in one read: kAnyCut
// adds every cut in two and one byte per read, kPieces pieces of several
// sizes; n > 0 is one cut at byte n instead.
enum : int { kOneRead = 0, kAnyCut = -1, kPieces = -2 };

TEST_F(AtResponse, RepliesHoweverTheReadsSplitThem) {
  auto x = [](char c) { return "X" + std::string(999, c); };  // a reply line of 1000 characters
  const struct {
    const char* name;
    const char* prefix;
    std::string modem;
    uint32_t result;  // the command succeeds with OK (2) alone
    std::string response;
    int split = kAnyCut;
  } cases[] = {
      {"query with empty lines", "^DHCP", "\r\n^DHCP: 1,2\r\n\r\nOK\r\n", 2, "^DHCP: 1,2"},
      {"OK and ERROR in a reply line", "^NDISDUP", "\r\n^NDISDUP: OK ERROR\r\n\r\nOK\r\n", 2, "^NDISDUP: OK ERROR"},
      {"reply lines joined without separator", "^DHCP", "\r\n^DHCP: a\r\n^DHCP: b\r\nOK\r\n", 2, "^DHCP: a^DHCP: b"},
      {"CME error text is kept", "", "\r\n+CME ERROR: 30\r\n", 3, "+CME ERROR: 30"},
      {"CMS error text is kept", "", "\r\n+CMS ERROR: 500\r\n", 4, "+CMS ERROR: 500"},
      {"ERROR keeps earlier lines only", "^DHCP", "\r\nsome text\r\nERROR\r\n", 5, "some text"},
      {"NO CARRIER", "", "\r\nNO CARRIER\r\n", 6, ""},            {"NO ANSWER", "", "\r\nNO ANSWER\r\n", 7, ""},
      {"COMMAND NOT SUPPORT", "", "\r\nCOMMAND NOT SUPPORT\r\n", 8, ""},
      {"TOO MANY PARAMETERS", "", "\r\nTOO MANY PARAMETERS\r\n", 9, ""},
      {"line with > is dropped", "", "\r\n> \r\nx>y\r\nhello\r\nOK\r\n", 2, "hello"},
      {"lines starting + or ^ are dropped", "^DHCP", "\r\n+CSQ: 20,99\r\n^RSSI: 5\r\n^FOO\r\nOK\r\n", 2, ""},
      {"RING, CONNECT and known reports are dropped", "",
       "\r\nRING\r\n\r\nCONNECT 9600\r\n+CMTI: \"SM\",1\r\n^NDISSTAT: 0,,,\"IPV4\"\r\n^BOOT:1\r\nOK\r\n", 2, ""},
      {"OK inside a word ends the reply", "^DHCP", "\r\nfoo\r\nBOOKED\r\n", 2, "foo"},
      {"LF without CR stays in the line", "", "ab\ncd\r\nOK\r\n", 2, "ab\ncd"},
      {"CR before another byte is dropped", "", "ab\rxy\r\nOK\r\n", 2, "abxy"},
      {"empty prefix keeps only unsorted lines", "", "\r\n^DHCP: 1\r\nplain\r\nOK\r\n", 2, "plain"},
      {"message header ends with CR LF, text lines do not", "+CMGR",
       "\r\n+CMGR: \"REC READ\",\"123\"\r\nhello there\r\nsecond\r\n\r\nOK\r\n", 2,
       "+CMGR: \"REC READ\",\"123\"\r\nhello theresecond"},
      {"CR CR LF does not end a line", "", "ab\r\r\ncd\r\nOK\r\n", 2, "ab\r\ncd", kOneRead},
      {"CR ending a read, then CR LF, ends the line", "", "ab\r\r\ncd\r\nOK\r\n", 2, "abcd", 3},
      {"line cut at 2047", "", "\r\n" + std::string(3000, 'a') + "\r\nOK\r\n", 2, std::string(2047, 'a'), kPieces},
      {"response cut at 2048", "X", "\r\n" + x('b') + "\r\n" + x('c') + "\r\n" + x('d') + "\r\nOK\r\n", 2,
       (x('b') + x('c') + x('d')).substr(0, 2048), kPieces},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::vector<std::string>> splits = {{c.modem}};
    if (c.split > 0) splits = {{c.modem.substr(0, c.split), c.modem.substr(c.split)}};
    for (size_t cut = 1; c.split == kAnyCut && cut < c.modem.size(); ++cut) {
      splits.push_back({c.modem.substr(0, cut), c.modem.substr(cut)});
    }
    for (size_t size : {1u, 7u, 100u, 511u}) {
      if (c.split == kPieces || (c.split == kAnyCut && size == 1)) splits.push_back(pieces(c.modem, size));
    }
    for (size_t i = 0; i < splits.size(); ++i) {
      SCOPED_TRACE("split " + std::to_string(i));
      fresh_channel();
      SeqModem modem;
      modem.feed(splits[i]);
      // Ticks interrupt the reads, and end the wait should the final result be lost.
      TickDriver tick(1000, -1, 20000);
      EXPECT_EQ(send_command("AT", c.prefix), (AtOutcome{c.result == 2 ? 0 : -1, 0, c.result, c.response}));
      EXPECT_EQ(at_rx_ring.rpos, at_rx_ring.wpos);
      EXPECT_STREQ(g_at_line_acc, "");
      EXPECT_EQ(modem.written(), "AT\r");
    }
  }
}

TEST_F(AtResponse, BytesLeftInTheRingAnswerTheNextCommandEvenOnANewPort) {
  {
    SeqModem first;
    first.send_now("\r\nOK\r\n\r\n^DHCP: z\r\nOK\r\npar");
    EXPECT_EQ(send_command("AT", ""), (AtOutcome{0, 0, 2, ""}));
  }
  ASSERT_STREQ(reinterpret_cast<const char*>(at_rx_ring.buf) + at_rx_ring.rpos, "\r\n^DHCP: z\r\nOK\r\npar");
  SeqModem second;
  EXPECT_EQ(send_command("AT^DHCP?", "^DHCP"), (AtOutcome{0, 0, 2, "^DHCP: z"}));  // from the ring alone
  second.send_now("tial\r\nOK\r\n");  // the partial line waited in the accumulator
  EXPECT_EQ(send_command("AT", ""), (AtOutcome{0, 0, 2, "partial"}));
  EXPECT_EQ(second.written(), "AT^DHCP?\rAT\r");
}

TEST_F(AtResponse, RefusedUnwrittenAndCutOffCommands) {
  {
    SeqModem modem;
    EXPECT_EQ(send_command("AT+CMGL=4", "^X"), (AtOutcome{-1, -12345, 8, ""}));  // refused, err untouched
    EXPECT_EQ(send_command(std::string(511, 'A'), "^X"), (AtOutcome{-1, 22, 8, ""}));
    EXPECT_EQ(send_command(std::string(512, 'A'), "^X"), (AtOutcome{-1, 22, 8, ""}));  // no terminator
    EXPECT_EQ(modem.written(), "");
    close(std::exchange(modem.peer, -1));
    EXPECT_EQ(send_command("AT", ""), (AtOutcome{-1, EPIPE, 8, ""}));
  }
  SeqModem modem;  // end of file while waiting: the device is gone
  modem.send_now("\r\n^DHCP: partial reply\r\n");
  shutdown(modem.peer, SHUT_WR);
  const AtOutcome out = send_command("AT^DHCP?", "^DHCP");
  EXPECT_EQ(std::pair(out.ret, out.err), std::pair(-1, 19));
  EXPECT_EQ(g_at_wait_state, AT_WAIT_READ);
  int err = 0;
  at_request req = {};
  EXPECT_EQ(at_send_command(nullptr, &err), -1);
  EXPECT_EQ(at_send_command(&req, nullptr), -1);
}

// A limit of n ticks still takes an answer that arrives at the n-th tick and
// gives up at the (n+1)-th; 0 stands for 30.
TEST_F(AtResponse, TimeOutBoundaryInTicks) {
  for (const int32_t timeout : {1, 3, 10, 0}) {
    const int limit = timeout == 0 ? 30 : timeout;
    for (const int answer_at : {limit, limit + 1}) {
      SCOPED_TRACE("timeout " + std::to_string(timeout) + ", answer at tick " + std::to_string(answer_at));
      fresh_channel();
      SeqModem modem;
      TickDriver tick(answer_at, modem.peer);
      const AtOutcome expected = answer_at == limit ? AtOutcome{0, 0, 2, ""} : AtOutcome{-1, 1, 1, ""};
      EXPECT_EQ(send_command("AT", "", timeout), expected);
    }
  }
  fresh_channel();
  SeqModem modem;  // reply lines but no final result: a time-out that keeps them
  for (int i = 0; i < 5; ++i) modem.send_now("\r\n^DHCP: x\r\n");
  TickDriver tick(50);
  EXPECT_EQ(send_command("AT", "^DHCP", 2), (AtOutcome{-1, 1, 1, "^DHCP: x^DHCP: x^DHCP: x^DHCP: x^DHCP: x"}));
}

TEST_F(AtResponse, DrainReportsTakesOnePassWithoutWriting) {
  SeqModem modem;
  modem.send_now("\r\n+CMTI: \"SM\",3\r\n^RSSI: 9\r\n");
  EXPECT_EQ(at_drain_reports(), 0);
  EXPECT_EQ(at_rx_ring.rpos, at_rx_ring.wpos);
  // A silent modem: the one read is interrupted by the tick and the pass ends.
  TickDriver tick(50);
  EXPECT_EQ(at_drain_reports(), 0);
  EXPECT_LT(g_at_ticks, 10u);
  EXPECT_EQ(modem.written(), "");
}

TEST_F(AtResponse, SavedRepliesGoToAFileUnderVarLog) {
  SeqModem modem;
  write_text_file("/var/log/CMGL", "earlier\r\n");
  modem.send_now("\r\n+CMGL: 1,\"REC\"\r\nbody\r\n^RSSI: 3\r\n\r\nOK\r\n");
  EXPECT_EQ(send_command("AT+CMGR=1", "+CMGL", 30, 1), (AtOutcome{0, 0, 2, "/var/log/CMGL"}));
  EXPECT_EQ(read_text_file("/var/log/CMGL"), "earlier\r\n+CMGL: 1,\"REC\"\r\n\r\nbody\r\n");
  modem.send_now("\r\n+CMGL: 2\r\n+CMS ERROR: 321\r\n");
  EXPECT_EQ(send_command("AT+CMGR=2", "+CMGL", 30, 1), (AtOutcome{-1, 0, 4, "+CMS ERROR: 321"}));
  EXPECT_FALSE(file_exists("/var/log/CMGL"));
  // A file that cannot be opened, as one with a link planted in its place,
  // fails every pass until the time-out.
  write_text_file("/var/log/target", "kept");
  ASSERT_EQ(symlink("/var/log/target", "/var/log/NO"), 0);
  modem.send_now("\r\n+NO: 1\r\nOK\r\n");
  TickDriver tick(50);
  EXPECT_EQ(send_command("AT", "+NO", 2, 1), (AtOutcome{-1, 1, 1, ""}));
  EXPECT_EQ(read_text_file("/var/log/target"), "kept");
}

TEST_F(AtResponse, FinalResultAndReportTablesInOrder) {
  const struct {
    const char* line;
    int ret, code;
  } finals[] = {
      {"OK", 0, 2}, {"+CME ERROR: 10", 0, 3}, {"+CMS ERROR: 1", 0, 4}, {"ERROR", 0, 5}, {"NO CARRIER", 0, 6},
      {"NO ANSWER", 0, 7}, {"COMMAND NOT SUPPORT", 0, 8}, {"TOO MANY PARAMETERS", 0, 9}, {"xOKx", 0, 2},
      {"ERROR OK", 0, 2}, {"ok", -1, 99}, {"", -1, 99}, {"NO CARRIE", -1, 99},
  }, reports[] = {
      {"+CMTI: \"SM\",1", 0, 1}, {"+CMT: ,23", 0, 2}, {"^BOOT:1", 0, 0}, {"+CDSI: 1", 0, 3}, {"^SMMEMFULL", 0, 4},
      {"xxRINGxx", 0, 5}, {"CONNECT 100", 0, 6}, {"+CLIP: 1", 0, 7}, {"^SRVST: 2", 0, 8}, {"^SIMST: 1", 0, 9},
      {"^MODE: 5", 0, 10}, {"^RSSI: 20", 0, 11}, {"^DSFLOWRPT: 1", 0, 12}, {"+CREG: 1", 0, 13}, {"^CEND: 1", 0, 14},
      {"^CONN: 1", 0, 15}, {"^CONF: 1", 0, 16}, {"^ORIG: 1", 0, 17}, {"^EARST", 0, 18}, {"+CCWA: 1", 0, 19},
      {"+CSSI: 1", 0, 20}, {"+CSSU: 1", 0, 21}, {"+COLP: 1", 0, 22}, {"^MMIENTER", 0, 24}, {"^ANSWER", 0, 25},
      {"^ROUTESHUTDOWN", 0, 26}, {"^NDISSTAT: 1", 0, 28}, {"^MODEX^BOOT", 0, 0}, {"+CSQ: 20,99", 0, -1},
      {"^UNKNOWN", 0, -1}, {"a > b", 0, -1}, {">+CMTI", 0, -1}, {"hello", -1, -1}, {"x+CMTI", -1, -1}, {"", -1, -1},
  };
  auto check = [](const auto& rows, int (*find)(const char*, int*)) {
    for (const auto& c : rows) {
      SCOPED_TRACE(c.line);
      int code = 99;
      EXPECT_EQ(find(c.line, &code), c.ret);
      EXPECT_EQ(code, c.code);
    }
  };
  check(finals, at_find_final_result);
  check(reports, at_find_unsolicited);
}

TEST_F(AtResponse, SequenceNumbersRunFrom0To256AndWrap) {
  uint32_t last = at_next_seq();
  for (int i = 0; i < 600; ++i) {
    const uint32_t expected = last >= 256 ? 0 : last + 1;
    ASSERT_EQ(last = at_next_seq(), expected);
  }
}

}  // namespace
