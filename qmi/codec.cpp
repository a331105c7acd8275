// SPDX-License-Identifier: ISC
// Bytes of WDS messages: cursor readers, the result TLV, request headers and
// the packing of the start-network request. Integers are composed and split
// byte by byte, so the bytes are the same on any host.
#include <cstring>

#include "qmi/internal.h"

uint16_t g_tx_id = 0;
uint16_t g_qmi_result = 1;
uint16_t g_qmi_error = 0;

namespace {


uint16_t qmi_next_tx_id() {
  g_tx_id = static_cast<uint16_t>(g_tx_id + 1);
  if (g_tx_id == 0) g_tx_id = 1;   // 0 never goes out
  return g_tx_id;
}

}  // namespace

void qmi_codec_reset() {
  g_tx_id = 0;
  g_qmi_result = 1;
  g_qmi_error = 0;
}

uint8_t get_byte(const uint8_t* base, uint32_t* cursor) {
  if (base == nullptr || cursor == nullptr) {
    QMI_ERROR("get_byte: param error.");
    return 0;
  }
  const uint8_t value = base[*cursor];
  *cursor += 1;
  return value;
}

uint16_t get_word(const uint8_t* base, uint32_t* cursor) {
  if (base == nullptr || cursor == nullptr) {
    QMI_ERROR("get_word: param error.");
    return 0;
  }
  const uint8_t* at = base + *cursor;
  *cursor += 2;
  return static_cast<uint16_t>((at[0] << 8) | at[1]);
}

uint32_t get_double_word(const uint8_t* base, uint32_t* cursor) {
  if (base == nullptr || cursor == nullptr) {
    QMI_ERROR("get_double_word: param error.");
    return 0;
  }
  const uint8_t* at = base + *cursor;
  *cursor += 4;
  return (static_cast<uint32_t>(at[0]) << 24) | (static_cast<uint32_t>(at[1]) << 16) |
         (static_cast<uint32_t>(at[2]) << 8) | at[3];
}

void get_bytes(void* dst, const uint8_t* base, uint32_t n, uint32_t* cursor) {
  if (dst == nullptr || base == nullptr || cursor == nullptr || n == 0) return;
  memcpy(dst, base + *cursor, n);
  *cursor += n;
}

int unpack_result_code(const uint8_t* tlv, uint32_t avail) {
  // Failure and "None" until a well-formed TLV says otherwise.
  g_qmi_error = 0;
  g_qmi_result = 1;
  QMI_INFO("parsing result_code\n");
  if (tlv == nullptr || !qmi_fits(0, kQmiTlvHeaderSize, avail)) {
    QMI_INFO("unpack_result_code : msg exceeds recv bytes(need %u, recv %u)\n", kQmiTlvHeaderSize, avail);
    return -1;
  }
  uint32_t cursor = 0;
  const uint8_t type = get_byte(tlv, &cursor);
  const uint16_t len = get_word(tlv, &cursor);
  if (type != kQmiResultTlvType || len != kQmiResultTlvLen) {
    QMI_INFO("unpack_result_code : mismatch(type=0x%0x,len=0x%0x)\n", static_cast<unsigned>(type),
             static_cast<unsigned>(len));
    return -1;
  }
  if (!qmi_fits(cursor, kQmiResultTlvLen, avail)) {
    QMI_INFO("unpack_result_code : msg exceeds recv bytes(need %u, recv %u)\n", cursor + kQmiResultTlvLen, avail);
    return -1;
  }
  g_qmi_result = get_word(tlv, &cursor);
  g_qmi_error = get_word(tlv, &cursor);
  return 0;
}

void put_word(uint8_t* dst, uint16_t value) {
  dst[0] = static_cast<uint8_t>(value >> 8);
  dst[1] = static_cast<uint8_t>(value);
}

void put_double_word(uint8_t* dst, uint32_t value) {
  put_word(dst, static_cast<uint16_t>(value >> 16));
  put_word(dst + 2, static_cast<uint16_t>(value));
}

uint16_t qmi_put_request_header(uint8_t* out, uint16_t msg_type, uint16_t mlen) {
  const uint16_t tx_id = qmi_next_tx_id();
  out[0] = kQmiCtlRequest;
  put_word(out + 1, tx_id);
  put_word(out + 3, msg_type);
  put_word(out + 5, mlen);
  return tx_id;
}

int pack_start_network_msg(uint8_t* out, const start_network_req* req, uint32_t expected_len) {
  if (out == nullptr || req == nullptr) return -1;
  uint32_t n = 0;
  memcpy(out, req->header, sizeof req->header);
  n += sizeof req->header;
  memcpy(out + n, req->byte_tlv, sizeof req->byte_tlv);
  n += sizeof req->byte_tlv;

  // Present TLVs only: a string goes without its NUL, by its own length
  // (the builder's length field is what the expected length counted).
  for (const qmi_string_tlv& slot : req->string_tlv) {
    if (slot.value[0] == '\0') continue;
    const size_t chars = strnlen(slot.value, sizeof slot.value);
    out[n] = slot.type;
    memcpy(out + n + 1, slot.len, sizeof slot.len);
    memcpy(out + n + kQmiTlvHeaderSize, slot.value, chars);
    n += kQmiTlvHeaderSize + static_cast<uint32_t>(chars);
  }
  const qmi_addr_tlv& addr = req->addr_tlv;
  if ((addr.value[0] | addr.value[1] | addr.value[2] | addr.value[3]) != 0) {
    memcpy(out + n, &addr, sizeof addr);
    n += sizeof addr;
  }
  return n == expected_len ? 0 : -1;
}
