include("${CMAKE_CURRENT_LIST_DIR}/common.cmake")

# refuse(FILE EXPRESSION): an archive that must be refused in these words, before anything is unpacked.
function(refuse file expression)
  file(REMOVE_RECURSE "${WORK}/archive")
  execute_process(COMMAND "${CMAKE_COMMAND}" -S "${SOURCE}" -B "${WORK}/archive" -G "${GENERATOR}"
      "-DQTTOVELMIXER_RTAUDIO_SOURCE=${file}"
    RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE output)
  string(REGEX REPLACE "[ \n]+" " " output "${output}")
  if(status EQUAL 0 OR NOT output MATCHES "${expression}")
    message(SEND_ERROR "${file}: not refused in the words ${expression}:\n${output}")
  endif()
  if(EXISTS "${WORK}/archive/carried")
    message(SEND_ERROR "${file} was unpacked")
  endif()
endfunction()

file(WRITE "${WORK}/changed.tar.xz" "not what was asked for")
refuse("${WORK}/changed.tar.xz" "changed.tar.xz is not rtaudio_6.0.1~ds.orig.tar.xz: its SHA-256 is ")
refuse("${WORK}/absent.tar.xz" "QTTOVELMIXER_RTAUDIO_SOURCE: there is no file")
