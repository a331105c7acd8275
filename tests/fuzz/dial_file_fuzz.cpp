// SPDX-License-Identifier: ISC
// The dial file's bytes as the request reader parses them, against what the
// stream reading did: one line of up to 7 characters (fgets into 8 bytes),
// then atoi.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char* bytes = reinterpret_cast<char*>(const_cast<uint8_t*>(data));
  char line[8] = {};
  if (size > 0) {
    FILE* file = fmemopen(bytes, size, "r");
    if (file == nullptr) return 0;
    if (fgets(line, sizeof line, file) == nullptr) line[0] = '\0';
    fclose(file);
  }
  if (wds_dial_parse(bytes, size) != atoi(line)) __builtin_trap();
  return 0;
}
