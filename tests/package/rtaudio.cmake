include("${CMAKE_CURRENT_LIST_DIR}/common.cmake")

# What a host must have of RtAudio: nothing, but for the header of its devices, which comes along.
set(headers "${PREFIX}/include/qttovelmixer")
foreach(file IN ITEMS "${headers}/rtaudio/RtAudio.h" "${PREFIX}/share/licenses/qttovelmixer/RtAudio.txt")
  if(NOT EXISTS "${file}")
    message(SEND_ERROR "${file} is not installed")
  endif()
endforeach()
file(GLOB_RECURSE package "${PREFIX}/lib/*.cmake" "${PREFIX}/lib/*.pc")
foreach(file IN LISTS package)
  file(READ "${file}" text)
  if(text MATCHES "FindRtAudio|RtAudio6|rtaudio *>=|-lrtaudio")
    message(SEND_ERROR "${file} asks hosts for RtAudio")
  endif()
endforeach()

file(GLOB_RECURSE pc_file "${PREFIX}/*/qttovelmixer.pc")
cmake_path(GET pc_file PARENT_PATH pc_folder)
set(ENV{PKG_CONFIG_PATH} "${pc_folder}:$ENV{PKG_CONFIG_PATH}")
run("${PKG_CONFIG}" --cflags qttovelmixer)
separate_arguments(flags UNIX_COMMAND "${run_output}")

# compile(NAME INCLUDES EXPRESSION FLAG...): preprocesses a file of these includes. An EXPRESSION is
# what must be said while it is refused; an empty one asks for success.
function(compile name includes expression)
  set(source "${WORK}/rtaudio_${name}.cpp")
  string(REPLACE ";" "\n" includes "${includes}")
  file(WRITE "${source}" "${includes}\n")
  execute_process(COMMAND "${COMPILER}" -std=c++20 -fPIC -M ${ARGN} ${flags} "${source}"
    RESULT_VARIABLE status OUTPUT_VARIABLE files ERROR_VARIABLE output)
  if(expression STREQUAL "")
    if(NOT status EQUAL 0)
      message(SEND_ERROR "${name}: ${output}")
    endif()
  elseif(status EQUAL 0 OR NOT output MATCHES "${expression}")
    message(SEND_ERROR "${name}: not refused in the words ${expression}:\n${output}")
  endif()
  set(compiled_files "${files}" PARENT_SCOPE)
endfunction()

compile(umbrella "#include <QTovelMixer>" "")
if(compiled_files MATCHES "RtAudio\\.h")
  message(SEND_ERROR "<QTovelMixer> includes a header of RtAudio")
endif()
compile(device "#include <mixer/api/rtaudio_device.h>" "")
if(NOT compiled_files MATCHES "qttovelmixer/rtaudio/RtAudio\\.h")
  message(SEND_ERROR "the device does not include the header that comes along: ${compiled_files}")
endif()

set(other "${WORK}/other_rtaudio")
file(WRITE "${other}/rtaudio/RtAudio.h"
  "#ifndef __RTAUDIO_H\n#define __RTAUDIO_H\nclass RtAudio { public: struct DeviceInfo {}; };\n#endif\n")
compile(instead "#include <mixer/api/rtaudio_device.h>" "#error \"another rtaudio/RtAudio.h"
  "-I${other}")
compile(before "#include \"${other}/rtaudio/RtAudio.h\";#include <mixer/api/rtaudio_device.h>"
  "#error \"another RtAudio.h")
