# cmake -DSOURCE=... -P headers.cmake: fails when a header shows another library to whoever includes
# it. RtAudio's may be seen by users of its devices only.
cmake_minimum_required(VERSION 3.25)

set(foreign "RtAudio|rtaudio|hwy|soxr|samplerate|ebur128")
set(adapters mixer/api/rtaudio_device.h)

set(complaints "")
set(count 0)
file(GLOB_RECURSE headers RELATIVE "${SOURCE}" "${SOURCE}/base/*.h" "${SOURCE}/dsp/*.h"
  "${SOURCE}/mixer/*.h")
foreach(header IN LISTS headers)
  math(EXPR count "${count} + 1")
  file(STRINGS "${SOURCE}/${header}" lines REGEX "^ *# *include *[<\"](${foreign})(/|\\.h)")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^ *# *include *[<\"]([^>\"]+)[>\"].*" "\\1" included "${line}")
    if(included MATCHES "^(RtAudio|rtaudio)" AND header IN_LIST adapters)
      continue()
    endif()
    list(APPEND complaints "${header} shows ${included}")
  endforeach()
endforeach()

if(count EQUAL 0)
  message(FATAL_ERROR "no headers below ${SOURCE}")
endif()
if(complaints)
  list(JOIN complaints "\n" complaints)
  message(FATAL_ERROR "${complaints}")
endif()
message(STATUS "${count} headers show no other library")
