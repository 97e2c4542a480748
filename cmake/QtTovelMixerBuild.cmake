# Settings that every target of this project shares.

if(PROJECT_IS_TOP_LEVEL)
  if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
  endif()
  find_program(CCACHE ccache)
  if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_C_COMPILER_LAUNCHER "${CCACHE}")
    set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
  endif()
  set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
endif()

# Multiply and add stay two roundings: the mix must give the same bits on every machine.
add_library(qttovelmixer_warnings INTERFACE)
target_compile_options(qttovelmixer_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
  -ffp-contract=off
  # Not every one of the processors that vector code is compiled for needs all its functions.
  $<$<CXX_COMPILER_ID:Clang>:-Wno-unneeded-internal-declaration>)
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(qttovelmixer_warnings INTERFACE -Werror)
endif()
set_target_properties(qttovelmixer_warnings PROPERTIES EXPORT_NAME warnings)

# What an attacker would find in the way. The checks need an optimiser, and a program without
# sanitizers, which have their own. Lazy binding would also resolve symbols, that is take locks, on
# the audio thread.
add_library(qttovelmixer_hardening INTERFACE)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  target_link_options(qttovelmixer_hardening INTERFACE
    -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
  if(NOT QTTOVELMIXER_SANITIZE)
    target_compile_options(qttovelmixer_hardening INTERFACE
      "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3;-fstack-protector-strong;-fstack-clash-protection>")
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
      target_compile_options(qttovelmixer_hardening INTERFACE
        "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-fcf-protection>")
    endif()
  endif()
endif()

if(QTTOVELMIXER_SANITIZE)
  add_compile_options(-fsanitize=${QTTOVELMIXER_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QTTOVELMIXER_SANITIZE})
endif()
