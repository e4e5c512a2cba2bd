# run(COMMAND ARGS...): runs a command for the packaging scripts; its standard output, without the
# trailing white space, in `output`; a command that fails ends the script with its status and errors.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status ERROR_VARIABLE errors OUTPUT_VARIABLE output
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "${command} failed (${status}): ${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()
