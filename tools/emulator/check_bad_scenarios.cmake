# Runs appmgr-emu (path in EMU) on scenarios that must not pass, written to
# DIR: a file with a mistake ends with status 2 and names file, line and
# problem before anything starts (nothing on stdout); a missing file too; a
# check that fails ends the run with status 1 and names the step.
file(WRITE ${DIR}/typo.ini "[service]\nonid = 1\ntsid = 2\nsid = 3\nservice_bund = no\n")
file(WRITE ${DIR}/fails.ini
     "[service]\nonid = 1\ntsid = 2\nsid = 3\n[timeline]\nstep1 = deliver_ait main\n"
     "step2 = expect running 0x10.1\n")
include(${CMAKE_CURRENT_LIST_DIR}/emu_cases.cmake)
emu_cases(${EMU}
  "--scenario,${DIR}/typo.ini|2|typo.ini:5: \\[service\\] service_bund: unknown key"
  "--scenario,${DIR}/absent.ini|2|absent.ini: cannot open"
  "--scenario,${DIR}/fails.ini|1|FAILED: .*fails.ini:7: step2 \\(expect running 0x10.1\\): running application is none, expected 0x10.1")
