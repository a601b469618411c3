# Runs appmgr-emu (path in EMU) and checks its exit status and output.
execute_process(COMMAND ${EMU}
                RESULT_VARIABLE status
                OUTPUT_VARIABLE out
                ERROR_VARIABLE err
                TIMEOUT 20)
message("${out}")
if(err)
  message("stderr:\n${err}")
endif()
if(NOT status EQUAL 0)
  message(FATAL_ERROR "appmgr-emu exited with '${status}'")
endif()
foreach(expected
    "Application +<- 141 time zone +\\[\"UTC\\+01:00:00\"\\]"
    "Application +<- 141 time zone +\\[\"UTC-05:30:00\"\\]"
    "Application +<- 160 browser close"
    "dtvPlugins +<- reply \\[\"Mozilla/5.0 "
    "scenario passed")
  if(NOT out MATCHES "${expected}")
    message(FATAL_ERROR "appmgr-emu output lacks /${expected}/")
  endif()
endforeach()
