// Response and indication parsers on byte arrays from the message identifier
// on: the well-formed messages, their edges, messages or TLVs that claim
// more bytes than were received, and the error and call-end texts.
#include <arpa/inet.h>

#include "qmi_test_support.h"

namespace {

using Responses = QmiTest;
using Parser = int (*)(const uint8_t*, uint32_t);

int run(Parser parse, const std::string& text, uint32_t avail) {   // avail 0: all of the bytes
  const Bytes bytes = hex(text);
  return parse(bytes.data(), avail != 0 ? avail : static_cast<uint32_t>(bytes.size()));
}

TEST_F(Responses, ConnectAndStatusResponses) {
  constexpr uint32_t U = 0x55555555;   // handle untouched
  const Parser C = parse_connect_rsp, S = parse_status_rsp;
  const std::string pc = "parsing connect response", ps = "parsing status response";
  const char kConnect[] = "0020 000E 02 0004 0000 0000 01 0004 12345678";
  const char kStatus[] = "0022 000B 02 0004 0000 0000 01 0001 02";
  // out: conn_handle after a connect response, g_connection_status_rsp after a status response.
  struct Case { const char* name; Parser parse; std::string bytes; uint32_t avail; int ret; uint32_t out, result;
                Strings log; };
  const Case cases[] = {
      {"handle taken", C, kConnect, 0, 0, 0x12345678, 0, {pc}},
      {"zero handle", C, "0020 000E 02 0004 0000 0000 01 0004 00000000", 0, -1, 0, 0,
       {pc, "parse_connect_rsp : conn_handle is NULL"}},
      {"failed connect", C, "0020 000E 02 0004 0001 000E 01 0004 12345678", 0, -1, U, 1,
       {pc, "g_qmi_error = 14, dscp : Call failed."}},
      {"connect with an extra byte", C, "0020 000F 02 0004 0000 0000 01 0004 12345678 00", 0, -1, U, 0, {pc}},
      {"connect with the result only", C, "0020 0007 02 0004 0000 0000", 0, -1, U, 0, {pc}},
      {"handle TLV type", C, "0020 000E 02 0004 0000 0000 02 0004 12345678", 0, -1, U, 0,
       {pc, "TLV type mismatch. Actually is 2, expect 1"}},
      {"handle TLV length", C, "0020 000E 02 0004 0000 0000 01 0005 12345678", 0, -1, U, 0,
       {pc, "TLV length mismatch. Actually is 5, expect 4"}},
      {"connect cut short", C, kConnect, 17, -1, U, 1,
       {"parse_connect_rsp : msg exceeds recv bytes(need 18, recv 17)"}},
      {"identifier only", C, kConnect, 3, -1, U, 1, {"parse_connect_rsp : msg exceeds recv bytes(need 4, recv 3)"}},
      {"no result TLV", C, "0020 0000", 0, -1, U, 1, {"parse_connect_rsp : msg exceeds recv bytes(need 11, recv 4)"}},
      // mlen 0 but more bytes received: the prologue reads them, the length test refuses.
      {"no TLVs, bytes after", C, "0020 0000 02 0004 0000 0000", 0, -1, U, 0, {pc}},
      {"connected", S, kStatus, 0, 0, 2, 0, {ps}},
      {"failed status", S, "0022 000B 02 0004 0001 0013 01 0001 02", 0, -1, 1, 1,
       {ps, "g_qmi_error = 19, dscp : Arguement Too Long."}},
      {"status with an extra TLV", S, "0022 000F 02 0004 0000 0000 01 0001 02 10 0001 05", 0, -1, 1, 0, {ps}},
      {"status TLV type", S, "0022 000B 02 0004 0000 0000 03 0001 02", 0, -1, 1, 0,
       {ps, "TLV type mismatch. Actually is 3, expect 1"}},
      {"status TLV length", S, "0022 000B 02 0004 0000 0000 01 0002 02", 0, -1, 1, 0,
       {ps, "TLV length mismatch. Actually is 2, expect 1"}},
      {"status cut short", S, kStatus, 14, -1, 1, 1, {"parse_status_rsp : msg exceeds recv bytes(need 15, recv 14)"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    conn_handle = U;
    g_connection_status_rsp = 1;
    g_qmi_result = 0;
    EXPECT_EQ(run(c.parse, c.bytes, c.avail), c.ret);
    EXPECT_EQ(c.parse == C ? conn_handle : g_connection_status_rsp, c.out);
    EXPECT_EQ(g_qmi_result, c.result);
    EXPECT_EQ(log_texts(), c.log);
  }
}

TEST_F(Responses, StatusIndication) {
  const std::string ok = "parse_srvc_status_ind successful", fail = "parse_srvc_status_ind fail";
  struct Case { const char* name; std::string bytes; uint32_t avail; int ret; uint8_t status, reconf; Strings log; };
  const Case cases[] = {
      {"connected with reason", "0022 000A 01 0002 0200 10 0002 0002", 0, 0, 2, 0,
       {"reason = Phone has no service", ok}},
      {"status 5 stored, then refused", "0022 0005 01 0002 0500", 0, -1, 5, 0, {"invalid connection_status(0x05)"}},
      {"status 0", "0022 0005 01 0002 0001", 0, -1, 0, 1, {"invalid connection_status(0x00)"}},
      {"reconfiguration 2", "0022 0005 01 0002 0302", 0, -1, 3, 2, {"invalid reconfiguration_flag(0x02)"}},
      {"reasons 0 and 9", "0022 000A 10 0002 0000 10 0002 0009", 0, 0, 1, 0,
       {"reason = Reason unspecified", "reason = Unknown reason.", ok}},
      {"unknown TLV skipped", "0022 000B 11 0003 AABBCC 01 0002 0401", 0, 0, 4, 1, {"unkown TLV type 0x11", ok}},
      {"no TLVs", "0022 0000", 0, 0, 1, 0, {ok}},
      {"TLV past mlen", "0022 0004 11 0005 AA", 0, -1, 1, 0, {"unkown TLV type 0x11", fail}},
      // The status TLV is read two bytes wide whatever its length says.
      {"status TLV of length 1, byte after it", "0022 0004 01 0001 02 00", 0, -1, 2, 0, {fail}},
      {"status TLV of length 1 at the end", "0022 0004 01 0001 02", 0, -1, 1, 0,
       {"parse_srvc_status_ind : msg exceeds recv bytes(need 9, recv 8)"}},
      {"two stray bytes at the end", "0022 0007 01 0002 0200 AABB", 0, -1, 2, 0,
       {"parse_srvc_status_ind : msg exceeds recv bytes(need 12, recv 11)"}},
      {"message cut short", "0022 0005 01 0002 0200", 8, -1, 1, 0,
       {"parse_srvc_status_ind : msg exceeds recv bytes(need 9, recv 8)"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    connection_status = 1;
    reconfiguration_flag = 0;
    EXPECT_EQ(run(parse_srvc_status_ind, c.bytes, c.avail), c.ret);
    EXPECT_EQ(connection_status, c.status);
    EXPECT_EQ(reconfiguration_flag, c.reconf);
    EXPECT_EQ(log_texts(), c.log);
  }
}

TEST_F(Responses, RuntimeSettingsFillLinkSettingsInNetworkOrder) {
  memset(&link_settings, 0xA5, sizeof link_settings);
  EXPECT_EQ(run(parse_runtime_rsp,
                "002D 003B 02 0004 0000 0000  1E 0004 C0A80864  21 0004 FFFFFF00  20 0004 C0A80801"
                "15 0004 08080808  16 0004 08080404  1D 0001 02  99 0002 ABCD  1B 0005 7573657231", 0),
            0);
  EXPECT_EQ(link_settings.ipv4_addr, htonl(0xC0A80864));
  EXPECT_EQ(link_settings.subnet_mask, htonl(0xFFFFFF00));
  EXPECT_EQ(link_settings.gateway, htonl(0xC0A80801));
  EXPECT_EQ(link_settings.primary_dns, htonl(0x08080808));
  EXPECT_EQ(link_settings.secondary_dns, htonl(0x08080404));
  EXPECT_EQ(link_settings.auth_pref, 2);
  EXPECT_STREQ(link_settings.username, "user1");
  EXPECT_EQ(link_settings.username[6], 0);   // zero-filled first: nothing old survives after the name
  const Strings expected = {"parsing runtime response", "parsing result_code",
                            "Runtime Setting : Unknown TLV type 153"};
  EXPECT_EQ(log_texts(), expected);
}

TEST_F(Responses, RuntimeSettingsEdges) {
  const std::string p = "parsing runtime response", r = "parsing result_code";
  std::string name70;
  for (int i = 0; i < 70; ++i) name70 += "6E";
  // kept: link_settings left as it was; else zero-filled, then ipv4 (wire order) and a user name of 'n's.
  struct Case { const char* name; std::string bytes; uint32_t avail; int ret; Strings log; bool kept; uint32_t ipv4;
                size_t username_length; uint8_t status; };
  const Case cases[] = {
      {"result only", "002D 0007 02 0004 0000 0000", 0, 0, {p, r}, false, 0, 0, 2},
      {"70-byte user name then address", "002D 0057 02 0004 0000 0000 1B 0046" + name70 + "1E 0004 0A0B0C0D", 0, 0,
       {p, r, "username is too long, cut it."}, false, 0x0A0B0C0D, 64, 2},
      {"TLV runs past the area: count wraps", "002D 000E 02 0004 0000 0000 1E 0014 C0A80864", 0, -1,
       {p, r, "parse_runtime_rsp : cnt = 65520"}, false, 0xC0A80864, 0, 2},
      {"error 15 marks the call down", "002D 0007 02 0004 0001 000F", 0, -1,
       {p, r, "g_qmi_error = 15, dscp : Out Of Call."}, true, 0, 0, 1},
      {"error 14", "002D 0007 02 0004 0001 000E", 0, -1, {p, r, "g_qmi_error = 14, dscp : Call failed."}, true, 0, 0,
       2},
      {"malformed result TLV", "002D 0008 02 0005 0000 0000 00", 0, -1,
       {p, r, "unpack_result_code : mismatch(type=0x2,len=0x5)", "g_qmi_error = 0, dscp : None."}, true, 0, 0, 2},
      {"address value cut short", "002D 000C 02 0004 0000 0000 1E 0004 C0A8", 0, -1,
       {p, r, "parse_runtime_rsp : msg exceeds recv bytes(need 18, recv 16)"}, false, 0, 0, 2},
      {"address read 4 wide past a short length", "002D 000E 02 0004 0000 0000 1E 0002 08080808", 0, -1,
       {p, r, "parse_runtime_rsp : msg exceeds recv bytes(need 21, recv 18)"}, false, 0x08080808, 0, 2},
      {"one stray byte", "002D 0008 02 0004 0000 0000 AA", 0, -1,
       {p, r, "parse_runtime_rsp : msg exceeds recv bytes(need 14, recv 12)"}, false, 0, 0, 2},
      {"user name cut short", "002D 000C 02 0004 0000 0000 1B 000A 7573", 0, -1,
       {p, r, "parse_runtime_rsp : msg exceeds recv bytes(need 24, recv 16)"}, false, 0, 0, 2},
      {"message cut short", "002D 000B 02 0004 0000 0000 1D 0001 02", 14, -1,
       {"parse_runtime_rsp : msg exceeds recv bytes(need 15, recv 14)"}, true, 0, 0, 2},
      {"no result TLV received", "002D 0000", 0, -1,
       {p, r, "unpack_result_code : msg exceeds recv bytes(need 3, recv 0)", "g_qmi_error = 0, dscp : None."}, true, 0,
       0, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restart_log();
    connection_status = 2;
    link_settings_t before, expected;
    memset(&before, 0xA5, sizeof before);
    memcpy(&link_settings, &before, sizeof before);
    EXPECT_EQ(run(parse_runtime_rsp, c.bytes, c.avail), c.ret);
    EXPECT_EQ(log_texts(), c.log);
    EXPECT_EQ(connection_status, c.status);
    memcpy(&expected, &before, sizeof before);
    if (!c.kept) {
      memset(&expected, 0, sizeof expected);
      memset(expected.username, 'n', c.username_length);
      expected.ipv4_addr = htonl(c.ipv4);
    }
    EXPECT_EQ(memcmp(&link_settings, &expected, sizeof expected), 0);
  }
}

TEST_F(Responses, ErrorAndCallEndTextsKeepTheirOrder) {
  const std::pair<uint16_t, const char*> errors[] = {
      {0, "None"}, {2, "No Memmory"}, {5, "Client IDs Exausted"}, {14, "Call failed"}, {15, "Out Of Call"},
      {17, "Missing Arguement"}, {18, "UNSUPPORTED ERROR CODE"}, {19, "Arguement Too Long"},
      {20, "UNSUPPORTED ERROR CODE"}, {21, "UNSUPPORTED ERROR CODE"}, {22, "Invalid Transaction ID"},
      {29, "Invalid Technology Preference"}, {37, "Sim Not Initialized"}, {38, "Unknown Error."},
      {65535, "Unknown Error."}};
  for (const auto& [code, text] : errors) EXPECT_STREQ(qmi_error_text(code), text) << code;
  const std::pair<uint16_t, const char*> reasons[] = {
      {0, "Reason unspecified"}, {2, "Phone has no service"}, {7, "Call reject because of redirection or handoff"},
      {8, "NULL"}, {9, "Unknown reason."}, {65535, "Unknown reason."}};
  for (const auto& [reason, text] : reasons) EXPECT_STREQ(call_end_reason_text(reason), text) << reason;
}

}  // namespace
