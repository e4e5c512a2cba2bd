# Writes the man page OUTPUT of PROGRAM with HELP2MAN from the program's own --help and --version
# texts; NAME is the page's one-line description. A program that does not answer --version is
# described with the version line it would print: "PROGRAM (PACKAGE) VERSION".
execute_process(COMMAND ${PROGRAM} --version RESULT_VARIABLE result OUTPUT_VARIABLE text ERROR_QUIET)
set(arguments --no-info "--name=${NAME}" "--output=${OUTPUT}")
if(NOT result EQUAL 0 OR text STREQUAL "")
  get_filename_component(program_name ${PROGRAM} NAME)
  list(APPEND arguments "--version-string=${program_name} (${PACKAGE}) ${VERSION}")
endif()
get_filename_component(folder ${OUTPUT} DIRECTORY)
file(MAKE_DIRECTORY ${folder})
execute_process(COMMAND ${HELP2MAN} ${arguments} ${PROGRAM} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  file(REMOVE ${OUTPUT})
  message(FATAL_ERROR "help2man could not write ${OUTPUT} from ${PROGRAM} --help")
endif()
