// SPDX-License-Identifier: ISC
// The QMI client's own parts, shared by its files and its tests: the wire
// format and codec, the transport's wait, the parsers, and each file's reset.
//
// Messages on the tty are bare WDS service messages, every multi-byte field
// most significant byte first:
//   ctl_flag u8 | txId u16 | msg_type u16 | mlen u16 | mlen bytes of TLVs
// and each TLV is  type u8 | length u16 | value.
#pragma once
#include <cstddef>
#include <cstdint>

#include "log/log.h"
#include "qmi/qmi.h"
#include "wan/wan.h"

inline constexpr char kQmiModule[] = "wds_msg";
#define QMI_INFO(fmt, ...) WDS_INFO(kQmiModule, fmt __VA_OPT__(,) __VA_ARGS__)
#define QMI_ERROR(fmt, ...) WDS_ERROR(kQmiModule, fmt __VA_OPT__(,) __VA_ARGS__)

// ---- Wire constants -------------------------------------------------------

inline constexpr uint32_t kQmiHeaderSize = 7;
inline constexpr uint32_t kQmiIdOffset = 3;     // the message identifier's byte; parsers start there
inline constexpr uint32_t kQmiTlvHeaderSize = 3;
// The result TLV that every response carries first: type 0x02, a 4-byte value.
inline constexpr uint8_t kQmiResultTlvType = 0x02;
inline constexpr uint16_t kQmiResultTlvLen = 4;
inline constexpr uint32_t kQmiResultTlvSize = kQmiTlvHeaderSize + kQmiResultTlvLen;
inline constexpr uint32_t kQmiBufSize = 1000;   // request and receive buffers

inline constexpr uint16_t kQmiErrOutOfCall = 15;

// ---- Codec (codec.cpp) ------------------------------------------------------

extern uint16_t g_tx_id;        // last identifier sent; 0 only before the first request
extern uint16_t g_qmi_result;   // result of the last parsed response: 0 success, 1 failure
extern uint16_t g_qmi_error;    // its QMI error code
void qmi_codec_reset();

// Readers over a message base and a caller-owned cursor. They do not know the
// length of the data: callers check with qmi_fits() before reading.
uint8_t get_byte(const uint8_t* base, uint32_t* cursor);
uint16_t get_word(const uint8_t* base, uint32_t* cursor);
uint32_t get_double_word(const uint8_t* base, uint32_t* cursor);
void get_bytes(void* dst, const uint8_t* base, uint32_t n, uint32_t* cursor);

// True when need bytes from cursor lie within the avail bytes received.
constexpr bool qmi_fits(uint32_t cursor, uint32_t need, uint32_t avail) {
  return need <= avail && cursor <= avail - need;
}

// tlv: the result TLV; avail: bytes received from tlv on. 0 when well-formed
// (also for a failure result), -1 otherwise; sets g_qmi_result/g_qmi_error.
int unpack_result_code(const uint8_t* tlv, uint32_t avail);

// Writers, most significant byte first.
void put_word(uint8_t* dst, uint16_t value);
void put_double_word(uint8_t* dst, uint32_t value);

// Writes the 7-byte request header; returns the identifier it took.
uint16_t qmi_put_request_header(uint8_t* out, uint16_t msg_type, uint16_t mlen);

struct qmi_byte_tlv {
  uint8_t type;
  uint8_t len[2];
  uint8_t value;
};
// A profile text: up to 64 characters and a NUL.
struct qmi_string_tlv {
  uint8_t type;
  uint8_t len[2];
  char value[kProfileTextSize];
};
struct qmi_addr_tlv {
  uint8_t type;
  uint8_t len[2];
  uint8_t value[4];   // wire order
};

// Fixed-slot start-network request, every field already in wire form.
struct start_network_req {
  uint8_t header[kQmiHeaderSize];
  qmi_byte_tlv byte_tlv[2];       // technology preference, authentication
  qmi_string_tlv string_tlv[3];   // username, password, APN
  qmi_addr_tlv addr_tlv;
};
static_assert(sizeof(qmi_byte_tlv) == 4 && sizeof(qmi_string_tlv) == 68 && sizeof(qmi_addr_tlv) == 7);
static_assert(offsetof(start_network_req, byte_tlv) == 7 && offsetof(start_network_req, string_tlv) == 15);
static_assert(sizeof(start_network_req) == 7 + 2 * 4 + 3 * 68 + 7);

// Packs the present TLVs of req into out: 0 when the packed length equals
// expected_len, -1 otherwise (or when out or req is null).
int pack_start_network_msg(uint8_t* out, const start_network_req* req, uint32_t expected_len);

// ---- Transport (transport.cpp) ---------------------------------------------

extern int qmitty_fd;   // -1 while closed
// Closes the tty and clears the tick count.
void qmi_transport_reset();

struct qmi_expect {
  uint8_t ctl_flag;   // 0x02 response, 0x04 indication
  uint16_t txId;
  uint16_t msg_type;
};

// Verdicts of parse_msg beyond 0 and -1: keep waiting, or an awaited id we cannot parse.
inline constexpr int kQmiMismatch = -2;
inline constexpr int kQmiUnsupported = -3;

int send_msg(const uint8_t* buf, int len);
// 0, -1, -2 (time-out after limit+1 ticks) or 19 (tty gone).
int read_msg(const qmi_expect* expect, uint8_t limit);
// read_msg reduced to 0, -2 or -1: a gone tty fails the wait like any error.
int qmi_wait_msg(const qmi_expect* expect, uint8_t limit);
// Every message of the n bytes read: 0 or -1 settle the wait, -2 keeps
// waiting, -3 is an awaited identifier without a parser.
int parse_msg(const uint8_t* buf, const qmi_expect* expect, int n);

// ---- Requests and parsers (wds.cpp, responses.cpp) ---------------------------

// Connection state back to its process-start values.
void wds_client_reset();
int wds_abort(uint16_t tx_id);

// p points at the message identifier (kQmiIdOffset into the message); avail
// is the number of bytes received from p on. 0 or -1.
int parse_connect_rsp(const uint8_t* p, uint32_t avail);
int parse_status_rsp(const uint8_t* p, uint32_t avail);
int parse_runtime_rsp(const uint8_t* p, uint32_t avail);
int parse_srvc_status_ind(const uint8_t* p, uint32_t avail);
