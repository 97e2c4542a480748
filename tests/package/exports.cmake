# cmake -DLIBRARY=... -DREADELF=... -P exports.cmake: the library shows its public interface and
# nothing else.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND "${READELF}" -W --dyn-syms "${LIBRARY}"
  OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "(GLOBAL|WEAK|UNIQUE) +DEFAULT +[0-9]+ [^ \n]+" defined "${symbols}")

set(count 0)
foreach(line IN LISTS defined)
  string(REGEX REPLACE ".* " "" name "${line}")
  math(EXPR count "${count} + 1")
  # Functions of C, members of the namespace, of the backends and of their devices, what describes
  # their types.
  if(NOT name MATCHES "^(BLDEBUG|BLRINGBUFFER|BLTHREAD|DSPB)_|^QtTovelMixer|^_ZN?K?[0-9]*QTovelMixer|^_ZT[ISV]N?[0-9]*QTovelMixer|^_ZThn?[0-9]+_NK?[0-9]*QTovelMixer")
    message(SEND_ERROR "${name} is exported")
  # The private records.
  elseif(name MATCHES "^_ZN?K?(11QTovelMixer[0-9]+[A-Za-z]+|[0-9]+QTovelMixer[A-Za-z]+)(4Data|[0-9]+[A-Z][A-Za-z]*Data)|Access")
    message(SEND_ERROR "${name} is exported, and private")
  endif()
endforeach()
if(count EQUAL 0)
  message(FATAL_ERROR "${LIBRARY} exports nothing")
endif()
message(STATUS "${count} symbols")
