# Warnings are errors for every target of the project, with g++ and clang alike.
add_compile_options(-Wall -Wextra -Werror)
if(WDS_SANITIZE)
  add_compile_options(-fsanitize=${WDS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${WDS_SANITIZE})
endif()
if(WDS_FUZZ)
  # Coverage for libFuzzer in every library; the targets add the driver.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
