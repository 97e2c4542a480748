# cmake -DLIBRARY=... -DNM=... -DREADELF=... -P symbols.cmake: RtAudio is inside the library, and no
# name of it leaves it.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND "${NM}" -DC --defined-only "${LIBRARY}" OUTPUT_VARIABLE names
  COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "\n" ";" names "${names}")
set(own 0)
foreach(name IN LISTS names)
  if(name MATCHES " QTovelMixer(RtAudioDevice|ApiRtAudio)::")
    math(EXPR own "${own} + 1") # our own, which take records of RtAudio
  elseif(name MATCHES "qttovelmixer_rtaudio|RtApi|rtaudio_(api_names|compiled_apis|num_)| RtAudio::")
    message(SEND_ERROR "the library exports ${name}")
  endif()
endforeach()
if(own EQUAL 0)
  message(SEND_ERROR "${LIBRARY} has no device of RtAudio at all")
endif()

execute_process(COMMAND "${READELF}" -W --dynamic "${LIBRARY}" OUTPUT_VARIABLE dynamic
  COMMAND_ERROR_IS_FATAL ANY)
if(dynamic MATCHES "\\(NEEDED\\)[^\n]*rtaudio")
  message(SEND_ERROR "${LIBRARY} needs a shared RtAudio")
endif()
