# Warnings as errors, source-relative __FILE__ in log records, optional sanitizers and coverage.
add_compile_options(-Wall -Wextra -Wpedantic -Werror)

# Log records name their source file relative to the repository root, whatever the build tree.
add_compile_options("-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")

if(DRX_BUILD_FUZZERS)
  add_compile_options(-fsanitize=address,undefined,fuzzer-no-link -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(DRX_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(DRX_SANITIZE_THREAD)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

if(DRX_COVERAGE)
  add_compile_options(--coverage -O0)
  add_link_options(--coverage)
endif()
