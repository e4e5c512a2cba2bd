# Run by cpack after it has made the packages (CPACK_POST_BUILD_SCRIPTS). For the Debian packages,
# it adds what CPack's DEB generator does not write, then packs each one again with dpkg-deb:
#   - the Multi-Arch field (CPACK_SIGNING_MULTI_ARCH: "package=value;..."), so that the amd64 and
#     i386 module and -dev packages install side by side;
#   - /usr/share/doc/PACKAGE/copyright and changelog.Debian.gz (gzip -9n: the same bytes on every
#     architecture, as Multi-Arch: same asks of files both copies hold), from CPACK_SIGNING_DEBIAN_FILES;
#     signing-module's copyright file is CPACK_SIGNING_MODULE_COPYRIGHT, which also names the
#     libraries linked into its module, if any. A -dbgsym package's doc folder is a link to its
#     package's, as debhelper makes it;
#   - the binaries without their .comment and .note sections (strip does not remove them; dh_strip
#     does), which changes neither their build-ids nor the debug links to their -dbgsym files;
#   - lintian overrides for the tags that do not apply, each with its reason;
#   - DEBIAN/md5sums and Installed-Size, recounted over the files;
#   - every time stamp set to CPACK_SIGNING_SOURCE_DATE_EPOCH, so that two builds give the same bytes
#     (dpkg-deb sorts the members and, with --root-owner-group, makes root their owner).
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()
find_program(DPKG_DEB dpkg-deb REQUIRED)
find_program(GZIP gzip REQUIRED)
find_program(OBJCOPY objcopy REQUIRED)
find_program(TOUCH touch REQUIRED)
set(ENV{SOURCE_DATE_EPOCH} ${CPACK_SIGNING_SOURCE_DATE_EPOCH})

include(${CMAKE_CURRENT_LIST_DIR}/run-command.cmake)

# The -dbgsym packages (.ddeb) beside the packages they belong to.
set(package_files ${CPACK_PACKAGE_FILES})
foreach(package_file IN LISTS CPACK_PACKAGE_FILES)
  string(REGEX REPLACE "^(.*/[^/_]+)(_[^/]*)\\.deb$" "\\1-dbgsym\\2.ddeb" debug_file ${package_file})
  if(debug_file MATCHES "\\.ddeb$" AND EXISTS ${debug_file})
    list(APPEND package_files ${debug_file})
  endif()
endforeach()
list(REMOVE_DUPLICATES package_files)

# The lintian overrides of a package, each led by its reason; FILES are its ELF files.
function(overrides name files out)
  # The same text on every architecture (Multi-Arch: same): the multiarch folder as a wildcard.
  list(TRANSFORM files REPLACE "^usr/lib/[^/]+-linux-gnu/" "usr/lib/*/")
  set(text "# Not uploaded to Debian: the first changelog entry has no intent-to-package bug to close.\n"
    "${name}: initial-upload-closes-no-bugs\n")
  foreach(file IN LISTS files)
    if(name STREQUAL "signing-module")
      list(APPEND text "# The module's host functions (signing/host.h) stay undefined until a host loads it. A C host\n"
        "# defines none of them and calls rpm_verify only, loading the module with RTLD_LAZY\n"
        "# (examples/c-host): with bindnow dlopen would fail on the first one. The tools are built with it.\n"
        "${name}: hardening-no-bindnow [${file}]\n")
    endif()
    if(file MATCHES "/(libsigning\\.so|rpm-verify)$")
      list(APPEND text "# The texts are the module's specified messages and log lines, which hosts compare as they are.\n"
        "${name}: spelling-error-in-binary existance existence [${file}]\n"
        "${name}: spelling-error-in-binary occured occurred [${file}]\n")
    endif()
  endforeach()
  string(CONCAT text ${text})
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

foreach(package_file IN LISTS package_files)
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
  if(name MATCHES "^(.*)-dbgsym$")
    file(MAKE_DIRECTORY ${tree}/usr/share/doc)
    file(CREATE_LINK ${CMAKE_MATCH_1} ${doc} SYMBOLIC)
    # Debug files are data, not programs (CPack keeps the mode of the binary they come from).
    file(GLOB_RECURSE debug_files LIST_DIRECTORIES false ${tree}/usr/lib/debug/*.debug)
    foreach(path IN LISTS debug_files)
      file(CHMOD ${path} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    endforeach()
  else()
    set(copyright ${CPACK_SIGNING_DEBIAN_FILES}/copyright)
    if(name STREQUAL "signing-module")
      set(copyright ${CPACK_SIGNING_MODULE_COPYRIGHT})
    endif()
    file(MAKE_DIRECTORY ${doc})
    file(COPY_FILE ${copyright} ${doc}/copyright)
    execute_process(COMMAND ${GZIP} -9nc ${CPACK_SIGNING_DEBIAN_FILES}/changelog
      OUTPUT_FILE ${doc}/changelog.Debian.gz RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "gzip of the changelog failed")
    endif()
    file(CHMOD ${doc}/copyright ${doc}/changelog.Debian.gz PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

    file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE ${tree} ${tree}/usr/*)
    list(SORT files)
    set(elf_files "")
    foreach(path IN LISTS files)
      file(READ ${tree}/${path} magic LIMIT 4 HEX)
      if(magic STREQUAL "7f454c46" AND NOT IS_SYMLINK ${tree}/${path})
        run(${OBJCOPY} --remove-section=.comment --remove-section=.note ${tree}/${path})
        list(APPEND elf_files ${path})
      endif()
    endforeach()

    set(overrides ${tree}/usr/share/lintian/overrides)
    file(MAKE_DIRECTORY ${overrides})
    overrides(${name} "${elf_files}" text)
    file(WRITE ${overrides}/${name} "${text}")
    file(CHMOD ${overrides}/${name} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endif()

  # md5sums over every file, and Installed-Size as dpkg-gencontrol counts it: KiB per file, rounded
  # up, plus one per folder or link.
  file(GLOB_RECURSE files LIST_DIRECTORIES true RELATIVE ${tree} ${tree}/*)
  list(SORT files)
  set(md5sums "")
  set(size 0)
  foreach(path IN LISTS files)
    if(path MATCHES "^DEBIAN(/|$)")
      continue()
    endif()
    if(IS_SYMLINK ${tree}/${path} OR IS_DIRECTORY ${tree}/${path})
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
  run(find ${tree} -exec ${TOUCH} --no-dereference --date=@${CPACK_SIGNING_SOURCE_DATE_EPOCH} {} +)

  run(${DPKG_DEB} --root-owner-group -Zxz --build ${tree} ${package_file})
  file(REMOVE_RECURSE ${tree})
endforeach()
