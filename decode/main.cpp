// SPDX-License-Identifier: ISC
// wds-decode [FILE] | --version: a wds.log (or the simulator's device log) made
// readable. Every record is printed as it is; each hex dump of a WDS
// message becomes the message named with its fields. Reads standard input
// without FILE.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "decode/decode.h"
#include "wds_version.h"

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "--version") == 0) {
    printf("wds-decode %s\n", WDS_VERSION);
    return 0;
  }
  if (argc > 2 || (argc == 2 && argv[1][0] == '-' && argv[1][1] != '\0')) {
    fprintf(stderr, "usage: wds-decode [FILE]\n       wds-decode --version\n");
    return 2;
  }
  std::ifstream file;
  if (argc == 2 && strcmp(argv[1], "-") != 0) {
    file.open(argv[1], std::ios::binary);
    if (!file) {
      fprintf(stderr, "wds-decode: %s: %s\n", argv[1], strerror(errno));
      return 1;
    }
  }
  std::istream& in = file.is_open() ? static_cast<std::istream&>(file) : std::cin;
  wdsdecode::LogDecoder decoder([](std::string_view line) {
    fwrite(line.data(), 1, line.size(), stdout);
    fputc('\n', stdout);
  });
  for (std::string line; std::getline(in, line);) decoder.line(line);
  decoder.finish();
  return fflush(stdout) == 0 && !ferror(stdout) ? 0 : 1;
}
