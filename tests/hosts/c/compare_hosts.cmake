# Runs the C host (linked against the installed library) and the C++ driver
# on the same generated folder and checks that they agree: the C host prints
# the parameter line of analyse() and then exactly what analyseFrame() prints,
# and both return the launch time known from the folder's construction.
#
#   cmake -DHOST=<analyse_host> -DREFERENCE=<reference_run> -DWORK_DIR=<dir> -P compare_hosts.cmake

foreach(var HOST REFERENCE WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
set(folder "${WORK_DIR}/launch")
file(MAKE_DIRECTORY "${folder}")

execute_process(COMMAND "${REFERENCE}" make-folder "${folder}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "could not write the frame folder (${rc})")
endif()

# Runs one program in a fresh working directory; sets <out> to its stdout
# and checks that it wrote one report line there.
function(run_in name out)
  set(cwd "${WORK_DIR}/${name}")
  file(MAKE_DIRECTORY "${cwd}")
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY "${cwd}"
                  OUTPUT_VARIABLE text RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${name}: exit status ${rc}\n${text}")
  endif()
  file(READ "${cwd}/record.log" report)
  if(NOT report MATCHES "^ [0-9-]+ [0-9:]+ [^\n]*  结果是 :0\n$")
    message(FATAL_ERROR "${name}: expected one report line, found:\n${report}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# frameMode fps expected-result: frame-rate mode (frames 4 loaded, (4+1)/10)
# and timestamp mode (end position 5 is named 05.png: 5 ms).
foreach(params "0;10;0.5" "1;10;0.0050000000000000001")
  list(GET params 0 mode)
  list(GET params 1 fps)
  list(GET params 2 expected)
  # The host finds the installed library by the RUNPATH that vyra.pc's Libs
  # gave it, not by the environment.
  run_in("c-${mode}" host_out ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH "${HOST}" "${folder}" ${mode} ${fps} 0 0)
  run_in("cxx-${mode}" cxx_out "${REFERENCE}" run "${folder}" ${mode} ${fps} 0 0)

  set(path_line " PATH: ${folder} ;frameMode: ${mode} ;fps: ${fps} ;startIndex: 0 ;endIndex: 0 \n")
  if(NOT host_out STREQUAL "${path_line}${cxx_out}")
    message(FATAL_ERROR "frameMode ${mode}: the hosts disagree\n--- C host:\n${host_out}\n--- C++:\n${cxx_out}")
  endif()
  string(REGEX MATCH "[^\n]*\n$" last_line "${cxx_out}")
  if(NOT last_line STREQUAL "analyse returned: ${expected}\n")
    message(FATAL_ERROR "frameMode ${mode}: expected ${expected}\n${cxx_out}")
  endif()
  message(STATUS "frameMode ${mode}: both hosts returned ${expected}")
endforeach()
