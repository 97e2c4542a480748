include("${CMAKE_CURRENT_LIST_DIR}/common.cmake")

set(build "${WORK}/find_package")
file(REMOVE_RECURSE "${build}")
run("${CMAKE_COMMAND}" -S "${CMAKE_CURRENT_LIST_DIR}/outside" -B "${build}" -G "${GENERATOR}"
  "-DCMAKE_BUILD_TYPE=Debug" "-DCMAKE_CXX_COMPILER=${COMPILER}"
  "-DQtTovelMixer_ROOT=${PREFIX}" "-DHOST_SOURCE=${HOST_SOURCE}")
run("${CMAKE_COMMAND}" --build "${build}")
run_host("${build}/outside_host")
