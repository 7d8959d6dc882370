# SPDX-License-Identifier: BSD-2-Clause
# What bash and zsh complete the programs' options with: each program prints it.
if(CMAKE_CROSSCOMPILING)
  message(STATUS "cross-compiling: the shell completions are left out")
  return()
endif()
set(bash_folder ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
# Debian's zsh looks here for what packages bring, and there below /usr/local.
set(zsh_folder ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(zsh_folder ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
endif()
set(bash_prefix "")
set(zsh_prefix _)
set(completions ${PROJECT_BINARY_DIR}/completions)
file(MAKE_DIRECTORY ${completions}/bash ${completions}/zsh)

foreach(program qora-encode qora-record qora-view qora-serve)
  if(TARGET ${program})
    foreach(shell bash zsh)
      set(script ${completions}/${shell}/${${shell}_prefix}${program})
      add_custom_command(OUTPUT ${script} COMMAND ${program} --completion ${shell} > ${script}
        DEPENDS ${program} VERBATIM)
      install(FILES ${script} DESTINATION ${${shell}_folder} COMPONENT tools)
      list(APPEND scripts ${script})
    endforeach()
  endif()
endforeach()
add_custom_target(completions ALL DEPENDS ${scripts})
