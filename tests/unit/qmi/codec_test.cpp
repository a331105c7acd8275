// Codec: the cursor readers and their guards, the result TLV, transaction
// identifiers, request headers and the packing of the start-network request.
#include <cstring>
#include <string>

#include "log/log.h"
#include "qmi/qmi.h"
#include "qmi_test_support.h"

namespace {

using Codec = QmiTest;

TEST_F(Codec, ReadersComposeBigEndianAndAdvanceTheCursor) {
  struct Case {
    const char* bytes;
    uint32_t start;
    int width;
    uint32_t value;
  };
  const Case cases[] = {
      {"00 22", 0, 2, 34},
      {"00 00 01 2C", 0, 4, 300},
      {"AA 00 22", 1, 2, 34},
      {"FF FE", 0, 2, 65534},
      {"80 00 00 01", 0, 4, 0x80000001u},
      {"C0 A8 08 64", 0, 4, 0xC0A80864u},
      {"11 22 33 FF", 3, 1, 0xFF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    const Bytes bytes = hex(c.bytes);
    uint32_t cursor = c.start;
    uint32_t value = 0;
    if (c.width == 1) value = get_byte(bytes.data(), &cursor);
    if (c.width == 2) value = get_word(bytes.data(), &cursor);
    if (c.width == 4) value = get_double_word(bytes.data(), &cursor);
    EXPECT_EQ(value, c.value);
    EXPECT_EQ(cursor, c.start + static_cast<uint32_t>(c.width));
  }
  EXPECT_TRUE(log_messages().empty());
}

TEST_F(Codec, ReadersWithANullPointerLogYieldZeroAndKeepTheCursor) {
  const Bytes bytes = hex("12 34 56 78");
  uint32_t cursor = 1;
  errno = 0;
  EXPECT_EQ(get_byte(nullptr, &cursor), 0);
  EXPECT_EQ(get_word(nullptr, &cursor), 0);
  EXPECT_EQ(get_double_word(bytes.data(), nullptr), 0u);
  EXPECT_EQ(cursor, 1u);
  const std::vector<std::string> expected = {
      "get_byte: param error. errno = 0 <Success> ",
      "get_word: param error. errno = 0 <Success> ",
      "get_double_word: param error. errno = 0 <Success> ",
  };
  EXPECT_EQ(log_messages(), expected);
  for (const std::string& line : log_lines()) EXPECT_EQ(line.rfind("[error][         wds_msg:", 0), 0u) << line;
}

TEST_F(Codec, GetBytesCopiesAndAdvancesOrDoesNothing) {
  const Bytes bytes = hex("01 02 03 04 05");
  uint8_t dst[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  uint32_t cursor = 1;
  get_bytes(dst, bytes.data(), 3, &cursor);
  EXPECT_EQ(cursor, 4u);
  EXPECT_EQ(Bytes(dst, dst + 4), hex("02 03 04 EE"));

  get_bytes(dst, bytes.data(), 0, &cursor);
  get_bytes(nullptr, bytes.data(), 2, &cursor);
  get_bytes(dst, nullptr, 2, &cursor);
  EXPECT_EQ(cursor, 4u);
  EXPECT_EQ(Bytes(dst, dst + 4), hex("02 03 04 EE"));
}

TEST_F(Codec, ResultTlvShapes) {
  struct Case {
    const char* bytes;
    uint32_t avail;   // 0: all of bytes
    int ret;
    uint16_t result;
    uint16_t error;
    const char* extra_log;   // after "parsing result_code"
  };
  const Case cases[] = {
      {"02 00 04 00 01 00 0E", 0, 0, 1, 14, nullptr},
      {"02 00 04 00 00 00 00", 0, 0, 0, 0, nullptr},
      {"02 00 04 00 00 00 00 99", 0, 0, 0, 0, nullptr},
      {"02 00 04 FF FF FF FF", 0, 0, 0xFFFF, 0xFFFF, nullptr},
      {"02 00 05 00 00 00 00 00", 0, -1, 1, 0, "unpack_result_code : mismatch(type=0x2,len=0x5)"},
      {"03 00 04 00 00 00 00", 0, -1, 1, 0, "unpack_result_code : mismatch(type=0x3,len=0x4)"},
      {"02 01 04 00 00 00 00", 0, -1, 1, 0, "unpack_result_code : mismatch(type=0x2,len=0x104)"},
      {"02 00 04 00 00 00 00", 6, -1, 1, 0, "unpack_result_code : msg exceeds recv bytes(need 7, recv 6)"},
      {"02 00 04", 0, -1, 1, 0, "unpack_result_code : msg exceeds recv bytes(need 7, recv 3)"},
      {"02 00", 0, -1, 1, 0, "unpack_result_code : msg exceeds recv bytes(need 3, recv 2)"},
      {"", 0, -1, 1, 0, "unpack_result_code : msg exceeds recv bytes(need 3, recv 0)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    restart_log();
    g_qmi_result = 0;   // a previous success must not survive a bad TLV
    g_qmi_error = 9;
    const Bytes bytes = hex(c.bytes);
    const uint32_t avail = c.avail != 0 ? c.avail : static_cast<uint32_t>(bytes.size());
    EXPECT_EQ(unpack_result_code(bytes.data(), avail), c.ret);
    EXPECT_EQ(g_qmi_result, c.result);
    EXPECT_EQ(g_qmi_error, c.error);
    std::vector<std::string> expected = {"parsing result_code"};
    if (c.extra_log != nullptr) expected.push_back(c.extra_log);
    EXPECT_EQ(log_messages(), expected);
  }
}

TEST_F(Codec, TransactionIdentifiersSkipZero) {
  EXPECT_EQ(qmi_next_tx_id(), 1);
  EXPECT_EQ(qmi_next_tx_id(), 2);
  g_tx_id = 65534;
  EXPECT_EQ(qmi_next_tx_id(), 65535);
  EXPECT_EQ(qmi_next_tx_id(), 1);
  EXPECT_EQ(g_tx_id, 1);
}

TEST_F(Codec, RequestHeaderIsSevenBigEndianBytes) {
  struct Case {
    uint16_t previous_tx;
    uint16_t msg_type;
    uint16_t mlen;
    const char* bytes;
  };
  const Case cases[] = {
      {0x0104, 0x002D, 0, "00 01 05 00 2D 00 00"},
      {65535, 0x0022, 0, "00 00 01 00 22 00 00"},
      {0x00FE, 0x0020, 0x0122, "00 00 FF 00 20 01 22"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    g_tx_id = c.previous_tx;
    uint8_t out[8] = {0, 0, 0, 0, 0, 0, 0, 0xEE};
    const uint16_t taken = qmi_put_request_header(out, c.msg_type, c.mlen);
    EXPECT_EQ(taken, g_tx_id);
    EXPECT_EQ(Bytes(out, out + 8), concat({hex(c.bytes), {0xEE}}));
  }
}

// A request record filled the way the builder fills it.
struct RequestBuilder {
  start_network_req req = {};
  uint32_t mlen = 8;

  RequestBuilder() {
    req.byte_tlv[0] = {0x30, {0, 1}, 1};
    req.byte_tlv[1] = {0x16, {0, 1}, 2};
  }
  void string(int slot, uint8_t type, const std::string& text) {
    req.string_tlv[slot].type = type;
    put_word(req.string_tlv[slot].len, static_cast<uint16_t>(text.size()));
    snprintf(req.string_tlv[slot].value, sizeof req.string_tlv[slot].value, "%s", text.c_str());
    mlen += 3 + static_cast<uint32_t>(text.size());
  }
  void address(const char* bytes) {
    req.addr_tlv.type = 0x15;
    put_word(req.addr_tlv.len, 4);
    const Bytes value = hex(bytes);
    memcpy(req.addr_tlv.value, value.data(), 4);
    mlen += 7;
  }
  void header(uint16_t tx_id) {
    req.header[0] = 0;
    put_word(req.header + 1, tx_id);
    put_word(req.header + 3, 0x0020);
    put_word(req.header + 5, static_cast<uint16_t>(mlen));
  }
};

TEST_F(Codec, StartNetworkPackingLeavesOutAbsentTlvsAndChecksTheLength) {
  const std::string longest(64, 'a');
  struct Case {
    const char* name;
    std::string user, pass, apn;
    const char* address;     // nullptr: no address TLV
    int length_delta;        // expected_len passed = true length + delta
    int ret;
    uint32_t packed_size;
  };
  const Case cases[] = {
      {"byte TLVs only", "", "", "", nullptr, 0, 0, 15},
      {"password only", "", "pw", "", nullptr, 0, 0, 20},
      {"64-character string packs as 67 bytes", longest, "", "", nullptr, 0, 0, 15 + 67},
      {"all strings and address", "u", "p", "a", "0A 00 00 01", 0, 0, 15 + 4 + 4 + 4 + 7},
      {"address 0.0.0.0 counted but not packed", "", "", "", "00 00 00 00", 0, -1, 15},
      {"expected one byte more", "u", "", "", nullptr, 1, -1, 19},
      {"expected one byte less", "u", "", "", nullptr, -1, -1, 19},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RequestBuilder b;
    if (!c.user.empty()) b.string(0, 0x17, c.user);
    if (!c.pass.empty()) b.string(1, 0x18, c.pass);
    if (!c.apn.empty()) b.string(2, 0x14, c.apn);
    if (c.address != nullptr) b.address(c.address);
    b.header(7);
    uint8_t out[kQmiBufSize];
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(pack_start_network_msg(out, &b.req, 7 + b.mlen + static_cast<uint32_t>(c.length_delta)), c.ret);
    // What was packed: header, byte TLVs, the present strings without NUL, in slot order.
    Bytes expected = hex("00 00 07 00 20");
    expected.push_back(static_cast<uint8_t>(b.mlen >> 8));
    expected.push_back(static_cast<uint8_t>(b.mlen));
    expected = concat({expected, hex("30 00 01 01 16 00 01 02")});
    const struct {
      uint8_t type;
      const std::string* text;
    } strings[] = {{0x17, &c.user}, {0x18, &c.pass}, {0x14, &c.apn}};
    for (const auto& s : strings) {
      if (s.text->empty()) continue;
      expected.insert(expected.end(), {s.type, 0, static_cast<uint8_t>(s.text->size())});
      expected.insert(expected.end(), s.text->begin(), s.text->end());
    }
    if (c.address != nullptr && c.ret == 0) expected = concat({expected, hex("15 00 04"), hex(c.address)});
    ASSERT_EQ(expected.size(), c.packed_size);
    EXPECT_EQ(to_hex(Bytes(out, out + c.packed_size + 1)), to_hex(concat({expected, {0xEE}})));
  }
}

TEST_F(Codec, StartNetworkPackingRefusesNullBuffers) {
  RequestBuilder b;
  b.header(1);
  uint8_t out[kQmiBufSize];
  EXPECT_EQ(pack_start_network_msg(nullptr, &b.req, 15), -1);
  EXPECT_EQ(pack_start_network_msg(out, nullptr, 15), -1);
}

}  // namespace
