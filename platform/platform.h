// SPDX-License-Identifier: ISC
// Stand-ins for the gateway's platform library: message bus, command runner,
// AT response parser. The functions have C linkage, as in the gateway's C
// library, so a test can replace one by its plain name at link time.
#pragma once
#include <cstdint>

// Message bus: each peer binds the abstract Unix datagram address
// "\0zun_msg/<name>", so every network namespace has its own bus. A datagram
// is a zun_msg_header followed by `len` payload bytes.
inline constexpr char kZunMsgAddrPrefix[] = "zun_msg/";
inline constexpr int kZunMsgNameSize = 32;
inline constexpr int kZunMsgMaxPayload = 4096;
struct zun_msg_header {
  char sender[kZunMsgNameSize];  // NUL-padded bus name of the sender
  uint32_t type;
  uint32_t len;
};

// A named value of the AT response parser's list.
struct at_cmd_field {
  char* name;
  char* value;  // may be null
  at_cmd_field* next;
};

extern "C" {

// ---- Message bus ---------------------------------------------------------
int ZUN_MSG_Init(const char* name);
int ZUN_MSG_SendMsgData(const char* receiver, uint32_t type, const void* data, uint32_t len);

// ---- Command runner -----------------------------------------------------------
// Runs "/bin/sh -c cmd" with a clean signal state and only descriptors 0-2;
// waits a bounded time for it so sequences keep their order; never leaves a
// zombie. Returns 0 when the command was started, -1 otherwise.
int ZUN_UTIL_ExecCmdNoHang(const char* cmd);

// ---- AT response parser -----------------------------------------------------
// Finds the first place in `text` where `prefix` is followed by a colon (blanks
// may come between), splits the rest of that line at commas, trims blanks, and
// names the values by the layout of `selector` (9: clip, netmask, gate, dhcp,
// pDNS, sDNS, max_rx_data, max_tx_data); an empty value has no value text.
// `flags` must be 0. Returns the number of fields, or -1 with an empty list
// for text it cannot parse. The list is on the heap until free_at_cmd.
int at_cmd_parse(at_cmd_field** head, const char* prefix, const char* text, int selector, int flags);
void free_at_cmd(at_cmd_field* head);

}  // extern "C"
