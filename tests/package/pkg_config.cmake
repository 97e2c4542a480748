include("${CMAKE_CURRENT_LIST_DIR}/common.cmake")

file(GLOB_RECURSE pc_file "${PREFIX}/*/qttovelmixer.pc")
cmake_path(GET pc_file PARENT_PATH pc_folder)
cmake_path(GET pc_folder PARENT_PATH library_folder)
set(ENV{PKG_CONFIG_PATH} "${pc_folder}:$ENV{PKG_CONFIG_PATH}")
run("${PKG_CONFIG}" --cflags --libs qttovelmixer)
separate_arguments(flags UNIX_COMMAND "${run_output}")
set(program "${WORK}/pkg_config_host")
run("${COMPILER}" -std=c++20 -fPIC "${HOST_SOURCE}" -o "${program}" ${flags}
  "-Wl,-rpath,${library_folder}")
run_host("${program}")
