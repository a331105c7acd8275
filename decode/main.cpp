// SPDX-License-Identifier: ISC
// wds-decode [--diagnose] [FILE] | --version: a wds.log (or the simulator's
// device log) made readable. Every record is printed as it is; each hex dump of a WDS
// message becomes the message named with its fields. With --diagnose, a
// timeline of bring-ups and calls and the fault signatures of the log
// instead. Reads standard input without FILE.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "decode/decode.h"
#include "decode/diagnose.h"
#include "wds_version.h"

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "--version") == 0) {
    printf("wds-decode %s\n", WDS_VERSION);
    return 0;
  }
  int first = 1;
  const bool diagnose = argc > 1 && strcmp(argv[1], "--diagnose") == 0;
  if (diagnose) ++first;
  if (argc - first > 1 || (argc - first == 1 && argv[first][0] == '-' && argv[first][1] != '\0')) {
    fprintf(stderr, "usage: wds-decode [--diagnose] [FILE]\n       wds-decode --version\n");
    return 2;
  }
  std::ifstream file;
  if (argc - first == 1 && strcmp(argv[first], "-") != 0) {
    file.open(argv[first], std::ios::binary);
    if (!file) {
      fprintf(stderr, "wds-decode: %s: %s\n", argv[first], strerror(errno));
      return 1;
    }
  }
  std::istream& in = file.is_open() ? static_cast<std::istream&>(file) : std::cin;
  if (diagnose) {
    const std::string log{std::istreambuf_iterator<char>(in), {}};
    fputs(wdsdecode::diagnose(log).c_str(), stdout);
  } else {
    wdsdecode::LogDecoder decoder([](std::string_view line) {
      fwrite(line.data(), 1, line.size(), stdout);
      fputc('\n', stdout);
    });
    for (std::string line; std::getline(in, line);) decoder.line(line);
    decoder.finish();
  }
  return fflush(stdout) == 0 && !ferror(stdout) ? 0 : 1;
}
