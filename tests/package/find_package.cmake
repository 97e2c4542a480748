include("${CMAKE_CURRENT_LIST_DIR}/common.cmake")

set(build "${WORK}/find_package")
file(REMOVE_RECURSE "${build}")
run("${CMAKE_COMMAND}" -S "${CMAKE_CURRENT_LIST_DIR}/outside" -B "${build}" -G "${GENERATOR}"
  "-DCMAKE_BUILD_TYPE=Debug" "-DCMAKE_CXX_COMPILER=${COMPILER}"
  "-DQtTovelMixer_ROOT=${PREFIX}" "-DHOST_SOURCE=${HOST_SOURCE}"
  "-DPLAYER_SOURCE=${SOURCE}/docs/samples/virtual_device.cpp")
run("${CMAKE_COMMAND}" --build "${build}")
run_host("${build}/outside_host")
# A second of its tone, mixed without a sound card.
run("${build}/outside_player")
if(NOT run_output MATCHES "4[89][0-9][0-9][0-9] frames")
  message(FATAL_ERROR "the host did not hear its tone:\n${run_output}")
endif()
