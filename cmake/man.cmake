# Manual pages, from the Markdown in docs/man: NAME.SECTION.md becomes man/NAME.SECTION.gz in the
# build tree. Without pandoc there are none.
find_program(HALVOIPC_PANDOC pandoc)
if(NOT HALVOIPC_PANDOC)
  message(STATUS "No pandoc: no manual pages")
  return()
endif()
file(GLOB man_sources CONFIGURE_DEPENDS docs/man/*.md)
set(man_pages)
file(REMOVE_RECURSE ${PROJECT_BINARY_DIR}/man/links)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man/links)
foreach(source IN LISTS man_sources)
  get_filename_component(name ${source} NAME_WLE)
  string(REGEX MATCH "[0-9]$" section ${name})
  set(page ${PROJECT_BINARY_DIR}/man/${name})
  # gzip -n: the same bytes whenever they are made, for both word sizes.
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${HALVOIPC_PANDOC} --standalone --from markdown-smart --to man
            --variable "footer=Halvo IPC ${PROJECT_VERSION}" --output ${page} ${source}
    COMMAND gzip -9nf ${page}
    DEPENDS ${source} VERBATIM COMMENT "Making the manual page ${name}")
  list(APPEND man_pages ${page}.gz)
  set(component tools)
  if(section EQUAL 3)
    set(component development)
    # `man frx_write` finds the page that tells of it.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    file(READ ${source} text)
    string(REGEX MATCHALL "`(frx|fq|qm|q)_[A-Za-z0-9_]+`" functions "${text}")
    list(REMOVE_DUPLICATES functions)
    foreach(function IN LISTS functions)
      string(REPLACE "`" "" function ${function})
      set(link ${PROJECT_BINARY_DIR}/man/links/${function}.3.gz)
      file(CREATE_LINK ${name}.gz ${link} SYMBOLIC)
      install(FILES ${link} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT ${component})
    endforeach()
  endif()
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()
add_custom_target(halvo_man ALL DEPENDS ${man_pages})
