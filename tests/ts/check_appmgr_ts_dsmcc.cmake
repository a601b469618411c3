# appmgr-ts (path in TOOL) on the test suite's capture (CAPTURE), whose
# carousel must come out with the suite's logo (LOGO) byte for byte, and on
# TSDuck's stream-event capture (TSDUCK). OUT is a scratch directory.
function(run)
  execute_process(COMMAND ${TOOL} ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out
                  ERROR_VARIABLE err TIMEOUT 30)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "appmgr-ts ${ARGN} exited with '${status}':\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

function(expect_lines text)
  foreach(expected ${ARGN})
    if(NOT text MATCHES "${expected}")
      message(FATAL_ERROR "output lacks /${expected}/:\n${text}")
    endif()
  endforeach()
endfunction()

file(REMOVE_RECURSE ${OUT})
run(carousel ${CAPTURE} --out ${OUT})
expect_lines("${out}"
  "carousel pid=0x138e tag=0x17 service=none carousel_id=0xc complete=1 files=4 stream_event_objects=1 modules=1 missing=0 skipped=0\n"
  "\n  dir tag=0x17 path=\"/\" module=1 version=1\n"
  "\n  file tag=0x17 path=\"/index.html\" size=3039 module=1 version=1\n"
  "\n  ste tag=0x17 path=\"/sevent\" events=badid:2,testevent:1 event_tag=0x13 module=1 version=1\n")
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUT}/17/logo.png ${LOGO} RESULT_VARIABLE differ)
if(NOT differ EQUAL 0)
  message(FATAL_ERROR "${OUT}/17/logo.png differs from ${LOGO}")
endif()
file(READ ${OUT}/17/sevent.ste names)
if(NOT names STREQUAL "badid\ntestevent\n")
  message(FATAL_ERROR "sevent.ste holds '${names}'")
endif()
file(REMOVE_RECURSE ${OUT})

run(events ${CAPTURE})
string(REGEX MATCHALL "streamevent pid=0x138f event=[12] " lines "${out}")
list(LENGTH lines count)
if(NOT count EQUAL 59)
  message(FATAL_ERROR "${count} stream events instead of 59:\n${out}")
endif()
expect_lines("${out}"
  "^streamevent pid=0x138f event=1 npt=0 data=48656c6c6f204862625456 version=0 table_id_extension=0x1\n"
  "\nstreamevent pid=0x138f event=2 npt=0 data=4261644944 version=0 table_id_extension=0x2\n"
  "\nstreamevents pid=0x138f tag=0x13 events=59\n")

# "Test Message 1" and "Test Message 1a" share version 0: both are events.
run(events ${TSDUCK})
expect_lines("${out}"
  "^streamevent pid=0x194 event=1 npt=0 data=54657374204d6573736167652031 version=0 "
  "\nstreamevent pid=0x194 event=1 npt=0 data=54657374204d657373616765203161 version=0 "
  "\nsections=4 events=4 skipped=0\n")
