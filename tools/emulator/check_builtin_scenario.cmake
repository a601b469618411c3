# Runs appmgr-emu (path in EMU) on its built-in scenario. The scenario's
# expect steps end the run with status 1 when the library does not do its
# part (the carousel application does not start, the key set does not reach
# the browser, a channel change kills or keeps the wrong application, the
# XML AIT application does not start); the output must also show each of
# those events.
execute_process(COMMAND ${EMU}
                RESULT_VARIABLE status
                OUTPUT_VARIABLE out
                ERROR_VARIABLE err
                TIMEOUT 40)
message("${out}")
if(err)
  message("stderr:\n${err}")
endif()
if(NOT status EQUAL 0)
  message(FATAL_ERROR "appmgr-emu exited with '${status}'")
endif()
foreach(expected
    "decision  autostart 0x70.1: \"News\" priority 1: dvb://1.2.3.1/index.html"
    "Application +<- 50 +start application URL +\\[\"dvb://1.2.3.1/index.html\"\\]"
    "Application +<- 220 CMD_HANDLE_KEY_SET +\\[\"287\"\\]"
    "decision  kill 0x70.1: service bound"
    "decision  keep 0x70.2"
    "http      GET /ait/offers.aitx -> 200 OK"
    "Application +<- 140 application start text +\\[\"http://127.0.0.1:[0-9]+/offers/index.html\"\\]"
    "appmgr-emu: scenario passed")
  if(NOT out MATCHES "${expected}")
    message(FATAL_ERROR "appmgr-emu output lacks /${expected}/")
  endif()
endforeach()
