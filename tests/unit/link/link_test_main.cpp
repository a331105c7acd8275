// gtest main: every test of the link module runs inside the sandbox.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "link_sandbox.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!GTEST_FLAG_GET(list_tests)) {
    std::string why;
    if (!enter_link_sandbox(&why)) {
      fprintf(stderr, "cannot enter the link test sandbox (%s); these tests need root\n", why.c_str());
      return 1;
    }
  }
  return RUN_ALL_TESTS();
}
