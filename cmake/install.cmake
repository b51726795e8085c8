# What `cmake --install` puts where, by component:
#
#   runtime      the library, and the link by which a Java VM finds it
#   development  headers, the linker's name of the library, pkg-config and CMake files, section 3
#   java         jars: classes, sources, documentation
#   tools        programs, completion, examples, sections 1, 5 and 7
#
# Every file is found from where it lies, so that one build installs under any prefix.
#
# On Debian each word size has a library directory of its own, under every prefix, so that both
# libraries stand side by side. CMake's own guess does not know of -m32.
set(halvo_triplet x86_64-linux-gnu)
set(halvo_pointer_size 8)
if(HALVOIPC_WIDTH STREQUAL "32")
  set(halvo_triplet i386-linux-gnu)
  set(halvo_pointer_size 4)
endif()
if(EXISTS /etc/debian_version)
  set(CMAKE_INSTALL_LIBDIR lib/${halvo_triplet} CACHE PATH "Directory of libraries under the prefix")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

get_property(halvo_tools GLOBAL PROPERTY HALVO_PROGRAMS)
set(halvo_docs ${CMAKE_INSTALL_DATADIR}/doc/halvo-tools)

# ---- Library
add_library(HalvoIPC::halvoipc ALIAS halvoipc)
install(TARGETS halvoipc EXPORT HalvoIPCTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/halvo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
install(FILES docs/examples/hello.c docs/examples/hello.cpp docs/examples/CMakeLists.txt
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libhalvoipc-dev/examples COMPONENT development)

# ---- pkg-config and CMake files of the word size
set(halvo_link_flags)
if(HALVOIPC_JAVA)
  set(halvo_link_flags " -Wl,--allow-shlib-undefined") # for the VM's library, see jni/CMakeLists.txt
endif()
file(RELATIVE_PATH halvo_pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" halvo_pc_to_prefix "${halvo_pc_to_prefix}")
configure_file(cmake/halvoipc.pc.in cmake/halvoipc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/halvoipc.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

set(halvo_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/HalvoIPC)
function(halvo_version_file)
  set(CMAKE_SIZEOF_VOID_P ${halvo_pointer_size}) # a program of the other word size must not match
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/HalvoIPCConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
endfunction()
halvo_version_file()
install(FILES cmake/HalvoIPCConfig.cmake ${PROJECT_BINARY_DIR}/cmake/HalvoIPCConfigVersion.cmake
  DESTINATION ${halvo_cmake_dir} COMPONENT development)
install(EXPORT HalvoIPCTargets NAMESPACE HalvoIPC:: DESTINATION ${halvo_cmake_dir}
  COMPONENT development)

# ---- Java
if(HALVOIPC_JAVA)
  # Debian's VMs look for libraries in the folder jni beside the others.
  install(CODE "
    set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/jni\")
    file(MAKE_DIRECTORY \"\${folder}\")
    file(CREATE_LINK ../libhalvoipc.so.1 \"\${folder}/libhalvoipc.so\" SYMBOLIC)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES
      \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/jni/libhalvoipc.so\")"
    COMPONENT runtime)
  install(FILES ${PROJECT_BINARY_DIR}/java/halvoipc.jar DESTINATION ${CMAKE_INSTALL_DATADIR}/java
    RENAME halvoipc-${PROJECT_VERSION}.jar COMPONENT java)
  file(CREATE_LINK halvoipc-${PROJECT_VERSION}.jar ${PROJECT_BINARY_DIR}/cmake/halvoipc.jar SYMBOLIC)
  install(FILES ${PROJECT_BINARY_DIR}/cmake/halvoipc.jar ${PROJECT_BINARY_DIR}/java/halvoipc-sources.jar
    ${PROJECT_BINARY_DIR}/java/halvoipc-javadoc.jar
    DESTINATION ${CMAKE_INSTALL_DATADIR}/java COMPONENT java)
  install(FILES docs/examples/Hello.java docs/examples/Gateway.java ${PROJECT_BINARY_DIR}/java/halvoipc-examples.jar
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libhalvoipc-java/examples COMPONENT java)
  install(DIRECTORY jni/examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libhalvoipc-java/examples
    COMPONENT java)
endif()

# ---- Programs
if(halvo_tools)
  set_target_properties(${halvo_tools} PROPERTIES
    INSTALL_RPATH "\$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS ${halvo_tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  foreach(tool IN LISTS halvo_tools)
    install(FILES tools/frame/completion.bash RENAME ${tool}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
  endforeach()
  install(FILES tools/qm/example.toml DESTINATION ${halvo_docs}/examples COMPONENT tools)
  # For those who watch: rules, dashboard and examples; units under the prefix's own directory.
  install(DIRECTORY tools/mon/share/ DESTINATION ${CMAKE_INSTALL_DATADIR}/halvo COMPONENT tools
    PATTERN "*@.*" EXCLUDE)
  install(DIRECTORY tools/mon/share/ DESTINATION lib/systemd/system COMPONENT tools
    FILES_MATCHING PATTERN "*@.*")
  install(PROGRAMS dev/demo.sh DESTINATION ${halvo_docs}/examples COMPONENT tools)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/man.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/packages.cmake)
