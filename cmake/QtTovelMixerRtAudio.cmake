# RtAudio, carried: its two files are taken from the verified source archive, patched, and compiled
# into the library, hidden; see third_party/rtaudio/README.md.
#
# Defines qttovelmixer_rtaudio, an interface target for the library and for the tests that are linked
# with its objects: where the patched header lies and what the platform's sound systems need.

set(rtaudio_name "rtaudio_6.0.1~ds.orig.tar.xz")
set(rtaudio_hash a49a9e09f2a463ef81f5ed6c562346fa51537541835df460e1387dc703f79ead)
set(rtaudio_url "http://deb.debian.org/debian/pool/main/r/rtaudio/${rtaudio_name}")
set(QTTOVELMIXER_RTAUDIO_SOURCE "" CACHE FILEPATH
  "RtAudio's source archive ${rtaudio_name}; empty: the one that ./dev has fetched, else it is downloaded")

set(rtaudio_patches "${PROJECT_SOURCE_DIR}/third_party/rtaudio/patches")
set(rtaudio_root "${PROJECT_BINARY_DIR}/carried") # hosts include <rtaudio/RtAudio.h>
set(rtaudio_folder "${rtaudio_root}/rtaudio")

# Where ./dev keeps what it fetches.
function(find_fetched_archive result)
  if(DEFINED ENV{QTTOVELMIXER_CACHE})
    set(cache "$ENV{QTTOVELMIXER_CACHE}")
  elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(cache "$ENV{XDG_CACHE_HOME}/qttovelmixer")
  else()
    set(cache "$ENV{HOME}/.cache/qttovelmixer")
  endif()
  set(${result} "${cache}/${rtaudio_name}" PARENT_SCOPE)
endfunction()

# The archive's path; its hash is right.
function(provide_archive result)
  set(archive "${QTTOVELMIXER_RTAUDIO_SOURCE}")
  if(NOT archive)
    find_fetched_archive(archive)
  endif()
  if(NOT EXISTS "${archive}" AND NOT QTTOVELMIXER_RTAUDIO_SOURCE)
    set(archive "${PROJECT_BINARY_DIR}/${rtaudio_name}")
    if(NOT EXISTS "${archive}")
      message(STATUS "fetching ${rtaudio_url}")
      file(DOWNLOAD "${rtaudio_url}" "${archive}" STATUS status TIMEOUT 60)
      list(GET status 0 failed)
      if(failed)
        file(REMOVE "${archive}")
        message(FATAL_ERROR "cannot fetch ${rtaudio_url}: ${status}\n"
          "Without a network say -DQTTOVELMIXER_RTAUDIO_SOURCE=FILE, where FILE is this archive.")
      endif()
    endif()
  endif()
  if(NOT EXISTS "${archive}")
    message(FATAL_ERROR "QTTOVELMIXER_RTAUDIO_SOURCE: there is no file ${archive}")
  endif()
  file(SHA256 "${archive}" hash)
  if(NOT hash STREQUAL rtaudio_hash)
    message(FATAL_ERROR "${archive} is not ${rtaudio_name}: its SHA-256 is ${hash}, not ${rtaudio_hash}")
  endif()
  set(${result} "${archive}" PARENT_SCOPE)
endfunction()

