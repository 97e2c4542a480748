# Settings that every target of this project shares.

if(PROJECT_IS_TOP_LEVEL)
  if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
  endif()
  find_program(CCACHE ccache)
  if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # Without this leave ccache compiles whatever includes a precompiled header anew.
    set(launcher "${CMAKE_COMMAND}" -E env CCACHE_SLOPPINESS=pch_defines,time_macros "${CCACHE}")
    set(CMAKE_C_COMPILER_LAUNCHER ${launcher})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${launcher})
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
  target_compile_options(qttovelmixer_warnings INTERFACE -Werror
    # A precompiled header that does not fit is not used: slower, not wrong.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-error=invalid-pch>)
endif()
set_target_properties(qttovelmixer_warnings PROPERTIES EXPORT_NAME warnings)

# The headers of others that most sources include take longer to read than the sources to compile.
# Precompiled, they are there whether a source includes them or not: builds without it (the presets of
# ./dev check) find the includes that are missing.
option(QTTOVELMIXER_PCH "Precompile what most sources include" OFF)
set(qttovelmixer_pch
  <QtCore/QByteArray> <QtCore/QCoreApplication> <QtCore/QDebug> <QtCore/QDeadlineTimer>
  <QtCore/QElapsedTimer> <QtCore/QFile> <QtCore/QFileInfo> <QtCore/QJsonArray>
  <QtCore/QJsonDocument> <QtCore/QJsonObject> <QtCore/QMutex> <QtCore/QObject> <QtCore/QPointer>
  <QtCore/QSemaphore> <QtCore/QString> <QtCore/QStringList> <QtCore/QThread>
  <algorithm> <array> <atomic> <chrono> <cmath> <functional> <limits> <memory> <optional> <thread>
  <vector>)

# qttovelmixer_precompile(TARGET): a precompiled header for the sources of TARGET.
function(qttovelmixer_precompile target)
  if(QTTOVELMIXER_PCH)
    target_precompile_headers(${target} PRIVATE ${qttovelmixer_pch})
  endif()
endfunction()

# qttovelmixer_share_pch(TARGET FROM): the same with the one that FROM has, whose flags TARGET shares.
# What AUTOMOC adds to a program whose only source includes its own .moc file is nearly empty.
function(qttovelmixer_share_pch target from)
  if(QTTOVELMIXER_PCH)
    target_precompile_headers(${target} REUSE_FROM ${from})
    set_source_files_properties("${CMAKE_CURRENT_BINARY_DIR}/${target}_autogen/mocs_compilation.cpp"
      PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
  endif()
endfunction()

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
