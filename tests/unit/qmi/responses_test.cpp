// Response and indication parsers on byte arrays, from the message identifier
// on: the design's examples, their edges, the error and call-end texts, and
// messages or TLVs that claim more bytes than were received.
#include <cstring>
#include <string>

#include "log/log.h"
#include "qmi/qmi.h"
#include "qmi_test_support.h"

namespace {

using Responses = QmiTest;
using Strings = std::vector<std::string>;

constexpr uint32_t kHandleUntouched = 0x55555555;

struct ParserCase {
  const char* name;
  Bytes bytes;       // from the message identifier on
  uint32_t avail;    // 0: all of bytes
  int ret;
  Strings log;
};

uint32_t avail_of(const ParserCase& c) { return c.avail != 0 ? c.avail : static_cast<uint32_t>(c.bytes.size()); }

TEST_F(Responses, ConnectResponse) {
  const Bytes handle_tlv = hex("01 00 04 12 34 56 78");
  const Bytes ok = from_id(0x20, concat({result_tlv(0, 0), handle_tlv}));
  struct Case {
    ParserCase parse;
    uint32_t handle;
    uint16_t result;
  };
  const Case cases[] = {
      {{"handle taken", ok, 0, 0, {"parsing connect response"}}, 0x12345678, 0},
      {{"zero handle", from_id(0x20, concat({result_tlv(0, 0), hex("01 00 04 00 00 00 00")})), 0, -1,
        {"parsing connect response", "parse_connect_rsp : conn_handle is NULL"}},
       0, 0},
      {{"failure result", from_id(0x20, concat({result_tlv(1, 14), handle_tlv})), 0, -1,
        {"parsing connect response", "g_qmi_error = 14, dscp : Call failed."}},
       kHandleUntouched, 1},
      {{"extra byte", from_id(0x20, concat({result_tlv(0, 0), handle_tlv, {0}})), 0, -1,
        {"parsing connect response"}},
       kHandleUntouched, 0},
      {{"result only", from_id(0x20, result_tlv(0, 0)), 0, -1, {"parsing connect response"}}, kHandleUntouched, 0},
      {{"TLV type", from_id(0x20, concat({result_tlv(0, 0), hex("02 00 04 12 34 56 78")})), 0, -1,
        {"parsing connect response", "TLV type mismatch. Actually is 2, expect 1"}},
       kHandleUntouched, 0},
      {{"TLV length", from_id(0x20, concat({result_tlv(0, 0), hex("01 00 05 12 34 56 78")})), 0, -1,
        {"parsing connect response", "TLV length mismatch. Actually is 5, expect 4"}},
       kHandleUntouched, 0},
      {{"message cut short", ok, 17, -1, {"parse_connect_rsp : msg exceeds recv bytes(need 18, recv 17)"}},
       kHandleUntouched, 1},
      {{"identifier only", ok, 3, -1, {"parse_connect_rsp : msg exceeds recv bytes(need 4, recv 3)"}},
       kHandleUntouched, 1},
      {{"no result TLV", from_id(0x20, {}), 0, -1, {"parse_connect_rsp : msg exceeds recv bytes(need 11, recv 4)"}},
       kHandleUntouched, 1},
      // mlen 0 but more bytes received: the prologue reads them, the length test refuses.
      {{"no TLVs, bytes after", concat({from_id(0x20, {}), result_tlv(0, 0)}), 0, -1, {"parsing connect response"}},
       kHandleUntouched, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.parse.name);
    restart_log();
    conn_handle = kHandleUntouched;
    g_qmi_result = 0;
    EXPECT_EQ(parse_connect_rsp(c.parse.bytes.data(), avail_of(c.parse)), c.parse.ret);
    EXPECT_EQ(conn_handle, c.handle);
    EXPECT_EQ(g_qmi_result, c.result);
    EXPECT_EQ(log_messages(), c.parse.log);
  }
}

TEST_F(Responses, StatusResponse) {
  const Bytes ok = from_id(0x22, concat({result_tlv(0, 0), hex("01 00 01 02")}));
  struct Case {
    ParserCase parse;
    uint8_t status;
  };
  const Case cases[] = {
      {{"connected", ok, 0, 0, {"parsing status response"}}, 2},
      {{"extra TLV", from_id(0x22, concat({result_tlv(0, 0), hex("01 00 01 02 10 00 01 05")})), 0, -1,
        {"parsing status response"}},
       1},
      {{"TLV type", from_id(0x22, concat({result_tlv(0, 0), hex("03 00 01 02")})), 0, -1,
        {"parsing status response", "TLV type mismatch. Actually is 3, expect 1"}},
       1},
      {{"TLV length", from_id(0x22, concat({result_tlv(0, 0), hex("01 00 02 02")})), 0, -1,
        {"parsing status response", "TLV length mismatch. Actually is 2, expect 1"}},
       1},
      {{"message cut short", ok, 14, -1, {"parse_status_rsp : msg exceeds recv bytes(need 15, recv 14)"}}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.parse.name);
    restart_log();
    g_connection_status_rsp = 1;
    EXPECT_EQ(parse_status_rsp(c.parse.bytes.data(), avail_of(c.parse)), c.parse.ret);
    EXPECT_EQ(g_connection_status_rsp, c.status);
    EXPECT_EQ(log_messages(), c.parse.log);
  }
}

TEST_F(Responses, FailedResultsAreLoggedWithTheirErrorText) {
  struct Case {
    uint16_t error;
    const char* text;
  };
  const Case cases[] = {
      {0, "None"},
      {2, "No Memmory"},
      {5, "Client IDs Exausted"},
      {14, "Call failed"},
      {15, "Out Of Call"},
      {17, "Missing Arguement"},
      {18, "UNSUPPORTED ERROR CODE"},
      {19, "Arguement Too Long"},
      {20, "UNSUPPORTED ERROR CODE"},
      {21, "UNSUPPORTED ERROR CODE"},
      {22, "Invalid Transaction ID"},
      {29, "Invalid Technology Preference"},
      {37, "Sim Not Initialized"},
      {38, "Unknown Error."},
      {65535, "Unknown Error."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    restart_log();
    const Bytes msg = from_id(0x22, concat({result_tlv(1, c.error), hex("01 00 01 02")}));
    EXPECT_EQ(parse_status_rsp(msg.data(), static_cast<uint32_t>(msg.size())), -1);
    EXPECT_EQ(g_connection_status_rsp, 1);
    EXPECT_EQ(g_qmi_error, c.error);
    const Strings expected = {"parsing status response",
                              "g_qmi_error = " + std::to_string(c.error) + ", dscp : " + c.text + "."};
    EXPECT_EQ(log_messages(), expected);
  }
}

TEST_F(Responses, StatusIndication) {
  struct Case {
    ParserCase parse;
    uint8_t status;
    uint8_t reconfiguration;
  };
  const Case cases[] = {
      {{"connected with reason", from_id(0x22, hex("01 00 02 02 00 10 00 02 00 02")), 0, 0,
        {"reason = Phone has no service", "parse_srvc_status_ind successful"}},
       2, 0},
      {{"status 5 stored, then refused", from_id(0x22, hex("01 00 02 05 00")), 0, -1,
        {"invalid connection_status(0x05)"}},
       5, 0},
      {{"status 0", from_id(0x22, hex("01 00 02 00 01")), 0, -1, {"invalid connection_status(0x00)"}}, 0, 1},
      {{"reconfiguration 2", from_id(0x22, hex("01 00 02 03 02")), 0, -1, {"invalid reconfiguration_flag(0x02)"}},
       3, 2},
      {{"reason 8", from_id(0x22, hex("10 00 02 00 08")), 0, 0,
        {"reason = NULL", "parse_srvc_status_ind successful"}},
       1, 0},
      {{"reasons 0 and 9", from_id(0x22, hex("10 00 02 00 00 10 00 02 00 09")), 0, 0,
        {"reason = Reason unspecified", "reason = Unknown reason.", "parse_srvc_status_ind successful"}},
       1, 0},
      {{"reason 65535", from_id(0x22, hex("10 00 02 FF FF")), 0, 0,
        {"reason = Unknown reason.", "parse_srvc_status_ind successful"}},
       1, 0},
      {{"unknown TLV skipped", from_id(0x22, hex("11 00 03 AA BB CC 01 00 02 04 01")), 0, 0,
        {"unkown TLV type 0x11", "parse_srvc_status_ind successful"}},
       4, 1},
      {{"no TLVs", from_id(0x22, {}), 0, 0, {"parse_srvc_status_ind successful"}}, 1, 0},
      {{"TLV past mlen", from_id(0x22, hex("11 00 05 AA")), 0, -1,
        {"unkown TLV type 0x11", "parse_srvc_status_ind fail"}},
       1, 0},
      // The status TLV is read two bytes wide whatever its length says.
      {{"status TLV of length 1, byte after it", concat({from_id(0x22, hex("01 00 01 02")), {0}}), 0, -1,
        {"parse_srvc_status_ind fail"}},
       2, 0},
      {{"status TLV of length 1 at the end", from_id(0x22, hex("01 00 01 02")), 0, -1,
        {"parse_srvc_status_ind : msg exceeds recv bytes(need 9, recv 8)"}},
       1, 0},
      {{"two stray bytes at the end", from_id(0x22, hex("01 00 02 02 00 AA BB")), 0, -1,
        {"parse_srvc_status_ind : msg exceeds recv bytes(need 12, recv 11)"}},
       2, 0},
      {{"message cut short", from_id(0x22, hex("01 00 02 02 00")), 8, -1,
        {"parse_srvc_status_ind : msg exceeds recv bytes(need 9, recv 8)"}},
       1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.parse.name);
    restart_log();
    connection_status = 1;
    reconfiguration_flag = 0;
    EXPECT_EQ(parse_srvc_status_ind(c.parse.bytes.data(), avail_of(c.parse)), c.parse.ret);
    EXPECT_EQ(connection_status, c.status);
    EXPECT_EQ(reconfiguration_flag, c.reconfiguration);
    EXPECT_EQ(log_messages(), c.parse.log);
  }
}

Bytes field(const uint32_t& value) {
  const uint8_t* at = reinterpret_cast<const uint8_t*>(&value);
  return Bytes(at, at + 4);
}

TEST_F(Responses, RuntimeSettingsFillLinkSettingsInNetworkOrder) {
  const Bytes msg = from_id(0x2D, concat({result_tlv(0, 0), hex("1E 00 04 C0 A8 08 64  21 00 04 FF FF FF 00"
                                                              "20 00 04 C0 A8 08 01  15 00 04 08 08 08 08"
                                                              "16 00 04 08 08 04 04  1D 00 01 02"
                                                              "99 00 02 AB CD  1B 00 05 75 73 65 72 31")}));
  memset(&link_settings, 0xA5, sizeof link_settings);
  EXPECT_EQ(parse_runtime_rsp(msg.data(), static_cast<uint32_t>(msg.size())), 0);
  EXPECT_EQ(field(link_settings.ipv4_addr), hex("C0 A8 08 64"));
  EXPECT_EQ(field(link_settings.subnet_mask), hex("FF FF FF 00"));
  EXPECT_EQ(field(link_settings.gateway), hex("C0 A8 08 01"));
  EXPECT_EQ(field(link_settings.primary_dns), hex("08 08 08 08"));
  EXPECT_EQ(field(link_settings.secondary_dns), hex("08 08 04 04"));
  EXPECT_EQ(link_settings.auth_pref, 2);
  EXPECT_STREQ(link_settings.username, "user1");
  // Zero-filled first: nothing of the old contents survives after the name.
  EXPECT_EQ(link_settings.username[6], 0);
  const Strings expected = {"parsing runtime response", "parsing result_code",
                            "Runtime Setting : Unknown TLV type 153"};
  EXPECT_EQ(log_messages(), expected);
}

TEST_F(Responses, RuntimeSettingsEdges) {
  const std::string name70(70, 'n');
  Bytes long_name = hex("1B 00 46");
  long_name.insert(long_name.end(), name70.begin(), name70.end());
  struct Case {
    ParserCase parse;
    bool settings_kept;       // link_settings left as it was (else zero-filled first)
    uint32_t ipv4;            // wire bytes, when filled
    size_t username_length;
    uint8_t status;
  };
  const Case cases[] = {
      {{"result only", from_id(0x2D, result_tlv(0, 0)), 0, 0, {"parsing runtime response", "parsing result_code"}},
       false, 0, 0, 2},
      {{"70-byte user name then address", from_id(0x2D, concat({result_tlv(0, 0), long_name, hex("1E 00 04 0A 0B 0C 0D")})),
        0, 0, {"parsing runtime response", "parsing result_code", "username is too long, cut it."}},
       false, 0x0A0B0C0D, 64, 2},
      {{"TLV runs past the area: count wraps", from_id(0x2D, concat({result_tlv(0, 0), hex("1E 00 14 C0 A8 08 64")})),
        0, -1, {"parsing runtime response", "parsing result_code", "parse_runtime_rsp : cnt = 65520"}},
       false, 0xC0A80864, 0, 2},
      {{"error 15 marks the call down", from_id(0x2D, result_tlv(1, 15)), 0, -1,
        {"parsing runtime response", "parsing result_code", "g_qmi_error = 15, dscp : Out Of Call."}},
       true, 0, 0, 1},
      {{"error 14", from_id(0x2D, result_tlv(1, 14)), 0, -1,
        {"parsing runtime response", "parsing result_code", "g_qmi_error = 14, dscp : Call failed."}},
       true, 0, 0, 2},
      {{"malformed result TLV", from_id(0x2D, hex("02 00 05 00 00 00 00 00")), 0, -1,
        {"parsing runtime response", "parsing result_code", "unpack_result_code : mismatch(type=0x2,len=0x5)",
         "g_qmi_error = 0, dscp : None."}},
       true, 0, 0, 2},
      {{"address value cut short", from_id(0x2D, concat({result_tlv(0, 0), hex("1E 00 04 C0 A8")})), 0, -1,
        {"parsing runtime response", "parsing result_code",
         "parse_runtime_rsp : msg exceeds recv bytes(need 18, recv 16)"}},
       false, 0, 0, 2},
      {{"address read 4 wide past a short length", from_id(0x2D, concat({result_tlv(0, 0), hex("15 00 02 08 08 08 08")})),
        0, -1, {"parsing runtime response", "parsing result_code",
                "parse_runtime_rsp : msg exceeds recv bytes(need 21, recv 18)"}},
       false, 0, 0, 2},
      {{"one stray byte", from_id(0x2D, concat({result_tlv(0, 0), hex("AA")})), 0, -1,
        {"parsing runtime response", "parsing result_code",
         "parse_runtime_rsp : msg exceeds recv bytes(need 14, recv 12)"}},
       false, 0, 0, 2},
      {{"user name cut short", from_id(0x2D, concat({result_tlv(0, 0), hex("1B 00 0A 75 73")})), 0, -1,
        {"parsing runtime response", "parsing result_code",
         "parse_runtime_rsp : msg exceeds recv bytes(need 24, recv 16)"}},
       false, 0, 0, 2},
      {{"message cut short", from_id(0x2D, concat({result_tlv(0, 0), hex("1D 00 01 02")})), 14, -1,
        {"parse_runtime_rsp : msg exceeds recv bytes(need 15, recv 14)"}},
       true, 0, 0, 2},
      {{"no result TLV received", from_id(0x2D, {}), 0, -1,
        {"parsing runtime response", "parsing result_code",
         "unpack_result_code : msg exceeds recv bytes(need 3, recv 0)", "g_qmi_error = 0, dscp : None."}},
       true, 0, 0, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.parse.name);
    restart_log();
    connection_status = 2;
    link_settings_t before;
    memset(&before, 0xA5, sizeof before);
    before.username[64] = '\0';
    link_settings = before;
    EXPECT_EQ(parse_runtime_rsp(c.parse.bytes.data(), avail_of(c.parse)), c.parse.ret);
    EXPECT_EQ(log_messages(), c.parse.log);
    EXPECT_EQ(connection_status, c.status);
    if (c.settings_kept) {
      EXPECT_EQ(memcmp(&link_settings, &before, sizeof before), 0);
      continue;
    }
    EXPECT_EQ(strlen(link_settings.username), c.username_length);
    if (c.username_length == 64) {
      EXPECT_EQ(std::string(link_settings.username), name70.substr(0, 64));
    }
    const uint8_t ipv4[4] = {static_cast<uint8_t>(c.ipv4 >> 24), static_cast<uint8_t>(c.ipv4 >> 16),
                             static_cast<uint8_t>(c.ipv4 >> 8), static_cast<uint8_t>(c.ipv4)};
    EXPECT_EQ(field(link_settings.ipv4_addr), Bytes(ipv4, ipv4 + 4));
    EXPECT_EQ(link_settings.secondary_dns, 0u);
    EXPECT_EQ(link_settings.auth_pref, 0);
  }
}

}  // namespace
