// SPDX-License-Identifier: ISC
// AT response parser stand-in: finds the reply line that carries a prefix,
// splits its comma-separated values and names them by a layout chosen with
// the selector. The list lives on the heap until free_at_cmd.
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace {

constexpr int kMaxLayoutFields = 8;

struct at_line_layout {
  int selector;
  int count;
  const char* names[kMaxLayoutFields];
};

constexpr at_line_layout kLayouts[] = {
    // "^DHCP: clip,netmask,gate,dhcp,pDNS,sDNS,max_rx_data,max_tx_data"
    {9, 8, {"clip", "netmask", "gate", "dhcp", "pDNS", "sDNS", "max_rx_data", "max_tx_data"}},
};

const at_line_layout* find_layout(int selector) {
  for (const auto& layout : kLayouts) {
    if (layout.selector == selector) return &layout;
  }
  return nullptr;
}

// The values of the first occurrence of `prefix` that is followed by blanks and
// a colon; an echoed command ("AT^DHCP?") carries the prefix but no colon.
const char* find_values(const char* text, const char* prefix) {
  const size_t prefix_len = strlen(prefix);
  for (const char* at = strstr(text, prefix); at != nullptr; at = strstr(at + 1, prefix)) {
    const char* p = at + prefix_len;
    while (isblank(static_cast<unsigned char>(*p))) ++p;
    if (*p == ':') return p + 1;
  }
  return nullptr;
}

char* copy_text(const char* text, size_t len) {
  char* copy = static_cast<char*>(malloc(len + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, len);
  copy[len] = '\0';
  return copy;
}

// Appends one named field; false when memory ran out.
bool append_field(at_cmd_field*** tail, const char* name, const char* value, size_t value_len) {
  auto* field = static_cast<at_cmd_field*>(malloc(sizeof(at_cmd_field)));
  if (field == nullptr) return false;
  field->name = copy_text(name, strlen(name));
  field->value = value_len > 0 ? copy_text(value, value_len) : nullptr;
  field->next = nullptr;
  **tail = field;
  *tail = &field->next;
  return field->name != nullptr && (value_len == 0 || field->value != nullptr);
}

}  // namespace

int at_cmd_parse(at_cmd_field** head, const char* prefix, const char* text, int selector, int flags) {
  if (head == nullptr) return -1;
  *head = nullptr;
  if (prefix == nullptr || prefix[0] == '\0' || text == nullptr || flags != 0) return -1;
  const at_line_layout* layout = find_layout(selector);
  if (layout == nullptr) return -1;
  const char* values = find_values(text, prefix);
  if (values == nullptr) return -1;

  const char* const line_end = values + strcspn(values, "\r\n");
  at_cmd_field** tail = head;
  int count = 0;
  const char* p = values;
  while (count < layout->count) {
    const char* end = p;
    while (end < line_end && *end != ',') ++end;
    const char* first = p;
    const char* last = end;
    while (first < last && isblank(static_cast<unsigned char>(*first))) ++first;
    while (last > first && isblank(static_cast<unsigned char>(last[-1]))) --last;
    if (!append_field(&tail, layout->names[count], first, static_cast<size_t>(last - first))) {
      free_at_cmd(*head);
      *head = nullptr;
      return -1;
    }
    ++count;
    if (end >= line_end) break;
    p = end + 1;
  }
  return count;
}

void free_at_cmd(at_cmd_field* head) {
  while (head != nullptr) {
    at_cmd_field* next = head->next;
    free(head->name);
    free(head->value);
    free(head);
    head = next;
  }
}
