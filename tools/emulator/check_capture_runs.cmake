# Runs appmgr-emu (path in EMU) with captures: --ts alone on Rai's AIT (the
# broadband application fails its probe offline, and the AIT is answered),
# a file that is no capture (status 1), a capture that cannot be opened and
# capture options without --ts (status 2), and a scenario that plays in the
# background, waits, stops and then checks a count that is not there
# (status 1, naming the step). DATA is tests/data, DIR a scratch directory.
set(mitxp ${DATA}/streamevents/mitxp-hbbtv-testsuite/imuxcfg_tsfiles_sevent.m2ts)
file(WRITE ${DIR}/background.ini
     "[capture]\nfile = ${mitxp}\n[timeline]\nstep1 = play_capture start\nstep2 = play_capture wait\n"
     "step3 = expect capture stream_events 59\nstep4 = play_capture start\nstep5 = play_capture stop\n"
     "step6 = expect capture eit_fed 1\n")
set(rai ${DATA}/third-party/tsduck-test/test-108.ait-pids-only.ts)
include(${CMAKE_CURRENT_LIST_DIR}/emu_cases.cmake)
emu_cases(${EMU}
  "--ts,${rai},--service,0xd49|0|decision  autostart 0x3c0.101.*decision  probe_failed: https://www.raiplay.it/hbbtv/launcher/RemoteControl/index.html.delivery=2.*check     the library answered the captured AIT with a decision.*scenario passed"
  "--ts,${DATA}/third-party/tsduck-test/LICENSE.txt|1|FAILED: .*the capture holds no transport-stream packet"
  "--ts,${DIR}/absent.ts|2|cannot open .*absent.ts"
  "--service,0xd49|2|--service and --speed go with --ts"
  "--scenario,${DIR}/background.ini|1|check     capture stream_events 59.*FAILED: .*background.ini:9: step6 \\(expect capture eit_fed 1\\): capture count eit_fed is 0, expected 1")
