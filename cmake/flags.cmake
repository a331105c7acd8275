# SPDX-License-Identifier: ISC
# Warnings for every target of the project, with g++ and clang alike; the
# project's presets and CI make them errors (WDS_WERROR), a packager's plain
# build does not.
option(WDS_WERROR "Treat warnings as errors" OFF)
add_compile_options(-Wall -Wextra)
if(WDS_WERROR)
  add_compile_options(-Werror)
endif()
if(WDS_SANITIZE)
  add_compile_options(-fsanitize=${WDS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${WDS_SANITIZE})
endif()
if(WDS_FUZZ)
  # Coverage for libFuzzer in every library; the targets add the driver.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
