# emu_cases(EMU CASE...): runs appmgr-emu (path EMU) once per case and fails
# unless it ends with the expected status and its output matches. A case is
# "ARGUMENTS|STATUS|REGEX" with the arguments separated by commas. A run
# that ends with status 2 (a usage error or a file that cannot be read) must
# print nothing on stdout: nothing may have started.
function(emu_cases emu)
  foreach(case ${ARGN})
    string(REPLACE "|" ";" parts "${case}")
    list(GET parts 0 arguments)
    string(REPLACE "," ";" arguments "${arguments}")
    list(GET parts 1 expected_status)
    list(GET parts 2 expected)
    execute_process(COMMAND ${emu} ${arguments}
                    RESULT_VARIABLE status
                    OUTPUT_VARIABLE out
                    ERROR_VARIABLE err
                    TIMEOUT 40)
    message("${arguments}: status ${status}: ${err}")
    if(NOT status EQUAL expected_status)
      message(FATAL_ERROR "${arguments}: exit status '${status}', expected ${expected_status}\n${out}${err}")
    endif()
    if(NOT "${out}${err}" MATCHES "${expected}")
      message(FATAL_ERROR "${arguments}: output lacks /${expected}/\n${out}${err}")
    endif()
    if(expected_status EQUAL 2 AND NOT out STREQUAL "")
      message(FATAL_ERROR "${arguments}: printed on stdout (the run must not start):\n${out}")
    endif()
  endforeach()
endfunction()
