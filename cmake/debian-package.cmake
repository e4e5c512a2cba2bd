# Run by cpack after it has made the packages (CPACK_POST_BUILD_SCRIPTS). For the Debian packages,
# it adds what CPack's DEB generator does not write, then packs each one again with dpkg-deb:
#   - the Multi-Arch field (CPACK_SIGNING_MULTI_ARCH: "package=value;..."), so that the amd64 and
#     i386 module and -dev packages install side by side;
#   - /usr/share/doc/PACKAGE/copyright and changelog.Debian.gz (gzip -9n: the same bytes on every
#     architecture, as Multi-Arch: same asks of files both copies hold), from CPACK_SIGNING_DEBIAN_FILES;
#   - a lintian override for the one tag that does not apply: the packages are not uploaded to
#     Debian, so their first changelog entry closes no "intent to package" bug;
#   - DEBIAN/md5sums and Installed-Size, recounted over the files.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()
find_program(DPKG_DEB dpkg-deb REQUIRED)
find_program(GZIP gzip REQUIRED)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status ERROR_VARIABLE errors OUTPUT_VARIABLE output
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "${command} failed (${status}): ${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

foreach(package_file IN LISTS CPACK_PACKAGE_FILES)
  run(${DPKG_DEB} --field ${package_file} Package)
  set(name ${output})
  set(multi_arch "")
  foreach(entry IN LISTS CPACK_SIGNING_MULTI_ARCH)
    if(entry MATCHES "^${name}=(.*)$")
      set(multi_arch ${CMAKE_MATCH_1})
    endif()
  endforeach()
  if(NOT multi_arch)
    message(FATAL_ERROR "no Multi-Arch value for the package ${name}")
  endif()

  set(tree ${package_file}.tree)
  file(REMOVE_RECURSE ${tree})
  run(${DPKG_DEB} --raw-extract ${package_file} ${tree})

  set(doc ${tree}/usr/share/doc/${name})
  file(MAKE_DIRECTORY ${doc})
  file(COPY_FILE ${CPACK_SIGNING_DEBIAN_FILES}/copyright ${doc}/copyright)
  execute_process(COMMAND ${GZIP} -9nc ${CPACK_SIGNING_DEBIAN_FILES}/changelog
    OUTPUT_FILE ${doc}/changelog.Debian.gz RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "gzip of the changelog failed")
  endif()
  file(CHMOD ${doc}/copyright ${doc}/changelog.Debian.gz PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

  set(overrides ${tree}/usr/share/lintian/overrides)
  file(MAKE_DIRECTORY ${overrides})
  file(WRITE ${overrides}/${name}
    "# Not uploaded to Debian: the first changelog entry has no intent-to-package bug to close.\n"
    "${name}: initial-upload-closes-no-bugs\n")
  file(CHMOD ${overrides}/${name} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

  # md5sums over every file, and Installed-Size as dpkg-gencontrol counts it: KiB per file, rounded
  # up, plus one per folder.
  file(GLOB_RECURSE files LIST_DIRECTORIES true RELATIVE ${tree} ${tree}/*)
  list(SORT files)
  set(md5sums "")
  set(size 0)
  foreach(path IN LISTS files)
    if(path MATCHES "^DEBIAN(/|$)")
      continue()
    endif()
    if(IS_DIRECTORY ${tree}/${path})
      math(EXPR size "${size} + 1")
    else()
      file(MD5 ${tree}/${path} sum)
      string(APPEND md5sums "${sum}  ${path}\n")
      file(SIZE ${tree}/${path} bytes)
      math(EXPR size "${size} + (${bytes} + 1023) / 1024")
    endif()
  endforeach()
  file(WRITE ${tree}/DEBIAN/md5sums "${md5sums}")

  file(READ ${tree}/DEBIAN/control control)
  string(REGEX REPLACE "(^|\n)Installed-Size: [0-9]+\n" "\\1Installed-Size: ${size}\n" control "${control}")
  string(REGEX REPLACE "(^|\n)Multi-Arch: [^\n]*\n" "\\1" control "${control}")
  string(REGEX REPLACE "(^|\n)(Architecture: [^\n]*\n)" "\\1\\2Multi-Arch: ${multi_arch}\n" control "${control}")
  file(WRITE ${tree}/DEBIAN/control "${control}")

  run(${DPKG_DEB} --root-owner-group -Zxz --build ${tree} ${package_file})
  file(REMOVE_RECURSE ${tree})
endforeach()
