# One INTERFACE target carries the warning and sanitizer options for every
# library and executable of the project.
add_library(ndpx_options INTERFACE)
target_compile_options(ndpx_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wformat=2 -Werror=format-security)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(ndpx_options INTERFACE -Wthread-safety)
endif()
# CI turns warnings into errors; users building with another compiler
# version should not be stopped by a warning it adds.
option(NDPX_WERROR "Treat compiler warnings as errors" OFF)
if(NDPX_WERROR)
  target_compile_options(ndpx_options INTERFACE -Werror)
  # GCC warns that sanitizers bring false -Wmaybe-uninitialized reports (one
  # in <regex> under ASan); the plain build still fails on that warning.
  if(NOT NDPX_SANITIZE STREQUAL "" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(ndpx_options INTERFACE -Wno-error=maybe-uninitialized)
  endif()
endif()

# Sanitizer builds trade optimisation for build time: the checks find the
# same faults, an unoptimised ASan build compiles in less than half the time
# of an -O2 one, and the tests they run mostly wait on processes and sockets.
# The race detector keeps -O1, as it slows the code itself far more.
if(NDPX_SANITIZE STREQUAL "address")
  target_compile_options(ndpx_options INTERFACE -O0 -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_link_options(ndpx_options INTERFACE -fsanitize=address,undefined)
elseif(NDPX_SANITIZE STREQUAL "thread")
  target_compile_options(ndpx_options INTERFACE -O1 -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(ndpx_options INTERFACE -fsanitize=thread)
elseif(NOT NDPX_SANITIZE STREQUAL "")
  message(FATAL_ERROR "NDPX_SANITIZE must be empty, 'address' or 'thread'")
endif()

