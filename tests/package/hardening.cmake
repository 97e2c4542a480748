# cmake -DLIBRARY=... -DREADELF=... -DHARDENED=ON -P hardening.cmake: what the library's file says
# of how it is bound and protected. HARDENED is off where the compiler's part was left out;
# CHECKS_LOCKS is on where threads keep account of their locks.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND "${READELF}" -W --dynamic --program-headers --dyn-syms "${LIBRARY}"
  OUTPUT_VARIABLE elf COMMAND_ERROR_IS_FATAL ANY)

# expect(NAME EXPRESSION)
function(expect name expression)
  if(NOT elf MATCHES "${expression}")
    message(SEND_ERROR "${LIBRARY}: ${name} is missing")
  endif()
endfunction()

expect("immediate binding" "\\(FLAGS\\)[^\n]*BIND_NOW")
expect("read-only relocations" "\n *GNU_RELRO ")
expect("a stack that is not executable" "\n *GNU_STACK +[x0-9a-f]+ [x0-9a-f]+ [x0-9a-f]+ [x0-9a-f]+ [x0-9a-f]+ RW +0x")
if(elf MATCHES "\\(TEXTREL\\)")
  message(SEND_ERROR "${LIBRARY}: code is relocated")
endif()
# A program that is already running has next to no room for it.
if(elf MATCHES "STATIC_TLS")
  message(SEND_ERROR "${LIBRARY}: needs static thread-local storage")
endif()
if(NOT CHECKS_LOCKS AND elf MATCHES "\n *TLS +0x[0-9a-f]+ +0x[0-9a-f]+ +0x[0-9a-f]+ +0x[0-9a-f]+ +0x0*([1-9a-f][0-9a-f]*) ")
  math(EXPR bytes "0x${CMAKE_MATCH_1}")
  if(bytes GREATER 16)
    message(SEND_ERROR "${LIBRARY}: ${bytes} bytes of thread-local storage")
  endif()
endif()
expect("the mark against unloading" "\\(FLAGS_1\\)[^\n]*NODELETE")
if(HARDENED)
  expect("the stack protector" " __stack_chk_fail@")
  expect("checked C library calls" " __[a-z]+_chk@")
endif()
