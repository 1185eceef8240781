# The warnings of every target of this project. They are never part of an interface.
function(qvtp_enable_warnings target)
  target_compile_options(
    ${target}
    PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast
            -Wcast-qual -Wundef -Wformat=2)
  if(QVTP_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
