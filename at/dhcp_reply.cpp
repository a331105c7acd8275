// SPDX-License-Identifier: ISC
// The DHCP and IPv6 capability replies, as read back from their files:
// the DHCP addresses as host-order words, the IPv6 capability as a number.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "at/internal.h"
#include "platform/platform.h"

namespace {

constexpr int kDhcpFieldSize = 10;  // at most 9 characters
constexpr int kDhcpSelector = 9;    // the parser's layout of the "^DHCP" line

struct dhcp_fields {
  char clip[kDhcpFieldSize];
  char netmask[kDhcpFieldSize];
  char gate[kDhcpFieldSize];
  char dhcp[kDhcpFieldSize];  // the DHCP server: read, not used
  char pDNS[kDhcpFieldSize];
  char sDNS[kDhcpFieldSize];
  int max_rx_data;  // read, not used
  int max_tx_data;
};

void copy_field(char (&dst)[kDhcpFieldSize], const char* value) {
  snprintf(dst, sizeof dst, "%.*s", kDhcpFieldSize - 1, value);
}

void take_dhcp_field(dhcp_fields* fields, const at_cmd_field* field) {
  if (field->name == nullptr || field->value == nullptr) return;
  const char* name = field->name;
  const char* value = field->value;
  if (strcmp(name, "clip") == 0) {
    copy_field(fields->clip, value);
  } else if (strcmp(name, "netmask") == 0) {
    copy_field(fields->netmask, value);
  } else if (strcmp(name, "gate") == 0) {
    copy_field(fields->gate, value);
  } else if (strcmp(name, "dhcp") == 0) {
    copy_field(fields->dhcp, value);
  } else if (strcmp(name, "pDNS") == 0) {
    copy_field(fields->pDNS, value);
  } else if (strcmp(name, "sDNS") == 0) {
    copy_field(fields->sDNS, value);
  } else if (strcmp(name, "max_rx_data") == 0) {
    fields->max_rx_data = atoi(value);
  } else if (strcmp(name, "max_tx_data") == 0) {
    fields->max_tx_data = atoi(value);
  }
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

uint32_t hex_to_u32(const char* text) {
  if (text == nullptr) return 0;
  uint32_t value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    const int digit = hex_digit(*p);
    if (digit < 0) return 0;
    value = value * 16u + static_cast<uint32_t>(digit);  // modulo 2^32 on purpose
  }
  return value;
}

int parse_dhcp_reply(const char* text, link_settings_t* record) {
  if (text == nullptr || record == nullptr) return -1;
  dhcp_fields fields = {};
  char prefix[kDhcpFieldSize] = "^DHCP";

  at_cmd_field* head = nullptr;
  // Its count adds nothing: a missing field is found empty below.
  at_cmd_parse(&head, prefix, text, kDhcpSelector, 0);
  for (const at_cmd_field* field = head; field != nullptr; field = field->next) take_dhcp_field(&fields, field);
  if (head != nullptr) free_at_cmd(head);

  // Stored in this order; a missing one ends the parse with the earlier ones kept.
  const struct {
    const char* text;
    uint32_t* word;
  } stores[] = {
      {fields.clip, &record->ipv4_addr},    {fields.netmask, &record->subnet_mask},
      {fields.gate, &record->gateway},      {fields.pDNS, &record->primary_dns},
      {fields.sDNS, &record->secondary_dns},
  };
  for (const auto& store : stores) {
    if (store.text[0] == '\0') return -1;
    *store.word = hex_to_u32(store.text);
  }
  return 0;
}

int parse_ipv6cap_reply(const char* text, int* capability) {
  if (text == nullptr || capability == nullptr) return -1;
  if (!text_contains(text, "^IPV6CAP")) return -1;
  const char* colon = strchr(text, ':');
  if (colon == nullptr || colon[1] == '\0') return -1;
  const char* value = colon + 1;
  const size_t len = strcspn(value, "\r\n");
  char number[kAtSmallFileSize];
  if (len > sizeof number - 1) return -1;
  memcpy(number, value, len);
  number[len] = '\0';
  const int cap = atoi(number);
  if (cap != 1 && cap != 7) return -1;
  *capability = cap;
  return 0;
}
