// Placeholder until the AT response parser lands: nothing can be parsed.
#include "platform/platform.h"

int at_cmd_parse(at_cmd_field** head, const char*, const char*, int, int) {
  if (head != nullptr) *head = nullptr;
  return -1;
}
void free_at_cmd(at_cmd_field*) {}
