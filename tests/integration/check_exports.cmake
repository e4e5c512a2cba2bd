# Checks the plug-in module: its file type against FORMAT (what `file` says of the architecture the
# build is for), its defined dynamic symbols against the list EXPECTED (both as sets), and how it
# holds libcrypto (STATIC_CRYPTO: linked in, else the shared library).
execute_process(COMMAND file -b ${MODULE} OUTPUT_VARIABLE description RESULT_VARIABLE result)
if(NOT result EQUAL 0 OR NOT description MATCHES "^${FORMAT}")
  message(FATAL_ERROR "libsigning.so is \"${description}\", expected \"${FORMAT}...\"")
endif()
message(STATUS "libsigning.so is ${description}")
execute_process(COMMAND nm -D --defined-only ${MODULE}
  OUTPUT_VARIABLE listing RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${MODULE}")
endif()
string(REPLACE "\n" ";" lines "${listing}")
set(exported "")
foreach(line IN LISTS lines)
  # "<address> <type> <name>", the name possibly followed by a version ("@@V1").
  if(line MATCHES "^[0-9a-fA-F]+ [A-Za-z] ([^@ ]+)")
    list(APPEND exported ${CMAKE_MATCH_1})
  endif()
endforeach()
list(SORT exported)
set(expected ${EXPECTED})
list(SORT expected)
if(NOT "${exported}" STREQUAL "${expected}")
  message(FATAL_ERROR "libsigning.so exports [${exported}], expected exactly [${expected}]")
endif()
message(STATUS "libsigning.so exports exactly [${exported}]")

# With STATIC_CRYPTO, libcrypto lives inside the module: no libcrypto or libssl among the libraries
# it needs, and no OpenSSL name left for the dynamic linker to bind (to whatever copy a host has
# loaded). Otherwise both show, which also proves that the two listings below are read right.
execute_process(COMMAND readelf -d ${MODULE} OUTPUT_VARIABLE dynamic RESULT_VARIABLE result)
execute_process(COMMAND nm -D --undefined-only ${MODULE} OUTPUT_VARIABLE undefined RESULT_VARIABLE result2)
if(NOT result EQUAL 0 OR NOT result2 EQUAL 0)
  message(FATAL_ERROR "readelf -d or nm -D --undefined-only failed on ${MODULE}")
endif()
string(REGEX MATCHALL "\\(NEEDED\\)[^[\n]*\\[lib(crypto|ssl)[^]]*" crypto_needed "${dynamic}")
list(TRANSFORM crypto_needed REPLACE ".*\\[" "")
string(REGEX MATCHALL "[ \n](EVP|RSA|BN|BIO|ERR|OPENSSL|CRYPTO|OSSL|PEM|X509|SHA[0-9]*|MD5|d2i|i2d)_[A-Za-z0-9_]*"
  crypto_undefined "${undefined}")
list(TRANSFORM crypto_undefined STRIP)
if(STATIC_CRYPTO AND (crypto_needed OR crypto_undefined))
  message(FATAL_ERROR "libsigning.so is linked with static libcrypto but still needs [${crypto_needed}] "
    "and leaves [${crypto_undefined}] undefined")
elseif(NOT STATIC_CRYPTO AND (NOT crypto_needed OR NOT crypto_undefined))
  message(FATAL_ERROR "libsigning.so should need the shared libcrypto: NEEDED [${crypto_needed}], "
    "undefined OpenSSL names [${crypto_undefined}]")
endif()
if(STATIC_CRYPTO)
  message(STATUS "libsigning.so holds its own libcrypto: it needs no libcrypto and leaves no OpenSSL name undefined")
else()
  message(STATUS "libsigning.so uses the shared ${crypto_needed}")
endif()
