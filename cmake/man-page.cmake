# Writes the man page OUTPUT of PROGRAM with HELP2MAN from the program's own --help and --version
# texts and the sections of INCLUDE (its EXAMPLES, one per paragraph); NAME is the page's one-line
# description. With GZIP it also writes OUTPUT.gz, compressed the
# way Debian installs man pages (gzip -9n: no name or time stamp inside).
set(arguments --no-info "--name=${NAME}" "--include=${INCLUDE}" "--output=${OUTPUT}")
get_filename_component(folder ${OUTPUT} DIRECTORY)
file(MAKE_DIRECTORY ${folder})
execute_process(COMMAND ${HELP2MAN} ${arguments} ${PROGRAM} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  file(REMOVE ${OUTPUT})
  message(FATAL_ERROR "help2man could not write ${OUTPUT} from ${PROGRAM} --help")
endif()
if(GZIP)
  execute_process(COMMAND ${GZIP} -9nc ${OUTPUT} OUTPUT_FILE ${OUTPUT}.gz RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    file(REMOVE ${OUTPUT} ${OUTPUT}.gz)
    message(FATAL_ERROR "gzip could not compress ${OUTPUT}")
  endif()
endif()
