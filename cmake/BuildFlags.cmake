# Warnings and sanitizer flags travel on an interface target that each of the
# project's own targets links privately; nothing is set globally.
add_library(talvoem_build_flags INTERFACE)
target_compile_options(talvoem_build_flags INTERFACE -Wall -Wextra)
# clang checks the lock annotations (platform/include/talvoem/ThreadAnnotations.h)
# at compile time, inside the library (TALVOEM_BUILDING_LIBRARY).
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(talvoem_build_flags INTERFACE -Wthread-safety)
endif()
if(TALVOEM_WERROR)
  target_compile_options(talvoem_build_flags INTERFACE -Werror)
endif()

if(TALVOEM_SANITIZE STREQUAL "address")
  set(_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(TALVOEM_SANITIZE STREQUAL "thread")
  set(_san -fsanitize=thread)
elseif(TALVOEM_SANITIZE STREQUAL "fuzzer")
  # Coverage instrumentation for every target; fuzz targets add -fsanitize=fuzzer
  # at link time for libFuzzer's main.
  set(_san -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
           -fno-omit-frame-pointer)
elseif(NOT TALVOEM_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TALVOEM_SANITIZE must be empty, address, thread or fuzzer")
endif()
if(_san)
  target_compile_options(talvoem_build_flags INTERFACE ${_san})
  target_link_options(talvoem_build_flags INTERFACE ${_san})
endif()
