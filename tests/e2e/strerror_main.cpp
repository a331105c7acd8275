// SPDX-License-Identifier: ISC
// wds-strerror ERRNO: prints what strerror() of the C library it was built
// with says for ERRNO. Built beside wdsd with the daemon's toolchain, it
// tells the end-to-end tests the texts the daemon's error records carry.
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
  if (argc != 2) {
    fputs("usage: wds-strerror ERRNO\n", stderr);
    return 2;
  }
  printf("%s\n", strerror(atoi(argv[1])));
  return 0;
}
