// gtest main for programs whose tests use the daemon's fixed paths under /var.
#include <gtest/gtest.h>

#include <cstdio>

#include "private_var.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::string why;
  if (!enter_private_var(&why)) {
    fprintf(stderr, "cannot make a private /var (%s); these tests need root\n", why.c_str());
    return 1;
  }
  return RUN_ALL_TESTS();
}
