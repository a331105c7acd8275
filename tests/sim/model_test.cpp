// The simulator's models and helpers, driven directly: byte-exact answers of
// the WDS model, the AT dialogue, and the scripted behaviours.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "sim/at_model.h"
#include "sim/qmi_wire.h"
#include "sim/text.h"
#include "sim/wds_model.h"

namespace {

using sim::from_hex;
using sim::to_hex;

std::string hex(const char* h) {
  auto b = from_hex(h);
  EXPECT_TRUE(b.has_value()) << h;
  return b.value_or("");
}

// Collects what a model emits; delayed answers wait until run_later().
struct FakeIo {
  std::vector<std::vector<std::string>> emitted;
  std::vector<std::pair<int, std::function<void()>>> later;
  sim::ModemIo io() {
    sim::ModemIo io;
    io.emit = [this](std::vector<std::string> b) { emitted.push_back(std::move(b)); };
    io.later = [this](int ms, std::function<void()> fn) { later.emplace_back(ms, std::move(fn)); };
    return io;
  }
  // Every block emitted so far, in hex, flattened.
  std::vector<std::string> blocks() const {
    std::vector<std::string> out;
    for (const auto& e : emitted)
      for (const auto& b : e) out.push_back(to_hex(b));
    return out;
  }
  void run_later() {
    auto jobs = std::move(later);
    later.clear();
    for (auto& [ms, fn] : jobs) fn();
  }
  void clear() { emitted.clear(); }
};

std::vector<std::string> words(const std::string& line) { return sim::split_words(line); }

// ---- text helpers ----

TEST(SimText, HexRoundTripAndRejects) {
  EXPECT_EQ(to_hex(std::string("\x00\x01\xab\xff", 4)), "0001abff");
  EXPECT_EQ(from_hex("00 01:ab-FF"), std::string("\x00\x01\xab\xff", 4));
  EXPECT_FALSE(from_hex("abc").has_value());
  EXPECT_FALSE(from_hex("a b").has_value());
  EXPECT_FALSE(from_hex("zz").has_value());
  EXPECT_EQ(from_hex(""), std::string());
}

TEST(SimText, Ipv4ParseBoundaries) {
  struct Case {
    const char* text;
    std::optional<uint32_t> value;
  } cases[] = {
      {"192.168.8.100", 0xC0A80864u}, {"0.0.0.0", 0u}, {"255.255.255.255", 0xFFFFFFFFu},
      {"256.1.1.1", std::nullopt},    {"1.2.3", std::nullopt}, {"1.2.3.4.5", std::nullopt},
      {"1..2.3", std::nullopt},       {"1.2.3.x", std::nullopt}, {"0x1.2.3.4", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sim::parse_ipv4(c.text), c.value) << c.text;
    if (c.value) {
      EXPECT_EQ(sim::format_ipv4(*c.value), c.text);
    }
  }
}

TEST(SimText, UnescapeAndEscapeAreInverse) {
  struct Case {
    const char* escaped;
    std::string raw;
  } cases[] = {
      {"OK\\r\\n", "OK\r\n"}, {"a\\sb", "a b"}, {"\\x00\\xff", std::string("\x00\xff", 2)}, {"q\\\"\\\\", "q\"\\"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sim::unescape(c.escaped), c.raw) << c.escaped;
    EXPECT_EQ(sim::unescape(sim::escape(c.raw)), c.raw);
  }
  for (const char* bad : {"\\", "\\q", "\\x1", "\\xg0"}) EXPECT_FALSE(sim::unescape(bad).has_value()) << bad;
}

TEST(SimText, ParseUintLimits) {
  EXPECT_EQ(sim::parse_uint("0"), 0u);
  EXPECT_EQ(sim::parse_uint("0x1F"), 31u);
  EXPECT_EQ(sim::parse_uint("255", 255), 255u);
  EXPECT_FALSE(sim::parse_uint("256", 255).has_value());
  EXPECT_FALSE(sim::parse_uint("-1").has_value());
  EXPECT_FALSE(sim::parse_uint("").has_value());
  EXPECT_FALSE(sim::parse_uint("18446744073709551616").has_value());
}

// ---- QMI framing ----

TEST(SimQmiWire, DecodeRefusesWhatDoesNotFit) {
  struct Case {
    const char* bytes;
    sim::qmi::DecodeError err;
  } cases[] = {
      {"000001000000", sim::qmi::DecodeError::kShortHeader},
      {"0000010020000501000201", sim::qmi::DecodeError::kShortBody},   // mlen 5, 4 present
      {"00000100200002010000", sim::qmi::DecodeError::kBadTlv},        // 2 bytes: no TLV header
      {"0000010020000401000500", sim::qmi::DecodeError::kBadTlv},      // TLV claims 5 of 1
      {"00000100200000", sim::qmi::DecodeError::kNone},
      {"0000010020000401000100", sim::qmi::DecodeError::kNone},
  };
  for (const auto& c : cases) {
    sim::qmi::Message m;
    size_t used = 0;
    EXPECT_EQ(sim::qmi::decode(hex(c.bytes), &m, &used), c.err) << c.bytes;
  }
}

TEST(SimQmiWire, EncodeIsBigEndianThroughout) {
  sim::qmi::Message m;
  m.ctl = sim::qmi::kCtlResponse;
  m.tx = 0x0102;
  m.id = 0x002D;
  m.tlvs.push_back({0x1E, sim::qmi::be32(0xC0A80864)});
  EXPECT_EQ(to_hex(sim::qmi::encode(m)), "020102002d00071e0004c0a80864");
}

// ---- WDS model ----

struct WdsCase {
  const char* name;
  std::vector<std::string> setup;  // control commands first
  std::vector<const char*> requests;
  std::vector<const char*> blocks;  // every block emitted, in order
};

class WdsModelTest : public ::testing::Test {
 protected:
  FakeIo io;
  sim::WdsModel model{io.io()};
  void cmd(const std::string& line) {
    auto w = words(line);
    if (w[0] == "set") {
      for (size_t i = 1; i < w.size(); ++i) {
        auto [k, v] = sim::key_value(w[i]);
        ASSERT_TRUE(model.set(k, v)) << w[i];
      }
      return;
    }
    auto reply = model.command(w);
    ASSERT_TRUE(reply.has_value()) << line;
    ASSERT_EQ(*reply, "ok") << line;
  }
  void request(const char* h) { model.on_write(hex(h)); }
};

// Requests as the daemon writes them; answers byte for byte.
constexpr const char* kReset = "00000100000000";
constexpr const char* kResetOk = "0200010000000702000400000000";
constexpr const char* kStart = "000002002000083000010116000100";
constexpr const char* kStartOk = "0200020020000e020004000000000100041a2b3c4d";
constexpr const char* kConnectedInd = "040000002200050100020200";
constexpr const char* kStatus = "00000300220000";
constexpr const char* kStop = "000004002100070100041a2b3c4d";
constexpr const char* kRuntime = "000005002d0000";

TEST_F(WdsModelTest, AnswersEveryRequestByteExact) {
  const WdsCase cases[] = {
      {"reset", {}, {kReset}, {kResetOk}},
      {"abort", {}, {"00000600020005010002000b"}, {"0200060002000702000400000000"}},
      {"start then connected indication", {}, {kStart}, {kStartOk, kConnectedInd}},
      {"status while disconnected", {}, {kStatus}, {"0200030022000b" "02000400000000" "01000101"}},
      {"runtime while disconnected: out of call", {}, {kRuntime}, {"020005002d00070200040001000f"}},
      {"unknown message", {}, {"00000700990000"}, {"02000700990007020004000100" "5e"}},
      {"stop with no call: invalid handle", {}, {kStop}, {"0200040021000702000400010009"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    model.reset();
    model.on_unplug();
    io.clear();
    for (const auto& s : c.setup) cmd(s);
    for (const char* r : c.requests) request(r);
    std::vector<std::string> want(c.blocks.begin(), c.blocks.end());
    EXPECT_EQ(io.blocks(), want);
  }
}

TEST_F(WdsModelTest, CallLifecycleDrivesStatusAndRuntimeSettings) {
  request(kStart);
  io.clear();
  request(kStatus);
  request(kRuntime);
  request(kStop);
  request(kStatus);
  auto b = io.blocks();
  ASSERT_EQ(b.size(), 5u);
  EXPECT_EQ(b[0], "0200030022000b020004000000000100010" "2");
  // result, dns1 192.168.8.2, dns2 192.168.8.3, user "wds", auth 0, addr
  // 192.168.8.100, gateway 192.168.8.1, mask 255.255.255.0
  EXPECT_EQ(b[1],
            "020005002d0034" "020004" "00000000" "150004c0a80802" "160004c0a80803" "1b0003776473" "1d000100"
            "1e0004c0a80864" "200004c0a80801" "210004ffffff00");
  EXPECT_EQ(b[2], "0200040021000702000400000000");
  // Stop indication: disconnected, reason 1 (client ended the call).
  EXPECT_EQ(b[3], "0400000022000a" "0100020100" "1000020001");
  EXPECT_EQ(b[4], "0200030022000b020004000000000100010" "1");
}

TEST_F(WdsModelTest, SettingsShapeTheAnswers) {
  cmd("set addr=10.1.2.3 mask=255.255.0.0 gw=0 dns1=0 dns2=10.1.0.9 user=bob auth=2 handle=0x01020304");
  request(kStart);
  request(kRuntime);
  auto b = io.blocks();
  ASSERT_EQ(b.size(), 3u);
  EXPECT_EQ(b[0], "0200020020000e02000400000000010004" "01020304");
  EXPECT_EQ(b[2], "020005002d0026" "02000400000000" "1600040a010009" "1b0003626f62" "1d000102" "1e00040a010203"
                  "210004ffff0000");
}

TEST_F(WdsModelTest, IndicationPlacementAndContent) {
  struct Case {
    const char* setting;
    std::vector<const char*> blocks;
  } cases[] = {
      {"set ind=same", {"0200020020000e020004000000000100041a2b3c4d" "040000002200050100020200"}},
      {"set ind=none", {kStartOk}},
      {"set ind-status=4 ind-reconf=1", {kStartOk, "040000002200050100020401"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.setting);
    model.reset();
    model.on_unplug();
    io.clear();
    cmd(c.setting);
    request(kStart);
    std::vector<std::string> want(c.blocks.begin(), c.blocks.end());
    EXPECT_EQ(io.blocks(), want);
  }
}

TEST_F(WdsModelTest, SecondStartIsNoEffectUnlessAccepted) {
  request(kStart);
  io.clear();
  request(kStart);
  EXPECT_EQ(io.blocks(), std::vector<std::string>{"0200020020000702000400010" "01a"});
  cmd("set second-start=accept");
  io.clear();
  request(kStart);
  EXPECT_EQ(io.blocks(), (std::vector<std::string>{kStartOk, kConnectedInd}));
}

TEST_F(WdsModelTest, ScriptedBehaviours) {
  struct Case {
    const char* rule;
    const char* request;
    std::vector<const char*> blocks;
  } cases[] = {
      {"on reset fail=3", kReset, {"0200010000000702000400010003"}},
      {"on reset silent", kReset, {}},
      {"on reset truncate=10", kReset, {"02000100000007020004"}},
      {"on reset mlen=9", kReset, {"0200010000000902000400000000"}},
      {"on reset badresult", kReset, {"020001000000080200050000000000"}},
      {"on status extra", kStatus, {"0200030022000f020004000000000100010110000100"}},
      {"on reset other=runtime", kReset, {"020001002d000702000400000000", kResetOk}},
      {"on reset raw=0102", kReset, {"0102"}},
      {"on reset dup", kReset, {kResetOk, kResetOk}},
      {"on 0x0000 fail=0x1f", kReset, {"020001000000070200040001001f"}},
      {"on start fail=14", kStart, {"0200020020000702000400010" "00e"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rule);
    model.reset();
    model.on_unplug();
    io.clear();
    cmd(c.rule);
    request(c.request);
    std::vector<std::string> want(c.blocks.begin(), c.blocks.end());
    EXPECT_EQ(io.blocks(), want);
  }
}

TEST_F(WdsModelTest, FailedStartLeavesNoCall) {
  cmd("on start fail=14");
  request(kStart);
  io.clear();
  request(kStatus);
  EXPECT_EQ(io.blocks(), std::vector<std::string>{"0200030022000b020004000000000100010" "1"});
}

TEST_F(WdsModelTest, CountedRulesRunOutThenTheStandingRuleApplies) {
  cmd("on reset fail=1");              // standing
  cmd("on reset silent times=2");      // in front of it, twice
  for (int i = 0; i < 4; ++i) request(kReset);
  EXPECT_EQ(io.blocks(), (std::vector<std::string>{"0200010000000702000400010001", "0200010000000702000400010001"}));
  cmd("on reset clear");
  io.clear();
  request(kReset);
  EXPECT_EQ(io.blocks(), std::vector<std::string>{kResetOk});
}

TEST_F(WdsModelTest, DelayedAnswerComesLaterAndDiesWithAnUnplug) {
  cmd("on reset delay=250");
  request(kReset);
  EXPECT_TRUE(io.blocks().empty());
  ASSERT_EQ(io.later.size(), 1u);
  EXPECT_EQ(io.later[0].first, 250);
  io.run_later();
  EXPECT_EQ(io.blocks(), std::vector<std::string>{kResetOk});

  io.clear();
  request(kReset);
  model.on_unplug();
  io.run_later();
  EXPECT_TRUE(io.blocks().empty());
}

TEST_F(WdsModelTest, IndicationDelayIsSeparate) {
  cmd("set ind-delay=100");
  request(kStart);
  EXPECT_EQ(io.blocks(), std::vector<std::string>{kStartOk});
  ASSERT_EQ(io.later.size(), 1u);
  EXPECT_EQ(io.later[0].first, 100);
  io.run_later();
  EXPECT_EQ(io.blocks(), (std::vector<std::string>{kStartOk, kConnectedInd}));
}

TEST_F(WdsModelTest, DropSendsReasonAndLaterPollsSayDisconnected) {
  request(kStart);
  io.clear();
  cmd("drop reason=2");
  request(kStatus);
  request(kRuntime);
  EXPECT_EQ(io.blocks(), (std::vector<std::string>{"0400000022000a" "0100020100" "1000020002",
                                                    "0200030022000b020004000000000100010" "1",
                                                    "020005002d00070200040001000f"}));
  // The handle of the dropped call is still accepted by a stop.
  io.clear();
  request(kStop);
  EXPECT_EQ(io.blocks().at(0), "0200040021000702000400000000");
}

TEST_F(WdsModelTest, UnpromptedIndicationDoesNotChangeTheCall) {
  cmd("indicate status=1 reason=none tx=7");
  request(kStatus);
  EXPECT_EQ(io.blocks(), (std::vector<std::string>{"040007002200050100020100",
                                                    "0200030022000b020004000000000100010" "1"}));
}

TEST_F(WdsModelTest, OutOfCallRefusesRuntimeSettingsWhileConnected) {
  request(kStart);
  cmd("out-of-call");
  io.clear();
  request(kRuntime);
  EXPECT_EQ(io.blocks(), std::vector<std::string>{"020005002d00070200040001000f"});
}

TEST_F(WdsModelTest, MalformedRequestsGetNoAnswer) {
  for (const char* bad : {"000001", "0000010000000501", "04000100220000"}) {
    model.on_write(hex(bad));
  }
  EXPECT_TRUE(io.blocks().empty());
}

TEST_F(WdsModelTest, BadCommandsAreRefused) {
  const std::vector<std::string> bad[] = {
      {"on", "nosuch", "ok"}, {"on", "reset", "fail=x"}, {"on", "reset", "bogus"},
      {"on", "reset", "times=0"}, {"drop", "status=999"}, {"on", "reset"},
  };
  for (const auto& w : bad) EXPECT_THROW(model.command(w), sim::CommandError) << w[0] << " " << w[1];
  EXPECT_THROW(model.set("addr", "300.1.1.1"), sim::CommandError);
  EXPECT_THROW(model.set("ind", "maybe"), sim::CommandError);
  EXPECT_FALSE(model.set("nosuch", "1"));
  EXPECT_FALSE(model.command({"nosuch"}).has_value());
}

// ---- AT model ----

class AtModelTest : public ::testing::Test {
 protected:
  FakeIo io;
  sim::AtModel model{io.io()};
  void cmd(const std::string& line) {
    auto w = words(line);
    if (w[0] == "set") {
      for (size_t i = 1; i < w.size(); ++i) {
        auto [k, v] = sim::key_value(w[i]);
        ASSERT_TRUE(model.set(k, v)) << w[i];
      }
      return;
    }
    auto reply = model.command(w);
    ASSERT_TRUE(reply.has_value()) << line;
    ASSERT_EQ(*reply, "ok") << line;
  }
  // Everything emitted, as text, blocks joined.
  std::string text() const {
    std::string out;
    for (const auto& e : io.emitted)
      for (const auto& b : e) out += b;
    return out;
  }
  std::vector<std::string> pieces() const {
    std::vector<std::string> out;
    for (const auto& e : io.emitted)
      for (const auto& b : e) out.push_back(b);
    return out;
  }
};

TEST(SimAt, DhcpLineHexIsFirstOctetFirst) {
  EXPECT_EQ(sim::dhcp_line(0xC0A80001, 0xFFFFFF00, 0xC0A80001, 0xC0A80001, 0x0A000001, 0, 150000000, 50000000),
            "^DHCP: c0a80001,ffffff00,c0a80001,c0a80001,0a000001,00000000,150000000,50000000");
}

TEST(SimAt, ClassifiesTheDaemonsCommands) {
  struct Case {
    const char* line;
    sim::AtCommand cmd;
  } cases[] = {
      {"AT^NDISDUP=1,1,\"internet\",,", sim::AtCommand::kDial},
      {"AT^NDISDUP=1,1,\"apn\",\"u\",\"p\",2", sim::AtCommand::kDial},
      {"AT^NDISDUP=1,0", sim::AtCommand::kHangUp},
      {"AT^DHCP?", sim::AtCommand::kDhcp},
      {"at^dhcp?", sim::AtCommand::kDhcp},
      {"AT^IPV6CAP?", sim::AtCommand::kIpv6Cap},
      {"ATE0", sim::AtCommand::kEchoOff},
      {"AT+CMEE=1", sim::AtCommand::kCmee},
      {"at^curc=01", sim::AtCommand::kCurc},
      {"at^curc=00", sim::AtCommand::kCurc},
      {"AT", sim::AtCommand::kAt},
      {"AT+CSQ", sim::AtCommand::kOther},
  };
  for (const auto& c : cases) EXPECT_EQ(sim::classify_at(c.line), c.cmd) << c.line;
}

TEST(SimAt, SplitBlocksCutsWhereAsked) {
  struct Case {
    std::vector<size_t> at;
    size_t every;
    std::vector<std::string> want;
  } cases[] = {
      {{}, 0, {"\r\nOK\r\n"}},
      {{2}, 0, {"\r\n", "OK\r\n"}},
      {{5, 2, 2, 0, 99}, 0, {"\r\n", "OK\r", "\n"}},
      {{}, 4, {"\r\nOK", "\r\n"}},
      {{1}, 3, {"\r", "\nO", "K\r\n"}},
  };
  for (const auto& c : cases) EXPECT_EQ(sim::split_blocks("\r\nOK\r\n", c.at, c.every), c.want);
}

TEST_F(AtModelTest, AnswersEachCommand) {
  struct Case {
    const char* line;
    const char* answer;
  } cases[] = {
      {"AT", "\r\nOK\r\n"},
      {"ATE0", "\r\nOK\r\n"},
      {"AT+CMEE=1", "\r\nOK\r\n"},
      {"at^curc=01", "\r\nOK\r\n"},
      {"AT^IPV6CAP?", "\r\n^IPV6CAP: 1\r\n\r\nOK\r\n"},
      {"AT^DHCP?", "\r\nERROR\r\n"},  // no call yet
      {"AT^NDISDUP=1,1,\"internet\",,", "\r\nOK\r\n"},
      {"AT^DHCP?",
       "\r\n^DHCP: c0a80864,ffffff00,c0a80801,c0a80801,c0a80802,c0a80803,150000000,50000000\r\n\r\nOK\r\n"},
      {"AT^NDISDUP=1,0", "\r\nOK\r\n"},
      {"AT+CSQ", "\r\nERROR\r\n"},
  };
  for (const auto& c : cases) {
    io.clear();
    model.on_write(std::string(c.line) + "\r");
    EXPECT_EQ(sim::escape(text()), sim::escape(c.answer)) << c.line;
  }
}

TEST_F(AtModelTest, LinesMayArriveInPieces) {
  model.on_write("AT^DH");
  EXPECT_TRUE(io.emitted.empty());
  model.on_write("CP?\rAT\r");
  EXPECT_EQ(text(), "\r\nERROR\r\n\r\nOK\r\n");
}

TEST_F(AtModelTest, EchoPrecedesTheAnswerAndATE0EndsIt) {
  cmd("set echo=on");
  model.on_write("AT\r");
  model.on_write("ATE0\r");
  model.on_write("AT\r");
  EXPECT_EQ(sim::escape(text()), sim::escape("AT\r\r\nOK\r\nATE0\r\r\nOK\r\n\r\nOK\r\n"));
}

TEST_F(AtModelTest, NoAddressForTheFirstPollsAfterADial) {
  struct Case {
    const char* settings;
    const char* waiting_answer;
  } cases[] = {
      {"set dhcp-wait=2", "\r\nERROR\r\n"},
      {"set dhcp-wait=2 dhcp-none=zero",
       "\r\n^DHCP: 00000000,ffffff00,c0a80801,c0a80801,c0a80802,c0a80803,150000000,50000000\r\n\r\nOK\r\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.settings);
    model.reset();
    cmd(c.settings);
    model.on_write("AT^NDISDUP=1,1,\"internet\",,\r");
    for (int poll = 0; poll < 3; ++poll) {
      io.clear();
      model.on_write("AT^DHCP?\r");
      if (poll < 2) {
        EXPECT_EQ(sim::escape(text()), sim::escape(c.waiting_answer)) << poll;
      } else {
        EXPECT_NE(text().find("^DHCP: c0a80864,"), std::string::npos) << poll;
      }
    }
  }
}

TEST_F(AtModelTest, RulesRefuseOrSilence) {
  struct Case {
    const char* rule;
    const char* line;
    const char* answer;
  } cases[] = {
      {"on dial error", "AT^NDISDUP=1,1,,,", "\r\nERROR\r\n"},
      {"on dial cme=30", "AT^NDISDUP=1,1,,,", "\r\n+CME ERROR: 30\r\n"},
      {"on hangup silent", "AT^NDISDUP=1,0", ""},
      {"on dhcp raw=\\r\\n^DHCP:\\sbroken\\r\\n\\r\\nOK\\r\\n", "AT^DHCP?", "\r\n^DHCP: broken\r\n\r\nOK\r\n"},
      {"on other ok", "AT+CSQ", "\r\nOK\r\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rule);
    model.reset();
    io.clear();
    cmd(c.rule);
    model.on_write(std::string(c.line) + "\r");
    EXPECT_EQ(sim::escape(text()), sim::escape(c.answer));
  }
}

TEST_F(AtModelTest, RefusedDialLeavesNoCall) {
  cmd("on dial error times=1");
  model.on_write("AT^NDISDUP=1,1,,,\r");
  model.on_write("AT^DHCP?\r");
  EXPECT_EQ(sim::escape(text()), sim::escape("\r\nERROR\r\n\r\nERROR\r\n"));
}

TEST_F(AtModelTest, InterleavedReportsLandWhereAsked) {
  model.on_write("AT^NDISDUP=1,1,,,\r");
  cmd("interleave at=before ^RSSI: 20");
  cmd("interleave ^BOOT:12,0,0,0,0");
  cmd("interleave at=after RING");
  io.clear();
  model.on_write("AT^IPV6CAP?\r");
  EXPECT_EQ(sim::escape(text()),
            sim::escape("\r\n^RSSI: 20\r\n\r\n^IPV6CAP: 1\r\n\r\n^BOOT:12,0,0,0,0\r\n\r\nOK\r\n\r\nRING\r\n"));
  io.clear();
  model.on_write("AT\r");  // used once
  EXPECT_EQ(text(), "\r\nOK\r\n");
}

TEST_F(AtModelTest, SplitAppliesToEveryAnswer) {
  cmd("set split=2,3");
  model.on_write("AT\r");
  model.on_write("AT\r");
  EXPECT_EQ(pieces(), (std::vector<std::string>{"\r\n", "O", "K\r\n", "\r\n", "O", "K\r\n"}));
}

TEST_F(AtModelTest, UnsolicitedAndNdisstat) {
  cmd("urc +CMTI: \"SM\",3");
  cmd("set ndisstat=on");
  model.on_write("AT^NDISDUP=1,1,,,\r");
  cmd("drop");
  EXPECT_EQ(sim::escape(text()), sim::escape("\r\n+CMTI: \"SM\",3\r\n\r\nOK\r\n\r\n^NDISSTAT: 1,,,\"IPV4\"\r\n"
                                             "\r\n^NDISSTAT: 0,,,\"IPV4\"\r\n"));
  io.clear();
  model.on_write("AT^DHCP?\r");
  EXPECT_EQ(text(), "\r\nERROR\r\n");  // the call is gone
}

TEST_F(AtModelTest, DelayKeepsEchoImmediate) {
  cmd("set echo=on");
  cmd("on at delay=300");
  model.on_write("AT\r");
  EXPECT_EQ(text(), "AT\r");
  ASSERT_EQ(io.later.size(), 1u);
  EXPECT_EQ(io.later[0].first, 300);
  io.run_later();
  EXPECT_EQ(text(), "AT\r\r\nOK\r\n");
}

TEST_F(AtModelTest, BadCommandsAreRefused) {
  const std::vector<std::string> bad[] = {
      {"on", "nosuch", "ok"}, {"on", "dial", "cme=x"}, {"on", "dial", "what"}, {"interleave", "at=nowhere", "x"},
      {"urc"}, {"urc", "\\q"},
  };
  for (const auto& w : bad) EXPECT_THROW(model.command(w), sim::CommandError) << w[0];
  EXPECT_THROW(model.set("split", "a,b"), sim::CommandError);
  EXPECT_THROW(model.set("echo", "maybe"), sim::CommandError);
}

}  // namespace
