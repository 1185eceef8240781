# What completes the program qvtp in bash, zsh and fish, as the program prints it. Shells find the files by their names.
set(QVTP_ZSH_COMPLETION_DIR ${CMAKE_INSTALL_DATAROOTDIR}/zsh/site-functions
    CACHE STRING "Where zsh looks for completions: distributions have a directory of their own")
set(folder_bash ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
set(file_bash qvtp)
set(folder_zsh ${QVTP_ZSH_COMPLETION_DIR})
set(file_zsh _qvtp)
set(folder_fish ${CMAKE_INSTALL_DATAROOTDIR}/fish/vendor_completions.d)
set(file_fish qvtp.fish)
foreach(shell bash zsh fish)
  set(script ${PROJECT_BINARY_DIR}/completion/${shell}/${file_${shell}})
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/completion/${shell})
  add_custom_command(
    OUTPUT ${script}
    COMMAND qvtp_program completion ${shell} > ${script}
    DEPENDS qvtp_program
    VERBATIM)
  list(APPEND scripts ${script})
  install(FILES ${script} DESTINATION ${folder_${shell}} COMPONENT tools)
endforeach()
add_custom_target(qvtp_completion ALL DEPENDS ${scripts})
