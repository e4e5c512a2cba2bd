# Run by cpack after it has made the vendor bundle (CPACK_POST_BUILD_SCRIPTS, the TGZ generator).
# It unpacks the archive and packs it again the same way on every build: members sorted by name,
# every time stamp CPACK_SIGNING_SOURCE_DATE_EPOCH, owner and group root (0), no name or time in the
# gzip header. With CPACK_SIGNING_SPLIT_DEBUG (the bundle presets) it first moves the debug
# information of each ELF file into signing-VERSION-linux-MACHINE-debug.tar.gz, under the same top
# folder, and strips the file (also of its .comment and .note sections):
#   lib/signing/.debug/libsigning.so.debug       the debug file, which the module's .gnu_debuglink
#                                                names: gdb finds it beside the module by that name
#   lib/debug/.build-id/xx/yyyy.debug            a link to it by the module's build-id, for tools that
#                                                look debug files up by build-id (debug-file-directory)
# Unpacked over the bundle, the debug archive puts each file where the debugger looks for it.
if(NOT CPACK_GENERATOR STREQUAL "TGZ")
  return()
endif()
find_program(TAR tar REQUIRED)
find_program(GZIP gzip REQUIRED)
find_program(OBJCOPY objcopy REQUIRED)
find_program(READELF readelf REQUIRED)

include(${CMAKE_CURRENT_LIST_DIR}/run-command.cmake)

# Packs FOLDER (a top folder inside PARENT) into ARCHIVE, reproducibly.
function(pack parent folder archive)
  execute_process(
    COMMAND ${TAR} --sort=name --format=gnu --mtime=@${CPACK_SIGNING_SOURCE_DATE_EPOCH}
      --owner=0 --group=0 --numeric-owner --mode=u+rw,go-w -C ${parent} -cf - ${folder}
    COMMAND ${GZIP} -9n
    OUTPUT_FILE ${archive} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "packing ${archive} failed")
  endif()
endfunction()

foreach(archive IN LISTS CPACK_PACKAGE_FILES)
  if(NOT archive MATCHES "/(${CPACK_SIGNING_BUNDLE_NAME})\\.tar\\.gz$")
    continue()
  endif()
  set(top ${CMAKE_MATCH_1})
  get_filename_component(folder ${archive} DIRECTORY)
  set(work ${folder}/${top}.repack)
  file(REMOVE_RECURSE ${work})
  file(MAKE_DIRECTORY ${work}/bundle ${work}/debug)
  run(${TAR} -xzf ${archive} -C ${work}/bundle)
  if(NOT IS_DIRECTORY ${work}/bundle/${top})
    message(FATAL_ERROR "${archive} has no top folder ${top}")
  endif()

  if(CPACK_SIGNING_SPLIT_DEBUG)
    file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE ${work}/bundle/${top} ${work}/bundle/${top}/*)
    list(SORT files)
    set(debug_files 0)
    foreach(path IN LISTS files)
      set(file ${work}/bundle/${top}/${path})
      file(READ ${file} magic LIMIT 4 HEX)
      if(IS_SYMLINK ${file} OR NOT magic STREQUAL "7f454c46")
        continue()
      endif()
      run(${READELF} --notes ${file})
      if(NOT output MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
        message(FATAL_ERROR "${path} has no build-id")
      endif()
      set(by_id lib/debug/.build-id/${CMAKE_MATCH_1}/${CMAKE_MATCH_2}.debug)
      get_filename_component(name ${path} NAME)
      get_filename_component(dir ${path} DIRECTORY)
      set(debug ${dir}/.debug/${name}.debug)
      file(MAKE_DIRECTORY ${work}/debug/${top}/${dir}/.debug)
      run(${OBJCOPY} --only-keep-debug --compress-debug-sections ${file} ${work}/debug/${top}/${debug})
      file(CHMOD ${work}/debug/${top}/${debug} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
      run(${OBJCOPY} --strip-unneeded --remove-section=.comment --remove-section=.note ${file})
      run(${OBJCOPY} --add-gnu-debuglink=${work}/debug/${top}/${debug} ${file})
      get_filename_component(by_id_dir ${by_id} DIRECTORY)
      file(MAKE_DIRECTORY ${work}/debug/${top}/${by_id_dir})
      file(RELATIVE_PATH target /${by_id_dir} /${debug})
      file(CREATE_LINK ${target} ${work}/debug/${top}/${by_id} SYMBOLIC)
      math(EXPR debug_files "${debug_files} + 1")
    endforeach()
    if(debug_files EQUAL 0)
      message(FATAL_ERROR "${archive} holds no ELF file to take the debug information of")
    endif()
    # CPack copies the archive from its working folder into the package directory; the debug
    # archive goes there itself.
    set(destination ${folder})
    if(CPACK_PACKAGE_DIRECTORY)
      set(destination ${CPACK_PACKAGE_DIRECTORY})
    endif()
    pack(${work}/debug ${top} ${destination}/${top}-debug.tar.gz)
    message(STATUS "- debug archive: ${destination}/${top}-debug.tar.gz generated.")
  endif()

  pack(${work}/bundle ${top} ${archive})
  file(REMOVE_RECURSE ${work})
endforeach()
