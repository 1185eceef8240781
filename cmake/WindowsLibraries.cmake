# The DLLs of others that the library needs on Windows, and their licenses: the zip holds them, an installation does not.
# Those of the compiler are where it looks for them, the others where scripts/build-mingw-dependencies leaves them. All
# are made from packages of Debian, whose notices lie on this machine.
set(libraries ${QVTP_MINGW_PREFIX}/bin/libPocoFoundation.dll ${QVTP_MINGW_PREFIX}/bin/libxerces-c.dll)
foreach(library libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${library} OUTPUT_VARIABLE file
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND libraries ${file})
endforeach()
install(FILES ${libraries} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT others EXCLUDE_FROM_ALL)

set(licenses ${CMAKE_INSTALL_DOCDIR}/licenses)
foreach(package libpoco-dev libxerces-c-dev gcc-mingw-w64-base mingw-w64-x86-64-dev)
  install(FILES /usr/share/doc/${package}/copyright DESTINATION ${licenses} RENAME ${package}.txt COMPONENT others
          EXCLUDE_FROM_ALL)
endforeach()
foreach(license Apache-2.0 GPL-3)
  install(FILES /usr/share/common-licenses/${license} DESTINATION ${licenses} RENAME ${license}.txt COMPONENT others
          EXCLUDE_FROM_ALL)
endforeach()
install(FILES packaging/windows/THIRD-PARTY.txt packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT others
        EXCLUDE_FROM_ALL)
set(CPACK_COMPONENTS_ALL runtime development tools documentation others)
