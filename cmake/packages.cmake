# Debian packages of one word size: cpack in the build tree makes them. dev/package.sh makes those
# of both.
if(NOT CMAKE_INSTALL_LIBDIR STREQUAL "lib/${halvo_triplet}")
  message(STATUS "CMAKE_INSTALL_LIBDIR is ${CMAKE_INSTALL_LIBDIR}: no Debian packages from here")
  return()
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME halvoipc)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Halvo IPC maintainers <halvo-ipc@morvesk.com>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL runtime development)
if(HALVOIPC_JAVA)
  list(APPEND CPACK_COMPONENTS_ALL java)
endif()
if(halvo_tools)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(TARGET halvo-relay)
  list(APPEND CPACK_COMPONENTS_ALL relay)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/finish_packages.cmake)
set(halvo_architecture amd64)
if(HALVOIPC_WIDTH STREQUAL "32")
  set(halvo_architecture i386)
endif()

# halvo_package(component name section architecture
#     MULTIARCH value DEPENDS list RECOMMENDS list SYNOPSIS line TEXT lines)
function(halvo_package component name section architecture)
  cmake_parse_arguments(P "" "MULTIARCH;DEPENDS;RECOMMENDS;SYNOPSIS;TEXT" "" ${ARGN})
  string(TOUPPER ${component} C)
  set(CPACK_DEBIAN_${C}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${C}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${C}_PACKAGE_ARCHITECTURE ${architecture} PARENT_SCOPE)
  set(CPACK_DEBIAN_${C}_PACKAGE_DEPENDS "${P_DEPENDS}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${C}_PACKAGE_RECOMMENDS "${P_RECOMMENDS}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${C}_DESCRIPTION "${P_SYNOPSIS}\n${P_TEXT}" PARENT_SCOPE)
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packages/${name}/multiarch
    CONTENT "${P_MULTIARCH}\n")

  set(documents ${PROJECT_BINARY_DIR}/packages/${name})
  file(COPY_FILE ${PROJECT_SOURCE_DIR}/cmake/copyright ${documents}/copyright ONLY_IF_DIFFERENT)
  execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/cmake/changelog
    OUTPUT_FILE ${documents}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${documents}/copyright ${documents}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  if(EXISTS ${PROJECT_SOURCE_DIR}/cmake/lintian/${name})
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/lintian/${name}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
  endif()
endfunction()

# dpkg-shlibdeps knows no package for the VM's library, and the C++ runtime is inside ours; so the
# dependencies stand here, and dev/check_packages.sh compares them with what the files need.
set(halvo_libc "libc6 (>= 2.35)")
set(halvo_vm)
if(HALVOIPC_JAVA)
  set(halvo_vm ", openjdk-17-jre-headless")
endif()
set(halvo_about "Halvo IPC passes messages between the processes of one machine, written\n\
in C, C++ or Java and of both word sizes, through numbered channels in shared\n\
memory and through queues in files.\n.\n")
set(same "(= ${PROJECT_VERSION})")
halvo_package(runtime libhalvoipc1 libs ${halvo_architecture} MULTIARCH same
  DEPENDS "${halvo_libc}${halvo_vm}"
  SYNOPSIS "message queues between processes - library"
  TEXT "${halvo_about}This package holds the library.")
halvo_package(development libhalvoipc-dev libdevel ${halvo_architecture} MULTIARCH same
  DEPENDS "libhalvoipc1 ${same}"
  SYNOPSIS "message queues between processes - development files"
  TEXT "${halvo_about}This package holds headers, manual pages, and files for\n\
pkg-config and CMake.")
# A dependency would ask for the library of the machine's word size, whatever VM is in use.
halvo_package(java libhalvoipc-java java all MULTIARCH foreign
  RECOMMENDS "libhalvoipc1 (>= ${PROJECT_VERSION})"
  SYNOPSIS "message queues between processes - Java classes"
  TEXT "${halvo_about}This package holds the jars of classes, sources and\n\
documentation.")
halvo_package(tools halvo-tools utils ${halvo_architecture} MULTIARCH foreign
  DEPENDS "libhalvoipc1 ${same}, ${halvo_libc}, libgcc-s1, libstdc++6 (>= 12), libmicrohttpd12, libncursesw6 (>= 6), libsqlite3-0 (>= 3.35), libtinfo6 (>= 6)"
  SYNOPSIS "message queues between processes - programs"
  TEXT "${halvo_about}This package holds the development queue manager, the monitor,\n\
programs that send and receive messages and work on file queues, and the\n\
demonstration.")
halvo_package(relay halvo-relay net ${halvo_architecture} MULTIARCH foreign
  DEPENDS "libhalvoipc1 ${same}, ${halvo_libc}, libgcc-s1, librabbitmq4 (>= 0.11), libstdc++6 (>= 12)"
  SYNOPSIS "message queues between processes - relay to a message broker"
  TEXT "${halvo_about}This package holds the relay that carries messages of channels and\n\
file queues through a RabbitMQ broker to other machines.")
include(CPack)
