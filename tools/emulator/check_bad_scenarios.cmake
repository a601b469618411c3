# Runs appmgr-emu (path in EMU) on scenarios that must not pass, written to
# DIR: a file with a mistake ends with status 2 and names file, line and
# problem before anything starts (nothing on stdout); a missing file too; a
# check that fails ends the run with status 1 and names the step.
file(WRITE ${DIR}/typo.ini "[service]\nonid = 1\ntsid = 2\nsid = 3\nservice_bund = no\n")
file(WRITE ${DIR}/fails.ini
     "[service]\nonid = 1\ntsid = 2\nsid = 3\n[timeline]\nstep1 = deliver_ait main\n"
     "step2 = expect running 0x10.1\n")
set(cases
  "typo.ini|2|typo.ini:5: \\[service\\] service_bund: unknown key"
  "absent.ini|2|absent.ini: cannot open"
  "fails.ini|1|FAILED: .*fails.ini:7: step2 \\(expect running 0x10.1\\): running application is none, expected 0x10.1")
foreach(case ${cases})
  string(REPLACE "|" ";" parts "${case}")
  list(GET parts 0 file)
  list(GET parts 1 expected_status)
  list(GET parts 2 expected)
  execute_process(COMMAND ${EMU} --scenario ${DIR}/${file}
                  RESULT_VARIABLE status
                  OUTPUT_VARIABLE out
                  ERROR_VARIABLE err
                  TIMEOUT 30)
  message("${file}: status ${status}: ${err}")
  if(NOT status EQUAL expected_status)
    message(FATAL_ERROR "${file}: exit status '${status}', expected ${expected_status}\n${out}")
  endif()
  if(NOT "${out}${err}" MATCHES "${expected}")
    message(FATAL_ERROR "${file}: output lacks /${expected}/\n${out}")
  endif()
  if(expected_status EQUAL 2 AND NOT out STREQUAL "")
    message(FATAL_ERROR "${file}: printed on stdout (the run must not start):\n${out}")
  endif()
endforeach()
