# Runs appmgr-emu (path in EMU) on the scenarios in DIR that must fail: the
# malformed ones (and a missing file) exit with status 2, name the problem on
# stderr and print nothing on stdout (the library is not started); a
# well-formed scenario whose check fails exits with status 1 and names the
# step.
set(cases
  "bad-syntax.ini|2|bad-syntax.ini:4: not a \\[section\\]"
  "bad-control.ini|2|bad-control.ini:9: \\[app.a\\] control: 'AUTOSTRAT' is not a control code"
  "bad-step.ini|2|bad-step.ini:7: \\[timeline\\] step1: deliver_ait: no AIT named 'nosuch'"
  "bad-no-service.ini|2|\\[service\\] section missing"
  "bad-duplicate.ini|2|bad-duplicate.ini:5: \\[service\\] tsid is given twice \\(first on line 3\\)"
  "no-such-file.ini|2|no-such-file.ini: cannot open"
  "bad-carousel.ini|2|bad-carousel.ini:7: \\[carousel.1\\] dir: 'no-such-dir' \\(.*no-such-dir\\): No such file"
  "fails.ini|1|FAILED: .*fails.ini:10: step2 \\(expect running 0x10.1\\): running application is none, expected 0x10.1")
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
