# Compares the defined dynamic symbols of a shared library with its interface list.
#   -DNM=<nm of the target toolchain> -DLIBRARY=<library> -DEXPECTED=<list file>
#   -DCHECK=unexpected   fails on any defined symbol that is not in the list
#   -DCHECK=expected     fails on any name of the list that is not defined
cmake_minimum_required(VERSION 3.22)

execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY}
  OUTPUT_VARIABLE nm_output ERROR_VARIABLE nm_error RESULT_VARIABLE nm_result)
if(NOT nm_result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${nm_error}")
endif()

file(STRINGS ${EXPECTED} expected_lines)
set(expected "")
foreach(line IN LISTS expected_lines)
  if(NOT line MATCHES "^#" AND NOT line STREQUAL "")
    list(APPEND expected "${line}")
  endif()
endforeach()

# "<address> <type> <name>(<parameters>)": keep the name, for every type.
string(REPLACE "\n" ";" nm_lines "${nm_output}")
set(defined "")
foreach(line IN LISTS nm_lines)
  if(line MATCHES "^[0-9a-fA-F]* *([A-Za-z]) (.*)$")
    set(type "${CMAKE_MATCH_1}")
    set(name "${CMAKE_MATCH_2}")
    string(REGEX REPLACE "\\(.*$" "" name "${name}")
    list(APPEND defined "${name}")
    set(type_of_${name} "${type}")
  endif()
endforeach()

set(problems "")
if(CHECK STREQUAL "unexpected")
  foreach(name IN LISTS defined)
    list(FIND expected "${name}" at)
    if(at EQUAL -1)
      string(APPEND problems "  exported but not part of the interface: ${name} (${type_of_${name}})\n")
    endif()
  endforeach()
elseif(CHECK STREQUAL "expected")
  foreach(name IN LISTS expected)
    list(FIND defined "${name}" at)
    if(at EQUAL -1)
      string(APPEND problems "  interface function not exported: ${name}\n")
    elseif(NOT type_of_${name} MATCHES "^[TW]$")
      string(APPEND problems "  interface name exported as a non-function: ${name} (${type_of_${name}})\n")
    endif()
  endforeach()
else()
  message(FATAL_ERROR "CHECK must be 'unexpected' or 'expected'")
endif()

if(problems)
  message(FATAL_ERROR "${LIBRARY}:\n${problems}")
endif()
list(LENGTH defined defined_count)
message(STATUS "${LIBRARY}: ${CHECK} check passed (${defined_count} names exported)")
