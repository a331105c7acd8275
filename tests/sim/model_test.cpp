// The simulator's models and helpers, driven directly: byte-exact answers of
// the WDS model, the AT dialogue, and the scripted behaviours.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "sim/at_model.h"
#include "sim/qmi_wire.h"
#include "sim/text.h"
#include "sim/wds_model.h"

namespace {

using sim::from_hex;
using sim::to_hex;
using Blocks = std::vector<std::string>;

std::string hex(std::string_view h) { return from_hex(h).value(); }

// A control line as the socket would pass it: "set k=v ..." or a model
// command; nullopt when the model does not know it.
std::optional<std::string> control(sim::Model& m, const std::string& line) {
  auto w = sim::split_words(line);
  if (w[0] != "set") return m.command(w);
  for (size_t i = 1; i < w.size(); ++i) {
    auto [k, v] = sim::key_value(w[i]);
    if (!m.set(k, v)) return std::nullopt;
  }
  return "ok";
}

// Plays steps against a fresh model and returns every block it emitted, in
// hex for WDS and as text for AT. Steps: ">bytes" is one write (hex for
// WDS), "later N" runs the one pending answer after checking its delay,
// "unplug" unplugs, "|" marks the output; anything else is a control line
// that must succeed.
template <class M>
Blocks play(const std::vector<std::string>& steps) {
  constexpr bool kWds = std::is_same_v<M, sim::WdsModel>;
  std::vector<std::vector<std::string>> emitted;
  std::vector<std::pair<int, std::function<void()>>> later;
  M model{sim::ModemIo{[&](Blocks b) { emitted.push_back(std::move(b)); },
                       [&](int ms, std::function<void()> fn) { later.emplace_back(ms, std::move(fn)); }}};
  for (const auto& s : steps) {
    if (s[0] == '>') {
      model.on_write(kWds ? hex(s.substr(1)) : s.substr(1));
    } else if (s.starts_with("later ")) {
      EXPECT_EQ(later.size(), 1u) << s;
      EXPECT_EQ(later.empty() ? -1 : later[0].first, std::stoi(s.substr(6))) << s;
      auto jobs = std::move(later);
      later.clear();
      for (auto& job : jobs) job.second();
    } else if (s == "unplug") {
      model.on_unplug();
    } else if (s == "|") {
      emitted.push_back({});
    } else {
      EXPECT_EQ(control(model, s), "ok") << s;
    }
  }
  Blocks out;
  for (const auto& e : emitted) {
    if (e.empty()) out.push_back("|");
    for (const auto& b : e) out.push_back(kWds ? to_hex(b) : b);
  }
  return out;
}

struct Scenario { const char* name; std::vector<std::string> steps; Blocks blocks; };

// ---- text helpers and QMI framing ----

TEST(SimText, ParsersAcceptAndRefuse) {
  EXPECT_EQ(to_hex(std::string("\x00\x01\xab\xff", 4)), "0001abff");
  EXPECT_EQ(from_hex("00 01:ab-FF"), std::string("\x00\x01\xab\xff", 4));
  EXPECT_EQ(from_hex(""), std::string());
  for (const char* bad : {"abc", "a b", "zz"}) EXPECT_FALSE(from_hex(bad).has_value()) << bad;
  EXPECT_EQ(sim::parse_uint("0"), 0u);
  EXPECT_EQ(sim::parse_uint("0x1F"), 31u);
  EXPECT_EQ(sim::parse_uint("255", 255), 255u);
  EXPECT_FALSE(sim::parse_uint("256", 255).has_value());
  for (const char* bad : {"-1", "", "18446744073709551616"}) EXPECT_FALSE(sim::parse_uint(bad).has_value()) << bad;
  const std::pair<const char*, std::optional<uint32_t>> ipv4[] = {
      {"192.168.8.100", 0xC0A80864u}, {"0.0.0.0", 0u},          {"255.255.255.255", 0xFFFFFFFFu},
      {"256.1.1.1", std::nullopt},     {"1.2.3", std::nullopt}, {"1.2.3.4.5", std::nullopt},
      {"1..2.3", std::nullopt},        {"1.2.3.x", std::nullopt}, {"0x1.2.3.4", std::nullopt},
  };
  for (const auto& [text, value] : ipv4) {
    EXPECT_EQ(sim::parse_ipv4(text), value) << text;
    EXPECT_EQ(value ? sim::format_ipv4(*value) : text, text);
  }
  const std::pair<const char*, std::string> escapes[] = {
      {"OK\\r\\n", "OK\r\n"}, {"a\\sb", "a b"}, {"\\x00\\xff", std::string("\x00\xff", 2)}, {"q\\\"\\\\", "q\"\\"}};
  for (const auto& [escaped, raw] : escapes) {
    EXPECT_EQ(sim::unescape(escaped), raw) << escaped;
    EXPECT_EQ(sim::unescape(sim::escape(raw)), raw);
  }
  for (const char* bad : {"\\", "\\q", "\\x1", "\\xg0"}) EXPECT_FALSE(sim::unescape(bad).has_value()) << bad;
}

TEST(SimQmiWire, DecodeRefusesWhatDoesNotFitAndEncodeIsBigEndian) {
  using E = wdsdecode::Framing;
  const std::pair<const char*, E> cases[] = {
      {"000001000000", E::kShortHeader},
      {"0000010020000501000201", E::kShortBody},  // mlen 5, 4 present
      {"00000100200002010000", E::kBadTlv},       // 2 bytes: no TLV header
      {"0000010020000401000500", E::kBadTlv},     // TLV claims 5 of 1
      {"00000100200000", E::kWhole},
      {"0000010020000401000100", E::kWhole},
  };
  for (const auto& [bytes, err] : cases) {
    sim::qmi::Message m;
    size_t used = 0;
    EXPECT_EQ(wdsdecode::take_message(hex(bytes), &m, &used), err) << bytes;
  }
  sim::qmi::Message m;
  m.ctl = sim::qmi::kCtlResponse;
  m.tx = 0x0102;
  m.id = 0x002D;
  m.tlvs.push_back({0x1E, sim::qmi::be32(0xC0A80864)});
  EXPECT_EQ(to_hex(sim::qmi::encode(m)), "020102002d00071e0004c0a80864");
}

// ---- WDS model ----

// Requests as the daemon writes them; answers byte for byte.
const std::string kReset = ">00000100000000", kStart = ">000002002000083000010116000100",
                  kStatus = ">00000300220000", kStop = ">000004002100070100041a2b3c4d", kRuntime = ">000005002d0000";
const std::string kResetOk = "0200010000000702000400000000", kStartOk = "0200020020000e020004000000000100041a2b3c4d",
                  kConnectedInd = "040000002200050100020200", kStopOk = "0200040021000702000400000000",
                  kDisconnected = "0200030022000b0200040000000001000101",
                  kOutOfCall = "020005002d00070200040001000f",
                  kStopInd = "0400000022000a" "0100020100" "1000020001", kResetFail1 = "0200010000000702000400010001";

TEST(SimWdsModel, Scenarios) {
  const Scenario cases[] = {
      {"reset", {kReset}, {kResetOk}},
      {"abort", {">00000600020005010002000b"}, {"0200060002000702000400000000"}},
      {"start then connected indication", {kStart}, {kStartOk, kConnectedInd}},
      {"status while disconnected", {kStatus}, {kDisconnected}},
      {"runtime while disconnected", {kRuntime}, {kOutOfCall}},
      {"unknown message", {">00000700990000"}, {"02000700990007020004000100" "5e"}},
      {"stop with no call: invalid handle", {kStop}, {"0200040021000702000400010009"}},
      {"malformed requests get no answer", {">000001", ">0000010000000501", ">04000100220000"}, {}},
      // Runtime: dns1 192.168.8.2, dns2 .3, user "wds", auth 0, addr .100,
      // gateway .1, mask 255.255.255.0. The stop indication gives reason 1, the
      // client ended the call.
      {"call lifecycle",
       {kStart, kStatus, kRuntime, kStop, kStatus},
       {kStartOk, kConnectedInd, "0200030022000b0200040000000001000102",
        "020005002d0034" "02000400000000" "150004c0a80802" "160004c0a80803" "1b0003776473" "1d000100"
        "1e0004c0a80864" "200004c0a80801" "210004ffffff00",
        kStopOk, kStopInd, kDisconnected}},
      {"settings shape the answers",
       {"set addr=10.1.2.3 mask=255.255.0.0 gw=0 dns1=0 dns2=10.1.0.9 user=bob auth=2 handle=0x01020304", kStart,
        kRuntime},
       {"0200020020000e02000400000000010004" "01020304", kConnectedInd,
        "020005002d0026" "02000400000000" "1600040a010009" "1b0003626f62" "1d000102" "1e00040a010203"
        "210004ffff0000"}},
      {"ind=same", {"set ind=same", kStart}, {kStartOk + kConnectedInd}},
      {"ind=none", {"set ind=none", kStart}, {kStartOk}},
      {"ind-status/reconf", {"set ind-status=4 ind-reconf=1", kStart}, {kStartOk, "040000002200050100020401"}},
      {"indication delay is separate", {"set ind-delay=100", kStart, "|", "later 100"},
       {kStartOk, "|", kConnectedInd}},
      {"second start: no effect unless accepted", {kStart, kStart, "set second-start=accept", kStart},
       {kStartOk, kConnectedInd, "0200020020000702000400010" "01a", kStartOk, kConnectedInd}},
      {"on reset fail=3", {"on reset fail=3", kReset}, {"0200010000000702000400010003"}},
      {"on reset silent", {"on reset silent", kReset}, {}},
      {"on reset truncate=10", {"on reset truncate=10", kReset}, {"02000100000007020004"}},
      {"on reset mlen=9", {"on reset mlen=9", kReset}, {"0200010000000902000400000000"}},
      {"on reset badresult", {"on reset badresult", kReset}, {"020001000000080200050000000000"}},
      {"on status extra", {"on status extra", kStatus}, {"0200030022000f020004000000000100010110000100"}},
      {"on reset other=runtime", {"on reset other=runtime", kReset}, {"020001002d000702000400000000", kResetOk}},
      {"on reset raw=0102", {"on reset raw=0102", kReset}, {"0102"}},
      {"on reset dup", {"on reset dup", kReset}, {kResetOk, kResetOk}},
      {"on 0x0000 fail=0x1f", {"on 0x0000 fail=0x1f", kReset}, {"020001000000070200040001001f"}},
      {"failed start leaves no call", {"on start fail=14", kStart, kStatus},
       {"0200020020000702000400010" "00e", kDisconnected}},
      {"counted rules run out, then the standing rule applies",
       {"on reset fail=1", "on reset silent times=2", kReset, kReset, kReset, kReset, "on reset clear", kReset},
       {kResetFail1, kResetFail1, kResetOk}},
      {"delayed answer comes later and dies with an unplug",
       {"on reset delay=250", kReset, "|", "later 250", kReset, "unplug", "later 250"},
       {"|", kResetOk}},
      // The handle of the dropped call is still accepted by a stop.
      {"drop sends its reason, later polls say disconnected", {kStart, "drop reason=2", kStatus, kRuntime, kStop},
       {kStartOk, kConnectedInd, "0400000022000a" "0100020100" "1000020002", kDisconnected, kOutOfCall, kStopOk,
        kStopInd}},
      {"unprompted indication leaves the call alone", {"indicate status=1 reason=none tx=7", kStatus},
       {"040007002200050100020100", kDisconnected}},
      {"out-of-call refuses runtime settings while connected", {kStart, "out-of-call", kRuntime},
       {kStartOk, kConnectedInd, kOutOfCall}},
  };
  for (const auto& c : cases) EXPECT_EQ(play<sim::WdsModel>(c.steps), c.blocks) << c.name;
}

// ---- AT model ----

const std::string kOk = "\r\nOK\r\n", kError = "\r\nERROR\r\n", kDial = ">AT^NDISDUP=1,1,\"internet\",,\r",
                  kDhcpQuery = ">AT^DHCP?\r",
                  kDhcpTail = ",ffffff00,c0a80801,c0a80801,c0a80802,c0a80803,150000000,50000000\r\n\r\nOK\r\n",
                  kDhcp = "\r\n^DHCP: c0a80864" + kDhcpTail, kDhcpZero = "\r\n^DHCP: 00000000" + kDhcpTail;

TEST(SimAt, HelpersClassifyFormatAndSplit) {
  const std::pair<const char*, sim::AtCommand> cases[] = {
      {"AT^NDISDUP=1,1,\"internet\",,", sim::AtCommand::kDial},
      {"AT^NDISDUP=1,1,\"apn\",\"u\",\"p\",2", sim::AtCommand::kDial},
      {"AT^NDISDUP=1,0", sim::AtCommand::kHangUp}, {"AT^DHCP?", sim::AtCommand::kDhcp},
      {"at^dhcp?", sim::AtCommand::kDhcp},         {"AT^IPV6CAP?", sim::AtCommand::kIpv6Cap},
      {"ATE0", sim::AtCommand::kEchoOff},          {"AT+CMEE=1", sim::AtCommand::kCmee},
      {"at^curc=01", sim::AtCommand::kCurc},       {"at^curc=00", sim::AtCommand::kCurc},
      {"AT", sim::AtCommand::kAt},                 {"AT+CSQ", sim::AtCommand::kOther},
  };
  for (const auto& [line, cmd] : cases) EXPECT_EQ(sim::classify_at(line), cmd) << line;

  EXPECT_EQ(sim::dhcp_line(0xC0A80001, 0xFFFFFF00, 0xC0A80001, 0xC0A80001, 0x0A000001, 0, 150000000, 50000000),
            "^DHCP: c0a80001,ffffff00,c0a80001,c0a80001,0a000001,00000000,150000000,50000000");

  const std::tuple<std::vector<size_t>, size_t, Blocks> splits[] = {
      {{}, 0, {"\r\nOK\r\n"}},      {{2}, 0, {"\r\n", "OK\r\n"}},         {{5, 2, 2, 0, 99}, 0, {"\r\n", "OK\r", "\n"}},
      {{}, 4, {"\r\nOK", "\r\n"}}, {{1}, 3, {"\r", "\nO", "K\r\n"}},
  };
  for (const auto& [at, every, want] : splits) EXPECT_EQ(sim::split_blocks(kOk, at, every), want);
}

TEST(SimAt, Scenarios) {
  const Scenario cases[] = {
      {"each command",
       {">AT\r", ">ATE0\r", ">AT+CMEE=1\r", ">at^curc=01\r", ">AT^IPV6CAP?\r", kDhcpQuery, kDial, kDhcpQuery,
        ">AT^NDISDUP=1,0\r", kDhcpQuery, ">AT+CSQ\r"},
       {kOk, kOk, kOk, kOk, "\r\n^IPV6CAP: 1\r\n" + kOk, kError, kOk, kDhcp, kOk, kError, kError}},
      {"lines may arrive in pieces", {">AT^DH", ">CP?\rAT\r"}, {kError, kOk}},
      {"echo precedes the answer and ATE0 ends it", {"set echo=on", ">AT\r", ">ATE0\r", ">AT\r"},
       {"AT\r" + kOk, "ATE0\r" + kOk, kOk}},
      {"no address for the first polls: ERROR", {"set dhcp-wait=2", kDial, kDhcpQuery, kDhcpQuery, kDhcpQuery},
       {kOk, kError, kError, kDhcp}},
      {"no address for the first polls: zero",
       {"set dhcp-wait=2 dhcp-none=zero", kDial, kDhcpQuery, kDhcpQuery, kDhcpQuery},
       {kOk, kDhcpZero, kDhcpZero, kDhcp}},
      {"refused dial leaves no call", {"on dial error times=1", kDial, kDhcpQuery, kDial},
       {kError, kError, kOk}},
      {"on dial cme=30", {"on dial cme=30", kDial}, {"\r\n+CME ERROR: 30\r\n"}},
      {"on hangup silent", {"on hangup silent", ">AT^NDISDUP=1,0\r"}, {}},
      {"on dhcp raw", {"on dhcp raw=\\r\\n^DHCP:\\sbroken\\r\\n\\r\\nOK\\r\\n", kDhcpQuery},
       {"\r\n^DHCP: broken\r\n" + kOk}},
      {"on other ok", {"on other ok", ">AT+CSQ\r"}, {kOk}},
      {"interleaved reports land where asked, once",
       {kDial, "interleave at=before ^RSSI: 20", "interleave ^BOOT:12,0,0,0,0", "interleave at=after RING",
        ">AT^IPV6CAP?\r", ">AT\r"},
       {kOk, "\r\n^RSSI: 20\r\n\r\n^IPV6CAP: 1\r\n\r\n^BOOT:12,0,0,0,0\r\n" + kOk + "\r\nRING\r\n", kOk}},
      {"split applies to every answer", {"set split=2,3", ">AT\r", ">AT\r"},
       {"\r\n", "O", "K\r\n", "\r\n", "O", "K\r\n"}},
      {"unsolicited and ^NDISSTAT", {"urc +CMTI: \"SM\",3", "set ndisstat=on", kDial, "drop", kDhcpQuery},
       {"\r\n+CMTI: \"SM\",3\r\n", kOk + "\r\n^NDISSTAT: 1,,,\"IPV4\"\r\n", "\r\n^NDISSTAT: 0,,,\"IPV4\"\r\n", kError}},
      {"delay keeps the echo immediate", {"set echo=on", "on at delay=300", ">AT\r", "|", "later 300"},
       {"AT\r", "|", kOk}},
  };
  for (const auto& c : cases) EXPECT_EQ(play<sim::AtModel>(c.steps), c.blocks) << c.name;
}

TEST(SimModels, BadCommandsAreRefused) {
  sim::ModemIo io{[](Blocks) {}, [](int, std::function<void()>) {}};
  sim::WdsModel wds{io};
  sim::AtModel at{io};
  for (const char* bad : {"on nosuch ok", "on reset fail=x", "on reset bogus", "on reset times=0", "drop status=999",
                          "on reset", "set addr=300.1.1.1", "set ind=maybe"})
    EXPECT_THROW(control(wds, bad), sim::CommandError) << bad;
  for (const char* bad : {"on nosuch ok", "on dial cme=x", "on dial what", "interleave at=nowhere x", "urc",
                          "urc \\q", "set split=a,b", "set echo=maybe"})
    EXPECT_THROW(control(at, bad), sim::CommandError) << bad;
  for (sim::Model* m : {static_cast<sim::Model*>(&wds), static_cast<sim::Model*>(&at)}) {
    EXPECT_FALSE(control(*m, "set nosuch=1").has_value());
    EXPECT_FALSE(control(*m, "nosuch").has_value());
  }
}

}  // namespace
