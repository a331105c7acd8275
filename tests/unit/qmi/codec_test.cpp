// Codec: the cursor readers and their guards, the result TLV, request
// headers and the packing of the start-network request.
#include "qmi_test_support.h"

namespace {

using Codec = QmiTest;

TEST_F(Codec, ReadersComposeBigEndianAdvanceTheCursorAndRefuseNullPointers) {
  struct Case { const char* bytes; uint32_t start; int width; uint32_t value; };
  const Case cases[] = {
      {"00 22", 0, 2, 34},          {"AA FF FE", 1, 2, 65534},   {"00 00 01 2C", 0, 4, 300},
      {"80 00 00 01", 0, 4, 0x80000001u}, {"C0 A8 08 64", 0, 4, 0xC0A80864u}, {"11 22 33 FF", 3, 1, 0xFF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    const Bytes bytes = hex(c.bytes);
    uint32_t cursor = c.start;
    const uint32_t value = c.width == 1   ? get_byte(bytes.data(), &cursor)
                           : c.width == 2 ? get_word(bytes.data(), &cursor)
                                          : get_double_word(bytes.data(), &cursor);
    EXPECT_EQ(value, c.value);
    EXPECT_EQ(cursor, c.start + static_cast<uint32_t>(c.width));
  }
  // get_bytes copies n bytes, and nothing for n 0 or a null pointer.
  const Bytes bytes = hex("01 02 03 04 05");
  uint8_t dst[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  uint32_t cursor = 1;
  get_bytes(dst, bytes.data(), 3, &cursor);
  get_bytes(dst, bytes.data(), 0, &cursor);
  get_bytes(nullptr, bytes.data(), 2, &cursor);
  get_bytes(dst, nullptr, 2, &cursor);
  EXPECT_EQ(cursor, 4u);
  EXPECT_EQ(Bytes(dst, dst + 4), hex("02 03 04 EE"));

  errno = 0;
  EXPECT_EQ(get_byte(nullptr, &cursor), 0);
  EXPECT_EQ(get_word(nullptr, &cursor), 0);
  EXPECT_EQ(get_double_word(bytes.data(), nullptr), 0u);
  EXPECT_EQ(cursor, 4u);
  const std::string no_error = std::string(" errno = 0 <") + strerror(0) + "> ";  // the C library's text
  const Strings expected = {"get_byte: param error." + no_error, "get_word: param error." + no_error,
                            "get_double_word: param error." + no_error};
  EXPECT_EQ(log_texts(), expected);
  for (const std::string& line : log_lines()) EXPECT_EQ(line.rfind("[error]", 0), 0u) << line;
}

TEST_F(Codec, ResultTlvShapes) {
  // refusal: logged after "parsing result_code".
  struct Case { const char* bytes; int ret; uint16_t result, error; const char* refusal; };
  const Case cases[] = {
      {"02 0004 0001 000E", 0, 1, 14, nullptr},
      {"02 0004 0000 0000 99", 0, 0, 0, nullptr},
      {"02 0004 FFFF FFFF", 0, 0xFFFF, 0xFFFF, nullptr},
      {"02 0005 0000 0000 00", -1, 1, 0, "unpack_result_code : mismatch(type=0x2,len=0x5)"},
      {"03 0004 0000 0000", -1, 1, 0, "unpack_result_code : mismatch(type=0x3,len=0x4)"},
      {"02 0104 0000 0000", -1, 1, 0, "unpack_result_code : mismatch(type=0x2,len=0x104)"},
      {"02 0004 0000 00", -1, 1, 0, "unpack_result_code : msg exceeds recv bytes(need 7, recv 6)"},
      {"02 0004", -1, 1, 0, "unpack_result_code : msg exceeds recv bytes(need 7, recv 3)"},
      {"02 00", -1, 1, 0, "unpack_result_code : msg exceeds recv bytes(need 3, recv 2)"},
      {"", -1, 1, 0, "unpack_result_code : msg exceeds recv bytes(need 3, recv 0)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    restart_log();
    g_qmi_result = 0;   // a previous success must not survive a bad TLV
    g_qmi_error = 9;
    const Bytes bytes = hex(c.bytes);
    EXPECT_EQ(unpack_result_code(bytes.data(), static_cast<uint32_t>(bytes.size())), c.ret);
    EXPECT_EQ(g_qmi_result, c.result);
    EXPECT_EQ(g_qmi_error, c.error);
    Strings expected = {"parsing result_code"};
    if (c.refusal != nullptr) expected.push_back(c.refusal);
    EXPECT_EQ(log_texts(), expected);
  }
}

TEST_F(Codec, RequestHeaderTakesTheNextIdentifierSkippingZero) {
  struct Case { uint16_t previous_tx, msg_type, mlen; const char* bytes; };
  const Case cases[] = {
      {0, 0x0022, 0, "00 0001 0022 0000"},           {0x0104, 0x002D, 0, "00 0105 002D 0000"},
      {0x00FE, 0x0020, 0x0122, "00 00FF 0020 0122"}, {65534, 0x0000, 0, "00 FFFF 0000 0000"},
      {65535, 0x0021, 7, "00 0001 0021 0007"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    g_tx_id = c.previous_tx;
    uint8_t out[8] = {0, 0, 0, 0, 0, 0, 0, 0xEE};
    EXPECT_EQ(qmi_put_request_header(out, c.msg_type, c.mlen), g_tx_id);
    EXPECT_EQ(to_hex(Bytes(out, out + 8)), to_hex(concat({hex(c.bytes), {0xEE}})));
  }
}

TEST_F(Codec, StartNetworkPackingLeavesOutAbsentTlvsAndChecksTheLength) {
  // Filled as the request builder fills it: user "u", no password, APN "apn", address 10.0.0.1.
  start_network_req req = {};
  memcpy(req.header, hex("00 0007 0020 0019").data(), sizeof req.header);
  req.byte_tlv[0] = {0x30, {0, 1}, 1};
  req.byte_tlv[1] = {0x16, {0, 1}, 2};
  req.string_tlv[0] = {0x17, {0, 1}, "u"};
  req.string_tlv[2] = {0x14, {0, 3}, "apn"};
  req.addr_tlv = {0x15, {0, 4}, {10, 0, 0, 1}};
  const Bytes whole = hex("00 0007 0020 0019  30 0001 01  16 0001 02  17 0001 75  14 0003 61706E  15 0004 0A000001");
  // length_delta: the expected length passed is the true one plus this.
  struct Case { const char* name; bool zero_address; int length_delta; int ret; };
  const Case cases[] = {{"as counted", false, 0, 0}, {"one byte more expected", false, 1, -1},
                        {"one byte less expected", false, -1, -1}, {"address 0.0.0.0, not packed", true, 0, -1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    start_network_req r = req;
    if (c.zero_address) memset(r.addr_tlv.value, 0, 4);
    uint8_t out[kQmiBufSize];
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(pack_start_network_msg(out, &r, static_cast<uint32_t>(static_cast<int>(whole.size()) + c.length_delta)),
              c.ret);
    const Bytes packed(whole.begin(), whole.end() - (c.zero_address ? 7 : 0));
    EXPECT_EQ(to_hex(Bytes(out, out + packed.size() + 1)), to_hex(concat({packed, {0xEE}})));
  }
  uint8_t out[kQmiBufSize];
  EXPECT_EQ(pack_start_network_msg(nullptr, &req, 32), -1);
  EXPECT_EQ(pack_start_network_msg(out, nullptr, 32), -1);
}

}  // namespace
