# Sanitizers are for the whole tree: all of its objects or none.
if(QVTP_SANITIZE)
  add_compile_options(-fsanitize=${QVTP_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${QVTP_SANITIZE})
endif()