# Unpacks and patches, when archive or patches have changed since.
function(unpack_rtaudio)
  file(GLOB patches CONFIGURE_DEPENDS "${rtaudio_patches}/*.patch")
  set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${patches})
  set(state "${rtaudio_hash}")
  foreach(patch IN LISTS patches)
    file(SHA256 "${patch}" hash)
    string(APPEND state "\n${hash}")
  endforeach()
  if(EXISTS "${rtaudio_folder}/state")
    file(READ "${rtaudio_folder}/state" before)
    if(before STREQUAL state)
      return()
    endif()
  endif()
  provide_archive(archive)
  find_program(QTTOVELMIXER_PATCH patch REQUIRED)
  set(work "${PROJECT_BINARY_DIR}/rtaudio-unpacked")
  file(REMOVE_RECURSE "${work}" "${rtaudio_folder}")
  file(ARCHIVE_EXTRACT INPUT "${archive}" DESTINATION "${work}"
    PATTERNS "*/RtAudio.cpp" "*/RtAudio.h" "*/LICENSE")
  file(GLOB unpacked "${work}/*/RtAudio.cpp" "${work}/*/RtAudio.h" "${work}/*/LICENSE")
  file(COPY ${unpacked} DESTINATION "${rtaudio_folder}")
  file(REMOVE_RECURSE "${work}")
  foreach(patch IN LISTS patches)
    execute_process(COMMAND "${QTTOVELMIXER_PATCH}" -p1 --fuzz=0 --batch -i "${patch}"
      WORKING_DIRECTORY "${rtaudio_folder}" RESULT_VARIABLE failed OUTPUT_VARIABLE output
      ERROR_VARIABLE output)
    if(failed)
      message(FATAL_ERROR "${patch} does not apply:\n${output}")
    endif()
  endforeach()
  file(WRITE "${rtaudio_folder}/state" "${state}")
endfunction()

# add_sound_system(DEFINITION MODULE): compiled in where its development files are installed.
function(add_sound_system definition module)
  string(TOUPPER "QTTOVELMIXER_${module}" prefix)
  pkg_check_modules(${prefix} QUIET IMPORTED_TARGET GLOBAL ${module})
  if(${prefix}_FOUND)
    target_link_libraries(qttovelmixer_rtaudio INTERFACE PkgConfig::${prefix})
    set(rtaudio_definitions ${rtaudio_definitions} ${definition} PARENT_SCOPE)
  else()
    message(STATUS "${module} is not installed: real devices are built without it")
  endif()
endfunction()

unpack_rtaudio()
add_library(qttovelmixer_rtaudio INTERFACE)
target_include_directories(qttovelmixer_rtaudio SYSTEM INTERFACE "${rtaudio_root}")
set(rtaudio_definitions "")
if(WIN32)
  list(APPEND rtaudio_definitions __WINDOWS_WASAPI__ __WINDOWS_DS__)
  target_link_libraries(qttovelmixer_rtaudio
    INTERFACE ksuser mfplat mfuuid wmcodecdspuuid dsound winmm ole32)
elseif(APPLE)
  list(APPEND rtaudio_definitions __MACOSX_CORE__)
  target_link_libraries(qttovelmixer_rtaudio INTERFACE "-framework CoreAudio" "-framework CoreFoundation")
else()
  add_sound_system(__LINUX_ALSA__ alsa)
  add_sound_system(__UNIX_JACK__ jack)
  add_sound_system(QTOVELMIXER_PULSE libpulse)
endif()

# Its warnings are not ours to mend. What its own threads share without synchronisation is hidden
# from the thread sanitizer, as that of every library that comes compiled is.
target_sources(qttovelmixer PRIVATE "${rtaudio_folder}/RtAudio.cpp")
set(rtaudio_options -w)
if("thread" IN_LIST QTTOVELMIXER_SANITIZE)
  list(APPEND rtaudio_options -fno-sanitize=thread)
endif()
set_source_files_properties("${rtaudio_folder}/RtAudio.cpp" PROPERTIES
  SKIP_AUTOMOC ON
  SKIP_PRECOMPILE_HEADERS ON
  COMPILE_DEFINITIONS "${rtaudio_definitions}"
  COMPILE_OPTIONS "${rtaudio_options}")
target_include_directories(qttovelmixer SYSTEM PUBLIC "$<BUILD_INTERFACE:${rtaudio_root}>")
target_link_libraries(qttovelmixer PRIVATE qttovelmixer_rtaudio)

install(FILES "${rtaudio_folder}/RtAudio.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/qttovelmixer/rtaudio")
install(FILES "${rtaudio_folder}/LICENSE"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/licenses/qttovelmixer" RENAME RtAudio.txt)
