include("${CMAKE_CURRENT_LIST_DIR}/common.cmake")

# The folder is kept between runs: this builds the library a second time.
set(build "${WORK}/add_subdirectory")
set(ENV{CMAKE_CXX_COMPILER_LAUNCHER} "${LAUNCHER}") # a list, perhaps
run("${CMAKE_COMMAND}" -S "${CMAKE_CURRENT_LIST_DIR}/subproject" -B "${build}" -G "${GENERATOR}"
  "-DCMAKE_CXX_FLAGS=-O0" "-DCMAKE_CXX_COMPILER=${COMPILER}"
  "-DQTTOVELMIXER_PCH=${PCH}"
  "-DQTTOVELMIXER_RTAUDIO_SOURCE=${RTAUDIO_SOURCE}"
  "-DLIBRARY_SOURCE=${SOURCE}" "-DHOST_SOURCE=${HOST_SOURCE}")
run("${CMAKE_COMMAND}" --build "${build}")
run_host("${build}/embedding_host")
