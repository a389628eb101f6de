# Runs the session player on a scenario with a bad line and checks that it stops before
# any library call: exit status 2, exactly "FILE:LINE: message" on standard error, nothing
# on standard output, no picture written. The expected "LINE: message" is the scenario's
# first line, after "# expect: ".
#   cmake -DPLAYER=... [-DEMULATOR=a|b|c] -DSCENARIO=... -DSVG=... -P run_bad_scenario.cmake
string(REPLACE "|" ";" launcher "${EMULATOR}")
file(STRINGS "${SCENARIO}" first LIMIT_COUNT 1)
string(REGEX REPLACE "^# expect: " "" expected "${first}")
file(REMOVE "${SVG}")
execute_process(COMMAND ${launcher} "${PLAYER}" --svg "${SVG}" "${SCENARIO}"
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status EQUAL 2)
  message(FATAL_ERROR "exit status ${status}, expected 2\nstdout: ${out}\nstderr: ${err}")
endif()
if(NOT err STREQUAL "${SCENARIO}:${expected}\n")
  message(FATAL_ERROR "stderr:\n${err}expected:\n${SCENARIO}:${expected}")
endif()
if(NOT out STREQUAL "")
  message(FATAL_ERROR "something was printed on stdout (a library call was made?):\n${out}")
endif()
if(EXISTS "${SVG}")
  message(FATAL_ERROR "${SVG} was written")
endif()
