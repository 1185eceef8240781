# Sanitizers are for the whole tree: all of its objects or none.
if(QVTP_SANITIZE)
  add_compile_options(-fsanitize=${QVTP_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 sees uninitialised variables in its own <regex> when it instruments it (GCC bug 105562).
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  add_link_options(-fsanitize=${QVTP_SANITIZE})
endif()
