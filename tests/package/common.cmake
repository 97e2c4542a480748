# What the package tests share. Each is a script: cmake -DSOURCE=... -DBUILD=... -P NAME.cmake
# SOURCE is the project's tree, BUILD its build folder, WORK a folder for this test.
cmake_minimum_required(VERSION 3.25)

# run(COMMAND...): ends the test with the command's output when it fails.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    list(JOIN ARGV " " command)
    message(FATAL_ERROR "${command}\nended with ${status}:\n${output}")
  endif()
  set(run_output "${output}" PARENT_SCOPE)
endfunction()

# run_host(PROGRAM): records a second of a file whose every sample is 0x4040, about 0.502.
function(run_host program)
  string(REPEAT "@@@@" 44100 samples)
  file(WRITE "${WORK}/tone.raw" "${samples}")
  run("${program}" "${WORK}/tone.raw")
  if(NOT run_output MATCHES "peak 0\\.50195")
    message(FATAL_ERROR "the host did not hear its input:\n${run_output}")
  endif()
  execute_process(COMMAND "${program}" "${WORK}/missing.raw" RESULT_VARIABLE status
    OUTPUT_QUIET ERROR_QUIET)
  if(NOT status EQUAL 1)
    message(FATAL_ERROR "the host ended with ${status} on a missing file, not with 1")
  endif()
endfunction()

set(HOST_SOURCE "${SOURCE}/examples/minimal_host/main.cpp")
