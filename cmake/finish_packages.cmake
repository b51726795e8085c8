# Runs in cpack behind the making of the packages. Adds the field Multi-Arch, which CPack does not
# know, so that a machine can have the libraries of both word sizes, and has the loader's cache
# refreshed by a trigger, as Debian does it, instead of by scripts.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(work ${CPACK_TEMPORARY_DIRECTORY}/finish)
  file(REMOVE_RECURSE ${work})
  execute_process(COMMAND dpkg-deb -R ${package} ${work} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${work}/DEBIAN/control control)
  string(REGEX MATCH "Package: ([^\n]+)" ignored "${control}")
  file(READ ${CPACK_PACKAGE_DIRECTORY}/packages/${CMAKE_MATCH_1}/multiarch value)
  string(STRIP "${value}" value)
  string(REGEX REPLACE "(Architecture: [^\n]+\n)" "\\1Multi-Arch: ${value}\n" control "${control}")
  file(WRITE ${work}/DEBIAN/control "${control}")
  if(EXISTS ${work}/DEBIAN/shlibs)
    file(REMOVE ${work}/DEBIAN/postinst ${work}/DEBIAN/postrm)
    file(WRITE ${work}/DEBIAN/triggers "activate-noawait ldconfig\n")
  endif()
  execute_process(COMMAND dpkg-deb --root-owner-group -Zxz -b ${work} ${package}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endforeach()
