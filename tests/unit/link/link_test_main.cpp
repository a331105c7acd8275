// gtest main: the link tests run in a network namespace of their own (so the
// bus peers are theirs alone) and in a private /var.
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "tests/unit/support/private_var.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
  std::string why;
  if (unshare(CLONE_NEWNET) != 0) {
    why = std::string("unshare(CLONE_NEWNET): ") + strerror(errno);
  } else if (enter_private_var(&why)) {
    return RUN_ALL_TESTS();
  }
  fprintf(stderr, "cannot enter the link test sandbox (%s); these tests need root\n", why.c_str());
  return 1;
}
