# Runs the conformance runner on the CI subset: fails when a run failed (exit status 2 or
# 3, or no report); a figure that missed its goal (exit status 1) is shown, not failed.
#   cmake -DRUNNER=... -DOUT=... -DMEDIA=... -DSCENARIOS=a|b|c [-DRUNNER_ARGS=x|y] -P run_subset.cmake
string(REPLACE "|" ";" scenarios "${SCENARIOS}")
string(REPLACE "|" ";" runner_args "${RUNNER_ARGS}")
file(REMOVE "${OUT}/conformance.md")
execute_process(COMMAND "${RUNNER}" --quiet --out "${OUT}" --media "${MEDIA}" ${runner_args} ${scenarios}
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${err}")
if(NOT EXISTS "${OUT}/conformance.md")
  message(FATAL_ERROR "exit status ${status}, no report\n${out}")
endif()
file(READ "${OUT}/conformance.md" report)
message("${report}")
if(NOT (status EQUAL 0 OR status EQUAL 1))
  message(FATAL_ERROR "exit status ${status}: a run failed")
endif()
foreach(s ${scenarios})
  get_filename_component(name ${s} NAME_WE)
  if(NOT report MATCHES "\n\\| ${name} \\|")
    message(FATAL_ERROR "no figures for ${name}")
  endif()
endforeach()
