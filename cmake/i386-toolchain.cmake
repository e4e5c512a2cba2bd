# The 32-bit x86 build on an x86-64 Debian machine with the multilib compilers: the module that real
# hosts load. Libraries come from the i386 multiarch folder (/usr/lib/i386-linux-gnu).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
# How the build's own 32-bit programs run (its tests, the man pages' help2man, the install checks):
# directly where the kernel starts them, through user-mode emulation (qemu-i386) where it does not
# or where SIGNING_I386_EMULATE=1 asks for it. scripts/i386-available decides at the first configure
# of a build folder; the answer stays in its cache (SIGNING_I386_EMULATOR), so that a configure that
# the build itself starts later, without the variable, keeps it. Setting SIGNING_I386_EMULATE to
# another value (0 or 1) for a configure decides again. The compiler checks of one configure read
# the toolchain file again: they take the answer from this cmake process's environment.
if(DEFINED ENV{SIGNING_I386_EMULATOR_CHOSEN})
  set(CMAKE_CROSSCOMPILING_EMULATOR "$ENV{SIGNING_I386_EMULATOR_CHOSEN}")
else()
  if(NOT DEFINED CACHE{SIGNING_I386_EMULATOR} OR
     (DEFINED ENV{SIGNING_I386_EMULATE} AND NOT "$ENV{SIGNING_I386_EMULATE}" STREQUAL "${SIGNING_I386_EMULATE_ASKED}"))
    execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/i386-available --emulator
      OUTPUT_VARIABLE emulator OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      set(emulator "")
    endif()
    set(SIGNING_I386_EMULATOR "${emulator}" CACHE STRING
      "The command that runs the build's 32-bit programs (empty: they run natively)" FORCE)
    set(SIGNING_I386_EMULATE_ASKED "$ENV{SIGNING_I386_EMULATE}" CACHE INTERNAL "")
  endif()
  set(CMAKE_CROSSCOMPILING_EMULATOR "${SIGNING_I386_EMULATOR}")
  set(ENV{SIGNING_I386_EMULATOR_CHOSEN} "${SIGNING_I386_EMULATOR}")
endif()
# Never pick up the x86-64 copies of a library: pkg-config and the library search see i386 only.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)
