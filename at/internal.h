// SPDX-License-Identifier: ISC
// The AT channel's own parts, shared by its files and its tests: the port and
// its receive ring, the request record and its assembly into lines, the NDIS
// operations and the reply files, and each file's reset.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "at/at.h"
#include "log/log.h"
#include "wan/wan.h"

inline constexpr char kAtModule[] = "atrwapi";

inline bool text_contains(const char* text, const char* needle) { return strstr(text, needle) != nullptr; }

// ---- Port and raw I/O (port.cpp) ---------------------------------------------

inline constexpr int kAtRingSize = 2048;
inline constexpr int kAtReadSize = 512;
// A read starts below this offset, so it always fits before the ring's end.
inline constexpr int kAtRingWrapAt = kAtRingSize - kAtReadSize;

// Receive ring. A byte the reader has taken is zeroed at once, and a zero byte
// is never data. The positions are not set until the first read sets the ring
// up; after that the ring is never reset, so bytes from an earlier reply are
// sorted before new ones. All zero at start: the ring takes no room in the
// executable's initialised data.
struct at_rx_ring_t {
  uint8_t buf[kAtRingSize];
  int32_t wpos;
  int32_t rpos;
  uint8_t set_up;  // 0: the positions are not set yet
};
extern at_rx_ring_t at_rx_ring;
extern int g_at_fd;  // the AT port, -1 while closed
// Port closed, ring unset: as the process starts.
void at_port_reset();

int at_port_open();
int at_tty_open(const char* path, int* tty_fd);
int at_port_close();
int at_sleep_1s();
int at_write_command(const char* text, int* err);
// 0: bytes read, or the read skipped; 19: device gone (ENODEV or end of
// file); -1: any other failure, EINTR included.
int at_read_into_ring();
// The reader's step: 0 and the next data byte, or -1 when the ring is empty.
int at_ring_take(uint8_t* byte);
int at_probe_ok();

// ---- Response assembly and classification (response.cpp) ----------------------

inline constexpr uint32_t kAtKind = 5;
inline constexpr int kAtCommandSize = 512;
inline constexpr int kAtPrefixSize = 100;
inline constexpr int kAtResponseSize = 2049;  // at most 2048 characters
inline constexpr int kAtBodySize = 2160;
inline constexpr int kAtAccumulatorSize = 2048;  // at most 2047 characters

enum : uint32_t {
  AT_RESULT_DEVICE_GONE = 0,
  AT_RESULT_TIMEOUT = 1,
  AT_RESULT_OK = 2,
  AT_RESULT_CME_ERROR = 3,
  AT_RESULT_CMS_ERROR = 4,
  AT_RESULT_ERROR = 5,
  AT_RESULT_NO_CARRIER = 6,
  AT_RESULT_NO_ANSWER = 7,
  AT_RESULT_NOT_SUPPORTED = 8,  // also: refused or not written
  AT_RESULT_TOO_MANY_PARAMETERS = 9,
};

// The request is written into the body and the reply read back over the same
// storage: the command goes to the port, and the prefix is copied, before
// `response` (which covers both) is cleared.
struct at_request_in {
  char command[kAtCommandSize];
  char reply_prefix[kAtPrefixSize];
};
struct at_reply_out {
  uint32_t result;
  char prefix[kAtPrefixSize];
  char response[kAtResponseSize];
};
struct at_request {
  uint32_t kind;
  uint32_t single_pass;
  uint32_t seq;
  uint32_t save_to_file;
  int32_t timeout;  // in at_tick ticks; 0 means 30
  union {
    at_request_in in;
    at_reply_out out;
    unsigned char raw[kAtBodySize];
  } body;
};
static_assert(sizeof(at_request::body) == kAtBodySize);
static_assert(offsetof(at_reply_out, response) == 104);

enum at_wait_state : int { AT_WAIT_READ = 0, AT_WAIT_PARSE = 1, AT_WAIT_DONE = 2 };

// The only value a signal handler touches here: a word the tick handler may
// bump while the main flow reads it and resets it to 0.
extern volatile uint32_t g_at_ticks;
extern uint32_t g_at_seq;
extern int g_at_wait_state;
// The CR that the byte after it has yet to settle: none, one taken in this
// pass, or one that was the last byte of an earlier pass.
enum at_cr_state : int { AT_CR_NONE = 0, AT_CR_TAKEN = 1, AT_CR_PENDING = 2 };
extern int g_at_cr;
extern char g_at_line_acc[kAtAccumulatorSize];
// Counters, wait state and the partial line back to their start values.
void at_response_reset();

uint32_t at_next_seq();
int at_send_command(at_request* req, int* err);
int at_wait_response(at_request* req, int* err);
int at_assemble_lines(at_request* req);
int at_find_final_result(const char* line, int* code);
int at_find_unsolicited(const char* line, int* code);
int at_drain_reports();

// ---- NDIS operations (ndis.cpp) --------------------------------------------------

int ndis_dup_request(int mode, const wan_profile_t* profile, int* err);
int ndis_add_request(const char* first, const char* second, const char* third, int* err);
int at_enable_cme_errors(int* err);
int at_set_curc(int* err, int on);
int at_query_dhcp(int* err);
int at_query_ipv6cap(int* err);
int ndis_get_ipv6cap(int* capability);

// ---- Reply parsing (dhcp_reply.cpp) ---------------------------------------------

// Fills the address words of `record` in host order; -1 at the first missing
// address field, with the words before it already stored.
int parse_dhcp_reply(const char* text, link_settings_t* record);
// Steps after the file read of the IPv6 capability fetch: 0 and 1 or 7 in
// `capability`, else -1.
int parse_ipv6cap_reply(const char* text, int* capability);
uint32_t hex_to_u32(const char* text);

// ---- Result files under /var/log (result_files.cpp) --------------------------------

inline constexpr int kAtSmallFileSize = 256;
// Rewrites "/var/log/<name>" with the formatted text; silently not written
// when it cannot be opened.
__attribute__((format(printf, 2, 3))) void write_var_log_file(const char* name, const char* fmt, ...);
// The first 255 bytes of the file into `buffer` (kAtSmallFileSize bytes); -1
// when it is missing or empty.
int read_small_file(const char* path, char* buffer);
