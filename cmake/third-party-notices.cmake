# Included by CMakeLists.txt when libsigning.so links third-party code statically
# (SIGNING_STATIC_CRYPTO, SIGNING_SELF_CONTAINED). It writes, from the build machine's own files:
#   ${PROJECT_BINARY_DIR}/THIRD-PARTY-NOTICES      the vendor bundle's notices: what the module holds,
#                                                  its copyright statements and the full licence texts
#   ${PROJECT_BINARY_DIR}/debian/copyright-module  signing-module's Debian copyright file (DEP-5): the
#                                                  project's, with a Files stanza per embedded library
# The copyright statements come from the Debian copyright files of the packages that hold the
# archives linked in (libssl-dev, GCC's), the licence texts from /usr/share/common-licenses and, for
# the GCC Runtime Library Exception, from GCC's copyright file.

# The Debian package that installed FILE (name and version, "" when dpkg does not know it) and its
# source package ("name version": the same for every architecture, as Multi-Arch: same packages need
# of the copyright file).
function(signing_debian_origin file out_package out_version out_source)
  get_filename_component(file ${file} REALPATH)
  execute_process(COMMAND dpkg-query -S ${file} OUTPUT_VARIABLE owner RESULT_VARIABLE status ERROR_QUIET
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(package "")
  set(version "")
  set(source "")
  if(status EQUAL 0 AND owner MATCHES "^([^:, ]+(:[a-z0-9]+)?): ")
    set(package ${CMAKE_MATCH_1})
    execute_process(COMMAND dpkg-query -W -f=\${Version} ${package} OUTPUT_VARIABLE version ERROR_QUIET)
    execute_process(COMMAND dpkg-query -W "-f=\${source:Package} \${source:Version}" ${package}
      OUTPUT_VARIABLE source ERROR_QUIET)
  endif()
  set(${out_source} "${source}" PARENT_SCOPE)
  set(${out_package} "${package}" PARENT_SCOPE)
  set(${out_version} "${version}" PARENT_SCOPE)
endfunction()

# TEXT as the body of a DEP-5 field: each line indented by one space, empty lines as " .".
function(signing_dep5_body text out)
  string(REGEX REPLACE "[ \t]+\n" "\n" text "${text}")
  string(REGEX REPLACE "\n+$" "" text "${text}")
  string(REPLACE "\n" "\n " text " ${text}\n")
  string(REPLACE "\n \n" "\n .\n" text "${text}")
  string(REPLACE "\n \n" "\n .\n" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

function(signing_read_licence name out)
  set(path /usr/share/common-licenses/${name})
  if(NOT EXISTS ${path})
    message(FATAL_ERROR "${path} is missing (package base-files): the third-party notices need it")
  endif()
  file(READ ${path} text)
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

set(notices_dir ${PROJECT_BINARY_DIR}/debian)
file(MAKE_DIRECTORY ${notices_dir})
set(summary "")
set(statements "")
set(dep5_files "")
set(dep5_licences "")

# OpenSSL's libcrypto: the copyright statements of the first Files stanza of libssl-dev's copyright file.
signing_debian_origin(${SIGNING_CRYPTO_ARCHIVE} crypto_package crypto_version crypto_source)
string(REGEX REPLACE ":.*" "" crypto_doc "${crypto_package}")
set(crypto_copyright_file /usr/share/doc/${crypto_doc}/copyright)
if(NOT crypto_package OR NOT EXISTS ${crypto_copyright_file})
  message(FATAL_ERROR "the notices need the Debian copyright file of the package that holds ${SIGNING_CRYPTO_ARCHIVE}")
endif()
file(READ ${crypto_copyright_file} text)
if(NOT text MATCHES "\nFiles: \\*\nCopyright: ([^\n]*(\n[ \t][^\n]*)*)\nLicense: Apache-2.0\n")
  message(FATAL_ERROR "${crypto_copyright_file}: no 'Files: *' stanza under the Apache License 2.0")
endif()
string(REGEX REPLACE "\n[ \t]+" "\n" crypto_lines "${CMAKE_MATCH_1}")
string(APPEND summary "- libcrypto of OpenSSL ${OPENSSL_VERSION}: Apache License 2.0.\n"
  "  From the Debian package ${crypto_package} ${crypto_version},\n  ${SIGNING_CRYPTO_ARCHIVE}.\n")
string(REPLACE "\n" "\n  " indented "${crypto_lines}")
string(APPEND statements "libcrypto (OpenSSL), copyright:\n  ${indented}\n\n")
string(REPLACE "\n" "\n           " dep5_lines "${crypto_lines}")
string(APPEND dep5_files "
Files: openssl/crypto/*
Copyright: ${dep5_lines}
License: Apache-2.0
Comment: libcrypto of OpenSSL ${OPENSSL_VERSION}, from the Debian source package
 ${crypto_source}, linked statically into libsigning.so
 (its names kept local to the module).
")

if(SIGNING_SELF_CONTAINED)
  # libstdc++ and libgcc: GCC's statement and its Runtime Library Exception, from GCC's copyright file.
  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${flags} -print-file-name=libstdc++.a
    OUTPUT_VARIABLE libstdcxx OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${flags} -print-libgcc-file-name
    OUTPUT_VARIABLE libgcc OUTPUT_STRIP_TRAILING_WHITESPACE)
  signing_debian_origin(${libstdcxx} libstdcxx_package libstdcxx_version gcc_source)
  signing_debian_origin(${libgcc} libgcc_package libgcc_version ignored)
  string(REGEX MATCH "^[0-9]+" gcc_major ${CMAKE_CXX_COMPILER_VERSION})
  string(REGEX REPLACE ":.*" "" libstdcxx_doc "${libstdcxx_package}")
  set(gcc_copyright_file "")
  foreach(candidate /usr/share/doc/${libstdcxx_doc}/copyright /usr/share/doc/gcc-${gcc_major}-base/copyright)
    if(NOT gcc_copyright_file AND EXISTS ${candidate})
      set(gcc_copyright_file ${candidate})
    endif()
  endforeach()
  if(NOT gcc_copyright_file)
    message(FATAL_ERROR "the notices need GCC's Debian copyright file (/usr/share/doc/gcc-${gcc_major}-base/copyright)")
  endif()
  file(READ ${gcc_copyright_file} text)
  if(NOT text MATCHES "GCC is Copyright \\(C\\) ([0-9]+)[0-9, \n]* ([0-9]+)\nFree Software Foundation, Inc\\.")
    message(FATAL_ERROR "${gcc_copyright_file}: no copyright statement of GCC")
  endif()
  set(gcc_years "${CMAKE_MATCH_1}-${CMAKE_MATCH_2}")
  if(NOT text MATCHES "(GCC RUNTIME LIBRARY EXCEPTION\n.*requirements of the license of GCC\\.)")
    message(FATAL_ERROR "${gcc_copyright_file}: no text of the GCC Runtime Library Exception")
  endif()
  set(exception "${CMAKE_MATCH_1}")
  if(NOT exception MATCHES "Version 3\\.1, 31 March 2009")
    message(FATAL_ERROR "${gcc_copyright_file}: the GCC Runtime Library Exception is not version 3.1")
  endif()
  string(APPEND summary "- libstdc++ and libgcc of GCC ${CMAKE_CXX_COMPILER_VERSION}: GNU General Public License version 3\n"
    "  or later with the GCC Runtime Library Exception, version 3.1.\n"
    "  From the Debian packages ${libstdcxx_package} ${libstdcxx_version} and\n"
    "  ${libgcc_package} ${libgcc_version}, ${libstdcxx} and ${libgcc}.\n")
  string(APPEND statements "libstdc++ and libgcc (GCC), copyright:\n  ${gcc_years} Free Software Foundation, Inc.\n\n")
  string(APPEND dep5_files "
Files: gcc/libstdc++-v3/* gcc/libgcc/*
Copyright: ${gcc_years} Free Software Foundation, Inc.
License: GPL-3+ with GCC-exception-3.1 exception
Comment: libstdc++ and libgcc of GCC ${CMAKE_CXX_COMPILER_VERSION}, from the Debian source package
 ${gcc_source}, linked statically into libsigning.so
 (their names kept local to the module).
")
  signing_dep5_body("GCC is free software; you can redistribute it and/or modify it under the
terms of the GNU General Public License as published by the Free Software
Foundation; either version 3, or (at your option) any later version.
The runtime libraries libstdc++ and libgcc carry this additional permission:

${exception}" exception_body)
  string(APPEND dep5_licences "
License: GPL-3+ with GCC-exception-3.1 exception
${exception_body} .
 On Debian systems, the complete text of version 3 of the GNU General Public
 License can be found in \"/usr/share/common-licenses/GPL-3\".
")
endif()

# signing-module's copyright file: the project's header and Files stanza, the embedded libraries'
# stanzas, then the licences (the project's Apache-2.0 paragraph serves OpenSSL too).
file(READ ${PROJECT_SOURCE_DIR}/cmake/debian/copyright base)
if(NOT base MATCHES "^(.*\nLicense: Apache-2.0\n)(\nLicense: Apache-2.0\n.*)$")
  message(FATAL_ERROR "cmake/debian/copyright: expected its Files stanzas, then the Apache-2.0 licence")
endif()
file(WRITE ${notices_dir}/copyright-module "${CMAKE_MATCH_1}${dep5_files}${CMAKE_MATCH_2}${dep5_licences}")

# The bundle's THIRD-PARTY-NOTICES: plain text, with every licence in full.
signing_read_licence(Apache-2.0 apache)
set(notices "Third-party notices of the signing module
=========================================

lib/signing/libsigning.so is the signing module (Apache License 2.0, see LICENSE;
Copyright 2026 signing maintainers). It also holds these libraries, linked into it
statically when it was built:

${summary}
Copyright statements
--------------------

${statements}
The licence texts follow.

======================================================================
Apache License, Version 2.0 (libcrypto of OpenSSL; the signing module)
======================================================================

${apache}")
if(SIGNING_SELF_CONTAINED)
  signing_read_licence(GPL-3 gpl3)
  string(APPEND notices "
======================================================================
GNU General Public License, version 3 (libstdc++ and libgcc of GCC)
======================================================================

${gpl3}
======================================================================
GCC Runtime Library Exception, version 3.1 (libstdc++ and libgcc of GCC)
======================================================================

${exception}
")
endif()
file(WRITE ${PROJECT_BINARY_DIR}/THIRD-PARTY-NOTICES "${notices}")
