# SPDX-License-Identifier: BSD-2-Clause
# The manual pages, where scdoc is: a program's options are those of its own --help, the page of the
# protocol is docs/protocol.md.
find_program(SCDOC scdoc)
if(NOT SCDOC OR CMAKE_CROSSCOMPILING)
  message(STATUS "scdoc is missing: the manual pages are left out")
  return()
endif()
set(sources ${PROJECT_SOURCE_DIR}/docs/man)
set(pages ${PROJECT_BINARY_DIR}/man)
file(MAKE_DIRECTORY ${pages})

# qora_man(PAGE SOURCE COMPONENT COMMAND...): COMMAND prints the page as scdoc reads it.
function(qora_man page source component)
  add_custom_command(OUTPUT ${pages}/${page}.gz
    COMMAND sh -c "${ARGN}" | ${SCDOC} > ${pages}/${page}
    COMMAND gzip -9nf ${pages}/${page}
    DEPENDS ${source} ${sources}/options.awk ${sources}/protocol.awk VERBATIM)
  set_property(GLOBAL APPEND PROPERTY QORA_MAN_PAGES ${pages}/${page}.gz)
  string(REGEX REPLACE ".*\\." "" section ${page})
  install(FILES ${pages}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
          COMPONENT ${component})
endfunction()

qora_man(qora-codec.7 ${PROJECT_SOURCE_DIR}/docs/protocol.md doc
  "awk -f ${sources}/protocol.awk ${PROJECT_SOURCE_DIR}/docs/protocol.md")
foreach(page qora-codec.8 qora-sandbox.8)
  qora_man(${page} ${sources}/${page}.scd service "cat ${sources}/${page}.scd")
endforeach()
foreach(program qora-encode qora-record qora-view qora-serve)
  if(TARGET ${program})
    set(source ${sources}/${program}.1.scd)
    qora_man(${program}.1 "${source};${program}" tools
      "$<TARGET_FILE:${program}> --help | awk -f ${sources}/options.awk - ${source}")
  endif()
endforeach()
get_property(all GLOBAL PROPERTY QORA_MAN_PAGES)
add_custom_target(man ALL DEPENDS ${all})
