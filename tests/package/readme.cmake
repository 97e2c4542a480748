include("${CMAKE_CURRENT_LIST_DIR}/common.cmake")

# The host that the README quotes is the one that is compiled.
file(READ "${SOURCE}/README.md" readme)
file(READ "${HOST_SOURCE}" host)
string(FIND "${readme}" "```cpp\n${host}```" position)
if(position EQUAL -1)
  message(FATAL_ERROR "README.md does not quote examples/minimal_host/main.cpp word for word")
endif()
