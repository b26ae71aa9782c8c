# Runs the C host of analyse() (linked against the installed library) on a
# frame folder made by `vyra sample` and checks that it recovers the sample's
# ground truth: the parameter line, the load-finished frame the sample was
# built with, the launch time (frame rate 1: that frame's number plus one) and
# one record.log line.
#
#   cmake -DHOST=<analyse_host> -DCLI=<vyra> -DWORK_DIR=<dir> -P analyse_host.cmake

foreach(var HOST CLI WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
set(folder "${WORK_DIR}/frames")
execute_process(COMMAND "${CLI}" sample "${folder}" --frames-dir --seconds 2 --fps 10 --size 180x320
                OUTPUT_VARIABLE truth RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT truth MATCHES "expected: loadFinishedIndex ([0-9]+),")
  message(FATAL_ERROR "vyra sample failed (${rc}):\n${truth}")
endif()
set(loaded ${CMAKE_MATCH_1})
math(EXPR launch "${loaded} + 1")

execute_process(COMMAND "${HOST}" "${folder}" 0 1 0 0 WORKING_DIRECTORY "${WORK_DIR}"
                OUTPUT_VARIABLE out RESULT_VARIABLE rc)
string(FIND "${out}" " PATH: ${folder} ;frameMode: 0 ;fps: 1 ;startIndex: 0 ;endIndex: 0 \n" path_at)
string(FIND "${out}" "\n页面加载完成时的图像索引:${loaded}\n" loaded_at)
if(NOT rc EQUAL 0 OR NOT path_at EQUAL 0 OR loaded_at LESS 0 OR NOT out MATCHES "\nanalyse returned: ${launch}\n$")
  message(FATAL_ERROR "expected load-finished frame ${loaded} and ${launch} s (${rc}):\n${out}")
endif()
file(READ "${WORK_DIR}/record.log" report)
if(NOT report MATCHES "^ [0-9-]+ [0-9:]+ ${folder}  结果是 :0\n$")
  message(FATAL_ERROR "expected one report line, found:\n${report}")
endif()
message(STATUS "the C host found frame ${loaded}: ${launch} s")
