# Writes the man page OUTPUT of PROGRAM with HELP2MAN from the program's own --help and --version
# texts and the sections of INCLUDE (its EXAMPLES, one per paragraph); NAME is the page's one-line
# description. With GZIP it also writes OUTPUT.gz, compressed the
# way Debian installs man pages (gzip -9n: no name or time stamp inside).
# SOURCE_DATE_EPOCH, when given, is the date of the page.
# With EMULATOR (a 32-bit build where the kernel starts no 32-bit program) help2man runs the program
# through it, by a script of the program's own name, so the page reads as the native one.
# help2man dates the page by SOURCE_DATE_EPOCH when it is set (reproducible pages).
if(SOURCE_DATE_EPOCH)
  set(ENV{SOURCE_DATE_EPOCH} ${SOURCE_DATE_EPOCH})
endif()
set(arguments --no-info "--name=${NAME}" "--include=${INCLUDE}" "--output=${OUTPUT}")
get_filename_component(folder ${OUTPUT} DIRECTORY)
file(MAKE_DIRECTORY ${folder})
if(EMULATOR)
  get_filename_component(name ${PROGRAM} NAME)
  set(launcher ${folder}/emulated/${name})
  file(WRITE ${launcher} "#!/bin/sh\nexec '${EMULATOR}' '${PROGRAM}' \"$@\"\n")
  file(CHMOD ${launcher} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
  set(PROGRAM ${launcher})
endif()
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
